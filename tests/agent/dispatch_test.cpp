#include <gtest/gtest.h>

#include "agent/local_lock.h"
#include "support/agent_state.h"
#include "support/dispatch_helper.h"
#include "support/identity_fixture.h"
#include "support/log_capture.h"

using Dispatch = UnlockedAgentTest;

// Framing and reply limits on both sides, unknown messages and what a
// locked agent serves.
TEST_F(Dispatch, LimitsUnknownMessagesAndTheLockedTable)
{
    LogCapture log;
    Bytes largest(4 + 0x40000, 0);  // a list request padded to the 256 KiB limit
    largest[1] = 4, largest[4] = 11;
    Bytes two = request_hex("03"), second = request_hex("d5");
    two.insert(two.end(), second.begin(), second.end());
    struct Case { Bytes input; const char *reply_hex, *line; bool locked = false; int type = AUTH_CONNECTION; };
    const Case cases[] = {
        {hex_bytes(""), "", "Incomplete client request ignored"},
        {hex_bytes("00000001"), "", "Incomplete client request ignored"},  // 4 bytes: under 5
        {hex_bytes("00000000 ff"), "00000001 05", "Processing client request"},  // message 0
        {hex_bytes("00000002 0b"), "", "Incomplete client request ignored"},     // one byte short
        {hex_bytes("00000002 0b00"), "00000005 0c 00000000", "Processing client request"},
        {largest, "00000005 0c 00000000", "Processing client request"},
        // One byte over closes the connection's context.
        {hex_bytes("00040001 0b"), "", "keyagent: Client request too large. Ignored", false, 0},
        {two, "00000001 05", "SSH_AGENTC_RSA_CHALLENGE (3)"},  // only the first is answered
        // Unknown numbers answer their family's failure: from 201 on, version 2.
        {request_hex("c8"), "00000001 05", "Processing client request (generic) (200)"},
        {request_hex("c9"), "00000001 66", "Processing client request (generic) (201)"},
        {request_hex("d5"), "00000001 66", "Processing client request SSH_AGENT_RANDOM (213)"},
        {request_hex("18"), "00000001 05", "Processing client request (generic) (24)"},
        // What a locked agent still serves.
        {request_hex("0b"), "00000005 0c 00000000", "keyagent: Received a request for identities", true},
        {request_hex("9b"), "00000005 0c 00000000", "keyagent: Received a request for identities", true},
        {request_hex("01"), "00000005 02 00000000", "keyagent: Assuming version 1", true},
        {request_hex("9a"), "00000005 02 00000000", "keyagent: Received a request for RSA identities", true},
        {request_hex("a0"), "00000001 aa", "Processing client request SSH2_AGENTC_ZEM_SIGN_REQUEST (160)", true},
        {request_hex("cc"), "00000005 68 00000000", "keyagent: Processing client request SSH_AGENT_LIST_KEYS", true},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.line);
        log.clear();
        agent_set_locked(c.locked);
        DispatchResult result = dispatch_bytes(c.input);
        EXPECT_EQ(result.reply, hex_bytes(c.reply_hex));
        EXPECT_EQ(result.type, c.type);
        EXPECT_TRUE(log.contains(c.line));
    }
    // Everything else is refused while locked, before it is processed.
    for (int number : {7, 8, 9, 17, 18, 19, 22, 24, 25, 152, 153, 202, 203, 205, 207, 208, 212}) {
        log.clear();
        EXPECT_EQ(dispatch_bytes(frame({static_cast<uint8_t>(number)})).reply,
                  hex_bytes(number < 201 ? "00000001 05" : "00000001 66")) << number;
        EXPECT_TRUE(log.contains("Received a request for unknown message type (" + std::to_string(number) + ")"));
        EXPECT_FALSE(log.contains("Done processing")) << number;
    }
    agent_set_locked(false);

    // Replies up to 128 KiB go out; a larger one becomes a failure.
    Identity *identity = add_test_identity(key_generate(KEY_ED25519, 0), "x", "ed");
    size_t base = dispatch_bytes(request_hex("0b")).reply.size();
    identity->comment = std::string(1 + 131072 - base, 'c');
    Bytes reply = dispatch_bytes(request_hex("0b")).reply;
    ASSERT_EQ(reply.size(), 131072u);
    EXPECT_EQ(reply[4], 12);
    identity->comment = std::string(2 + 131072 - base, 'c');
    EXPECT_EQ(dispatch_bytes(request_hex("0b")).reply, hex_bytes("00000001 05"));
    EXPECT_TRUE(log.contains("Reply of 131073 bytes exceeds the 131072-byte limit; answering failure"));

    // What an unknown message logs.
    log.clear();
    EXPECT_EQ(dispatch_bytes(request_hex("03")).reply, hex_bytes("00000001 05"));
    EXPECT_EQ(log.lines(), (std::vector<std::string>{
                               "keyagent: Processing client request SSH_AGENTC_RSA_CHALLENGE (3)",
                               "error: Unknown message 3",
                               "keyagent: Done processing client request SSH_AGENTC_RSA_CHALLENGE (3)"}));
}

// Lock, unlock and the notices to the shell.
namespace {

// What reaches the shell: change notices, commands of registered windows
// and redraws of the lock-state display.
struct ShellCalls {
    int manager_notices = 0, redraws = 0;
    std::vector<std::pair<uint64_t, uint32_t>> posted;
    std::vector<uint64_t> gone_windows;
} calls;

void record_shell_calls()
{
    calls = ShellCalls{};
    ShellServices shell;
    shell.redraw_tray = [] { ++calls.redraws; };
    shell.notify_manager = [] { ++calls.manager_notices; };
    shell.post_command = [](uint64_t window, uint32_t command) { calls.posted.emplace_back(window, command); };
    shell.window_exists = [](uint64_t window) {
        return std::find(calls.gone_windows.begin(), calls.gone_windows.end(), window) == calls.gone_windows.end();
    };
    shell_services_set(shell);
}

using LockAndNotices = AgentStateTest;

}  // namespace

TEST_F(LockAndNotices, UnlockRegistrationsChangeNoticesAndForwardingNotices)
{
    // ssh-add locks and unlocks the real agent, where a lock text never
    // unlocks and a wrong passphrase is refused; here the version 2 unlock,
    // the local entry points and what the shell is told.
    LogCapture log;
    set_agent_passphrase("agent pw", 0);
    record_shell_calls();
    struct Step { Bytes request; const char *reply_hex; const char *line; };
    const Step steps[] = {
        {string_request(22, "lock text"), "00000001 06", "keyagent: LOCKED"},
        {string_request(209, "agent pw"), "00000001 65", "keyagent: UNLOCKED"},
        {string_request(23, "anything"), "00000001 06", "keyagent: Unlock request - agent is already unlocked"},
    };
    for (const Step &s : steps) {
        log.clear();
        EXPECT_EQ(dispatch_bytes(s.request).reply, hex_bytes(s.reply_hex)) << s.line;
        EXPECT_TRUE(log.contains(s.line)) << s.line;
    }
    EXPECT_TRUE(agent_local_lock());
    EXPECT_TRUE(agent_local_lock());
    EXPECT_TRUE(log.contains("keyagent: Lock request - agent is already locked"));
    EXPECT_FALSE(agent_local_unlock("Agent pw"));
    EXPECT_TRUE(agent_is_locked());
    EXPECT_TRUE(agent_local_unlock("agent pw"));
    // Only real changes notify; every lock request redraws the status.
    EXPECT_EQ(std::pair(calls.manager_notices, calls.redraws), std::pair(4, 7));

    // With AttemptEmpty on, the empty unlock is tried: it fails with a
    // passphrase that is not empty.
    set_agent_passphrase("pw", 1);
    agent_set_locked(true);
    EXPECT_EQ(dispatch_bytes(string_request(159, "")).reply, hex_bytes("00000001 05"));
    EXPECT_TRUE(agent_is_locked());

    // Refresh registrations: unregistering a window drops its first entry only.
    record_shell_calls();
    for (const char *registration : {"1122334455667788 00000007", "0000000000000002 00000009",
                                     "0000000000000003 0000000a", "0000000000000002 0000000b"})
        dispatch_bytes(request_hex(std::string("9c ") + registration));
    EXPECT_EQ(dispatch_bytes(request_hex("9d 0000000000000002")).reply, hex_bytes("00000008 0000000000000002"));
    ASSERT_EQ(refresh_registrations().size(), 3u);  // only the first entry of window 2 went
    EXPECT_EQ(refresh_registrations()[2].command, 11u);

    // A window found gone is dropped; the others hear the notice.
    calls.gone_windows = {3};
    send_change_notice();
    EXPECT_EQ(calls.manager_notices, 1);
    EXPECT_EQ(calls.posted, (std::vector<std::pair<uint64_t, uint32_t>>{{0x1122334455667788, 7}, {2, 11}}));
    ASSERT_EQ(refresh_registrations().size(), 2u);

    // When the gone window is the first entry, the walk stops there.
    calls.posted.clear();
    calls.gone_windows = {0x1122334455667788};
    send_change_notice();
    EXPECT_TRUE(calls.posted.empty());
    ASSERT_EQ(refresh_registrations().size(), 1u);
    EXPECT_EQ(refresh_registrations()[0].window, 2u);

    // Vendor forwarding notices count the chain and keep the first record.
    agent_set_locked(false);
    DispatchResult first = dispatch_bytes(vendor_notice("gate", 0x403, 0xabc, 1, 2, 1), 42);
    EXPECT_EQ(std::tuple(first.reply, first.forwarding_chain), std::tuple(hex_bytes("00000001 06"), 1));
    EXPECT_EQ(std::tuple(get_x509rsa_sigtype(), get_x509dsa_sigtype(), agent_enum_get(), agent_dialog_owner()),
              std::tuple(2, 1, 0x403u, uint64_t{0xabc}));

    EXPECT_EQ(dispatch_bytes(vendor_notice("inner", 0x102, 0xdef, 1, 2, 1), 42, 1).forwarding_chain, 2);
    auto notice = forwarding_notice_for_connection(42);
    ASSERT_TRUE(notice);  // list mode 9: SunSSH servers
    EXPECT_EQ(std::tuple(notice->client_window, notice->enum_setting, notice->list_mode), std::tuple(0xabcu, 0x403u, 9u));
    EXPECT_EQ(forwarding_notice_count(), 1u);
    forwarding_notice_connection_closed(42);
    EXPECT_FALSE(forwarding_notice_for_connection(42));

    // (The list modes of the other server kinds show in what they are offered.)
    EXPECT_EQ(forwarding_list_mode(0x600, 4), 4u);
}
