#include <gtest/gtest.h>

#include "agent/local_lock.h"
#include "support/agent_state.h"
#include "support/dispatch_helper.h"
#include "support/identity_fixture.h"
#include "support/log_capture.h"

using Dispatch = UnlockedAgentTest;

TEST_F(Dispatch, RequestAndReplyLimitsOnBothSides)
{
    LogCapture log;
    Bytes largest(4 + 0x40000, 0);  // a list request padded to the 256 KiB limit
    largest[1] = 4, largest[4] = 11;
    Bytes two = request_hex("03"), second = request_hex("d5");
    two.insert(two.end(), second.begin(), second.end());
    struct Case { Bytes input; const char *reply_hex; const char *line; int type; };
    const Case cases[] = {
        {hex_bytes(""), "", "Incomplete client request ignored", AUTH_CONNECTION},
        {hex_bytes("00000001"), "", "Incomplete client request ignored", AUTH_CONNECTION},  // 4 bytes: under 5
        {hex_bytes("00000000 ff"), "00000001 05", "Processing client request", AUTH_CONNECTION},  // message 0
        {hex_bytes("00000002 0b"), "", "Incomplete client request ignored", AUTH_CONNECTION},     // one byte short
        {hex_bytes("00000002 0b00"), "00000005 0c 00000000", "Processing client request", AUTH_CONNECTION},
        {largest, "00000005 0c 00000000", "Processing client request", AUTH_CONNECTION},
        // One byte over closes the connection's context.
        {hex_bytes("00040001 0b"), "", "keyagent: Client request too large. Ignored", 0},
        {two, "00000001 05", "SSH_AGENTC_RSA_CHALLENGE (3)", AUTH_CONNECTION},  // only the first is answered
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.line);
        log.clear();
        DispatchResult result = dispatch_bytes(c.input);
        EXPECT_EQ(result.reply, hex_bytes(c.reply_hex));
        EXPECT_EQ(result.type, c.type);
        EXPECT_TRUE(log.contains(c.line));
    }

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
}

// Unknown numbers answer their family's failure: from 201 on, version 2.
TEST_F(Dispatch, UnknownMessagesAnswerTheirFamilysFailure)
{
    LogCapture log;
    EXPECT_EQ(dispatch_bytes(request_hex("03")).reply, hex_bytes("00000001 05"));
    EXPECT_EQ(log.lines(), (std::vector<std::string>{
                               "keyagent: Processing client request SSH_AGENTC_RSA_CHALLENGE (3)",
                               "error: Unknown message 3",
                               "keyagent: Done processing client request SSH_AGENTC_RSA_CHALLENGE (3)"}));
    for (auto [hex, protocol, name] : {std::tuple{"03", 1, "SSH_AGENTC_RSA_CHALLENGE (3)"}, {"c8", 1, "(generic) (200)"},
                                       {"c9", 2, "(generic) (201)"}, {"d5", 2, "SSH_AGENT_RANDOM (213)"},
                                       {"ff", 2, "(generic) (255)"}, {"18", 1, "(generic) (24)"}}) {
        log.clear();
        DispatchResult r = dispatch_bytes(request_hex(hex));
        EXPECT_EQ(r.reply, hex_bytes(protocol == 1 ? "00000001 05" : "00000001 66")) << hex;
        EXPECT_EQ(r.agent_protocol, protocol) << hex;
        EXPECT_TRUE(log.contains(std::string("Processing client request ") + name)) << hex;
    }
    EXPECT_STREQ(request_name(1), "SSH_AGENT_REQUEST_VERSION/SSH_AGENTC_REQUEST_RSA_IDENTITIES");
}

TEST_F(Dispatch, LockedAgentServesOnlyItsTable)
{
    LogCapture log;
    agent_set_locked(true);
    for (int number : {7, 8, 9, 17, 18, 19, 22, 24, 25, 152, 153, 202, 203, 205, 207, 208, 212}) {
        log.clear();
        EXPECT_EQ(dispatch_bytes(frame({static_cast<uint8_t>(number)})).reply,
                  hex_bytes(number < 201 ? "00000001 05" : "00000001 66")) << number;
        EXPECT_TRUE(log.contains("Received a request for unknown message type (" + std::to_string(number) + ")"));
        EXPECT_FALSE(log.contains("Done processing")) << number;
    }
    struct Served { const char *hex; const char *reply_hex; const char *line; };
    for (const Served &s : {Served{"0b", "00000005 0c 00000000", "keyagent: Received a request for identities"},
                            {"9b", "00000005 0c 00000000", "keyagent: Received a request for identities"},
                            {"01", "00000005 02 00000000", "keyagent: Assuming version 1"},
                            {"9a", "00000005 02 00000000", "keyagent: Received a request for RSA identities"},
                            {"97", "00000001 aa", "keyagent: Received a request for islocked"},
                            {"0d", "00000001 aa", "SSH2_AGENTC_SIGN_REQUEST (13)"},
                            {"a0", "00000001 aa", "Processing client request SSH2_AGENTC_ZEM_SIGN_REQUEST (160)"},
                            {"cc", "00000005 68 00000000", "keyagent: Processing client request SSH_AGENT_LIST_KEYS"}}) {
        log.clear();
        EXPECT_EQ(dispatch_bytes(request_hex(s.hex)).reply, hex_bytes(s.reply_hex)) << s.hex;
        EXPECT_TRUE(log.contains(s.line)) << s.hex;
    }
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

TEST_F(LockAndNotices, OnlyTheAgentPassphraseUnlocksAndAttemptEmptyIsFollowed)
{
    LogCapture log;
    set_agent_passphrase("agent pw", 0);
    record_shell_calls();
    struct Step { Bytes request; const char *reply_hex; const char *line; };
    const Step steps[] = {
        {string_request(22, "lock text"), "00000001 06", "keyagent: LOCKED"},
        {string_request(23, "lock text"), "00000001 05", "keyagent: Unlock failed: wrong passphrase"},
        {string_request(209, "agent pw"), "00000001 65", "keyagent: UNLOCKED"},
        {request_hex("97"), "00000001 ab", "SSH_AGENT_ZEM_ISLOCKED"},
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
    EXPECT_EQ(std::pair(calls.manager_notices, calls.redraws), std::pair(4, 8));

    // The empty unlock is tried only with AttemptEmpty on.
    for (auto [attempt_empty, passphrase, reply_hex, locked] :
         {std::tuple{0u, "", "00000001 66", true}, {1u, "", "00000001 06", false}, {1u, "pw", "00000001 05", true}}) {
        set_agent_passphrase(passphrase, 1);
        agent_settings().AttemptEmpty = attempt_empty;
        agent_set_locked(true);
        EXPECT_EQ(dispatch_bytes(string_request(159, "")).reply, hex_bytes(reply_hex)) << attempt_empty << passphrase;
        EXPECT_EQ(agent_is_locked(), locked) << attempt_empty << passphrase;
    }
}

TEST_F(LockAndNotices, RefreshRegistrationsChangeNoticesAndForwardingNotices)
{
    record_shell_calls();
    EXPECT_EQ(dispatch_bytes(request_hex("9c 1122334455667788 00000007")).reply, hex_bytes("00000008 1122334455667788"));
    for (const char *registration : {"0000000000000002 00000009", "0000000000000003 0000000a", "0000000000000002 0000000b"})
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
    LogCapture log;
    agent_set_locked(false);
    DispatchResult first = dispatch_bytes(vendor_notice("gate", 0x403, 0xabc, 1, 2, 1), 42);
    EXPECT_EQ(std::tuple(first.reply, first.forwarding_chain), std::tuple(hex_bytes("00000001 06"), 1));
    EXPECT_EQ(std::tuple(get_x509rsa_sigtype(), get_x509dsa_sigtype(), agent_enum_get(), agent_dialog_owner()),
              std::tuple(2, 1, 0x403u, uint64_t{0xabc}));

    EXPECT_EQ(dispatch_bytes(vendor_notice("inner", 0x102, 0xdef, 1, 2, 1), 42, 1).forwarding_chain, 2);
    EXPECT_TRUE(log.contains("keyagent: Agent forwarding notice: gate (10.0.0.7) port 22"));
    auto notice = forwarding_notice_for_connection(42);
    ASSERT_TRUE(notice);  // list mode 9: SunSSH servers
    EXPECT_EQ(std::tuple(notice->client_window, notice->enum_setting, notice->list_mode), std::tuple(0xabcu, 0x403u, 9u));
    EXPECT_EQ(forwarding_notice_count(), 1u);

    // The plain form answers nothing and records nothing.
    DispatchResult quiet = dispatch_bytes(forwarding_notice("host", "addr", 2222), 43);
    EXPECT_EQ(std::tuple(quiet.reply, quiet.forwarding_chain), std::tuple(Bytes(), 1));
    EXPECT_FALSE(forwarding_notice_for_connection(43));
    forwarding_notice_connection_closed(42);
    EXPECT_FALSE(forwarding_notice_for_connection(42));

    for (auto [setting, sent, mode] : {std::tuple{0x100u, 1u, 6u}, {0x200u, 1u, 0u}, {0x300u, 1u, 8u}, {0x500u, 1u, 7u},
                                       {0x600u, 4u, 4u}})
        EXPECT_EQ(forwarding_list_mode(setting, sent), mode) << setting;
}
