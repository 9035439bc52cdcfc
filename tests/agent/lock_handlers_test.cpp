#include <gtest/gtest.h>

#include "agent/forwarding_notice.h"
#include "agent/local_lock.h"
#include "crypto/signature_types.h"
#include "pki/agent_enum.h"
#include "support/agent_state.h"
#include "support/dispatch_helper.h"
#include "support/log_capture.h"

namespace {

using LockAndNotices = AgentStateTest;

Bytes with_string(uint8_t number, const std::string &text)
{
    return request_of(number, [&](Buffer *b) { buffer_put_cstring(b, text.c_str()); });
}


int manager_notices = 0;
int redraws = 0;
std::vector<std::pair<uint64_t, uint32_t>> posted;
std::vector<uint64_t> gone_windows;

// Records what reaches the shell: change notices, commands of registered
// windows and redraws of the lock-state display.
void record_shell_calls()
{
    manager_notices = 0;
    redraws = 0;
    posted.clear();
    gone_windows.clear();
    ShellServices shell;
    shell.redraw_tray = [] { ++redraws; };
    shell.notify_manager = [] { ++manager_notices; };
    shell.post_command = [](uint64_t window, uint32_t command) { posted.emplace_back(window, command); };
    shell.window_exists = [](uint64_t window) {
        return std::find(gone_windows.begin(), gone_windows.end(), window) == gone_windows.end();
    };
    shell_services_set(shell);
}

}  // namespace

TEST_F(LockAndNotices, LockTextNeverUnlocksOnlyTheAgentPassphraseDoes)
{
    LogCapture log;
    set_agent_passphrase("agent pw", 0);
    record_shell_calls();

    EXPECT_EQ(dispatch_bytes(with_string(22, "lock text")).reply, hex_bytes("00000001 06"));
    EXPECT_TRUE(log.contains("keyagent: LOCKED"));
    EXPECT_EQ(dispatch_bytes(request_hex("97")).reply, hex_bytes("00000001 aa"));
    EXPECT_EQ(dispatch_bytes(request_hex("0d")).reply, hex_bytes("00000001 aa"));
    EXPECT_EQ(dispatch_bytes(request_hex("a0")).reply, hex_bytes("00000001 aa"));

    EXPECT_EQ(dispatch_bytes(with_string(23, "lock text")).reply, hex_bytes("00000001 05"));
    EXPECT_TRUE(log.contains("keyagent: Unlock failed: wrong passphrase"));
    EXPECT_TRUE(agent_is_locked());
    EXPECT_EQ(dispatch_bytes(with_string(209, "agent pw")).reply, hex_bytes("00000001 65"));
    EXPECT_TRUE(log.contains("keyagent: UNLOCKED"));
    EXPECT_EQ(dispatch_bytes(request_hex("97")).reply, hex_bytes("00000001 ab"));

    EXPECT_EQ(dispatch_bytes(with_string(23, "anything")).reply, hex_bytes("00000001 06"));
    EXPECT_TRUE(log.contains("keyagent: Unlock request - agent is already unlocked"));
    EXPECT_TRUE(agent_local_lock());
    EXPECT_TRUE(agent_local_lock());
    EXPECT_TRUE(log.contains("keyagent: Lock request - agent is already locked"));
    EXPECT_FALSE(agent_local_unlock("Agent pw"));
    EXPECT_TRUE(agent_local_unlock("agent pw"));

    // Only real changes notify; every request redraws the status.
    EXPECT_EQ(manager_notices, 4);
    EXPECT_EQ(redraws, 8);
}

TEST_F(LockAndNotices, AttemptEmptyFollowsTheSetting)
{
    set_agent_passphrase("", 0);
    agent_set_locked(true);
    EXPECT_EQ(dispatch_bytes(with_string(159, "")).reply, hex_bytes("00000001 66"));
    EXPECT_TRUE(agent_is_locked());

    agent_settings().AttemptEmpty = 1;
    EXPECT_EQ(dispatch_bytes(with_string(159, "")).reply, hex_bytes("00000001 06"));
    EXPECT_FALSE(agent_is_locked());

    set_agent_passphrase("pw", 1);
    agent_set_locked(true);
    EXPECT_EQ(dispatch_bytes(with_string(159, "")).reply, hex_bytes("00000001 05"));
    EXPECT_TRUE(agent_is_locked());
}

TEST_F(LockAndNotices, RefreshRegistrationsAndTheChangeNotice)
{
    record_shell_calls();
    EXPECT_EQ(dispatch_bytes(request_hex("9c 1122334455667788 00000007")).reply, hex_bytes("00000008 1122334455667788"));
    dispatch_bytes(request_hex("9c 0000000000000002 00000009"));
    dispatch_bytes(request_hex("9c 0000000000000003 0000000a"));
    dispatch_bytes(request_hex("9c 0000000000000002 0000000b"));
    EXPECT_EQ(dispatch_bytes(request_hex("9d 0000000000000002")).reply, hex_bytes("00000008 0000000000000002"));
    ASSERT_EQ(refresh_registrations().size(), 3u);  // only the first entry of window 2 went
    EXPECT_EQ(refresh_registrations()[2].command, 11u);

    // A window found gone is dropped; the others hear the notice.
    gone_windows = {3};
    send_change_notice();
    EXPECT_EQ(manager_notices, 1);
    EXPECT_EQ(posted, (std::vector<std::pair<uint64_t, uint32_t>>{{0x1122334455667788, 7}, {2, 11}}));
    ASSERT_EQ(refresh_registrations().size(), 2u);

    // When the gone window is the first entry, the walk stops there.
    posted.clear();
    gone_windows = {0x1122334455667788};
    send_change_notice();
    EXPECT_TRUE(posted.empty());
    ASSERT_EQ(refresh_registrations().size(), 1u);
    EXPECT_EQ(refresh_registrations()[0].window, 2u);
}

TEST_F(LockAndNotices, ForwardingNoticesCountTheChainAndKeepTheFirstRecord)
{
    LogCapture log;
    agent_set_locked(false);
    DispatchResult first = dispatch_bytes(vendor_notice("gate", 0x403, 0xabc, 1, 2, 1), 42);
    EXPECT_EQ(first.reply, hex_bytes("00000001 06"));
    EXPECT_EQ(first.forwarding_chain, 1);
    EXPECT_EQ(get_x509rsa_sigtype(), 2);
    EXPECT_EQ(get_x509dsa_sigtype(), 1);
    EXPECT_EQ(agent_enum_get(), 0x403u);
    EXPECT_EQ(agent_dialog_owner(), 0xabcu);

    DispatchResult second = dispatch_bytes(vendor_notice("inner", 0x102, 0xdef, 1, 2, 1), 42, first.forwarding_chain);
    EXPECT_EQ(second.forwarding_chain, 2);
    EXPECT_TRUE(log.contains("keyagent: Agent forwarding notice: gate (10.0.0.7) port 22"));
    EXPECT_TRUE(log.contains("keyagent: Agent forwarding notice: inner (10.0.0.7) port 22"));
    EXPECT_TRUE(log.contains("keyagent: Forwarding chain length: 2"));
    auto notice = forwarding_notice_for_connection(42);
    ASSERT_TRUE(notice);
    EXPECT_EQ(notice->client_window, 0xabcu);
    EXPECT_EQ(notice->enum_setting, 0x403u);
    EXPECT_EQ(notice->list_mode, 9u);  // SunSSH servers
    EXPECT_EQ(forwarding_notice_count(), 1u);

    // The plain form answers nothing and records nothing.
    DispatchResult quiet = dispatch_bytes(request_of(206, [](Buffer *b) {
                                              buffer_put_cstring(b, "host");
                                              buffer_put_cstring(b, "addr");
                                              buffer_put_int(b, 2222);
                                          }), 43);
    EXPECT_TRUE(quiet.reply.empty());
    EXPECT_EQ(quiet.forwarding_chain, 1);
    EXPECT_FALSE(forwarding_notice_for_connection(43));

    forwarding_notice_connection_closed(42);
    EXPECT_FALSE(forwarding_notice_for_connection(42));

    EXPECT_EQ(forwarding_list_mode(0x100, 1), 6u);
    EXPECT_EQ(forwarding_list_mode(0x200, 1), 0u);
    EXPECT_EQ(forwarding_list_mode(0x300, 1), 8u);
    EXPECT_EQ(forwarding_list_mode(0x500, 1), 7u);
    EXPECT_EQ(forwarding_list_mode(0x600, 4), 4u);
}
