// The agent's prompts through a scripted pinentry.
#include <gtest/gtest.h>

#include "app/posix/control_client.h"
#include "app/window_messages.h"
#include "keys/key_blob.h"
#include "keys/public_key_format.h"
#include "support/agent_process.h"
#include "support/tool_run.h"

namespace {

const std::string scripted = std::string(TARNWELL_SOURCE_DIR) + "/tests/support/scripted_pinentry.sh";

std::vector<std::string> pinentry_env(const AgentProcess &agent, const std::string &pin, const char *confirm,
                                      bool cancel = false)
{
    return {"TARNWELL_PINENTRY=" + scripted, "PINENTRY_PIN=" + pin, std::string("PINENTRY_CONFIRM=") + confirm,
            std::string("PINENTRY_CANCEL=") + (cancel ? "1" : "0"),
            "PINENTRY_LOG=" + (agent.root() / "pinentry.log").string()};
}

const Bytes IS_LOCKED = frame(hex_bytes("97"));

// A plain forwarding notice (206) and then a sign request for `blob` on one
// connection; returns the sign reply.
Bytes sign_after_notice(const AgentProcess &agent, const Bytes &blob, bool notice)
{
    AgentClient client(agent.socket_path());
    if (notice) {
        Buffer b;
        buffer_put_char(&b, 206);
        buffer_put_cstring(&b, "far.example");
        buffer_put_cstring(&b, "192.0.2.1");
        buffer_put_int(&b, 22);
        client.send_bytes(frame(buffer_bytes(b)));
    }
    Buffer sign;
    buffer_put_char(&sign, 13);
    buffer_put_string(&sign, blob.data(), static_cast<uint32_t>(blob.size()));
    buffer_put_cstring(&sign, "data");
    buffer_put_int(&sign, 0);
    return client.request(frame(buffer_bytes(sign)));
}

// Makes an ECDSA key, adds it with OpenSSH's ssh-add and returns its public
// blob; empty when any step failed.
Bytes add_ecdsa_key(const AgentProcess &agent)
{
    std::string key = (agent.root() / "k").string();
    std::string out = (agent.root() / "add.txt").string();
    if (!make_ssh_keygen_key(key, "ecdsa") ||
        AgentProcess::wait_exit(AgentProcess::spawn({"/usr/bin/ssh-add", key}, out, out,
                                                    {"SSH_AUTH_SOCK=" + agent.socket_path()})) != 0)
        return {};
    KeyPtr held = key_new(KEY_UNSPEC);
    std::string line = AgentProcess::read_file(key + ".pub");
    const char *cursor = line.c_str();
    if (key_read(held.get(), &cursor) != 1)
        return {};
    SecureBytes blob;
    uint32_t len = key_to_blob(held.get(), &blob, nullptr, key_blob_type_name(held.get()));
    return Bytes(blob.begin(), blob.begin() + len);
}

}  // namespace

TEST(Prompts, FirstPassphraseNoPassphraseChoiceAndCancel)
{
    // (A passphrase whose digest starts with a white-space byte is read back
    // shifted from the settings file; "typed words" is not one of those.)
    AgentProcess typed;
    typed.set_env(pinentry_env(typed, "typed words", "no"));
    ASSERT_TRUE(typed.start()) << typed.log_text();
    EXPECT_EQ(AgentClient(typed.socket_path()).request(IS_LOCKED), hex_bytes("00000001 ab"));
    EXPECT_EQ(typed.stop(), 0);
    // The next run starts locked and "typed words" unlocks it.
    typed.set_env({});
    ASSERT_TRUE(typed.start());
    {
        AgentClient client(typed.socket_path());
        EXPECT_EQ(client.request(IS_LOCKED), hex_bytes("00000001 aa"));
        Buffer unlock;
        buffer_put_char(&unlock, 23);
        buffer_put_cstring(&unlock, "typed words");
        EXPECT_EQ(client.request(frame(buffer_bytes(unlock))), hex_bytes("00000001 06"));
    }

    // An empty entry, confirmed, is the no-passphrase choice: AttemptEmpty.
    AgentProcess empty;
    empty.set_env(pinentry_env(empty, "", "yes"));
    ASSERT_TRUE(empty.start());
    EXPECT_EQ(empty.stop(), 0);
    EXPECT_NE(AgentProcess::read_file((empty.root() / "data" / "tAgent").string()).find("AttemptEmpty yes"),
              std::string::npos);

    // Cancel, and an empty entry that is not confirmed, both stop the start.
    for (bool cancel : {true, false}) {
        AgentProcess refused;
        refused.set_env(pinentry_env(refused, "", "no", cancel));
        EXPECT_FALSE(refused.start());
        EXPECT_EQ(refused.wait_for_exit(), 1);
        EXPECT_NE(refused.log_text().find("User cancelled agent passphrase initialization"), std::string::npos);
    }
}

TEST(Prompts, ConfirmationOnlyForRemoteRequestsAndUnlockFromTheMenu)
{
    AgentProcess agent({"--empty-passphrase"});
    agent.set_env(pinentry_env(agent, "", "no"));
    ASSERT_TRUE(agent.start());
    Bytes blob = add_ecdsa_key(agent);
    ASSERT_FALSE(blob.empty());

    ControlRequest confirm_on;
    confirm_on.message = WM_SET_CONFIRM_KEY_OP;
    confirm_on.lparam = 1;
    std::string control = (agent.root() / "run" / "control.sock").string();
    ASSERT_TRUE(control_send(control, confirm_on));

    // Without a notice nothing is asked; after one the "no" refuses.
    EXPECT_EQ(sign_after_notice(agent, blob, false).at(4), 14);
    EXPECT_EQ(AgentProcess::read_file((agent.root() / "pinentry.log").string()).find("CONFIRM"), std::string::npos);
    EXPECT_EQ(sign_after_notice(agent, blob, true), hex_bytes("00000001 05"));
    EXPECT_NE(agent.log_text().find("User rejected a request from a remote server to issue a signature"),
              std::string::npos);
    std::string asked = AgentProcess::read_file((agent.root() / "pinentry.log").string());
    EXPECT_NE(asked.find("CONFIRM"), std::string::npos);
    EXPECT_NE(asked.find("Allow it?"), std::string::npos);

    // The menu's unlock asks through pinentry ("" is the passphrase here,
    // but AttemptEmpty already unlocks without asking).
    ControlRequest lock;
    lock.message = WM_COMMAND_MESSAGE;
    lock.wparam = MENU_LOCK;
    ASSERT_TRUE(control_send(control, lock));
    EXPECT_EQ(AgentClient(agent.socket_path()).request(IS_LOCKED), hex_bytes("00000001 aa"));
    ControlRequest unlock = lock;
    unlock.wparam = MENU_UNLOCK;
    ASSERT_TRUE(control_send(control, unlock));
    EXPECT_EQ(AgentClient(agent.socket_path()).request(IS_LOCKED), hex_bytes("00000001 ab"));
}

TEST(Prompts, ConfirmedRemoteSignatureAndUnlockThroughThePrompt)
{
    // An agent with a passphrase (no AttemptEmpty) that the menu's unlock
    // asks for; the confirmation is answered Yes.
    AgentProcess agent;
    std::string file = (agent.root() / "passphrase.txt").string();
    std::ofstream(file) << "menu words\n";
    agent.set_extra_args({"--passphrase-file", file});
    agent.set_env(pinentry_env(agent, "menu words", "yes"));
    ASSERT_TRUE(agent.start()) << agent.log_text();
    Bytes blob = add_ecdsa_key(agent);
    ASSERT_FALSE(blob.empty());

    std::string control = (agent.root() / "run" / "control.sock").string();
    ControlRequest confirm_on;
    confirm_on.message = WM_SET_CONFIRM_KEY_OP;
    confirm_on.lparam = 1;
    ASSERT_TRUE(control_send(control, confirm_on));
    EXPECT_EQ(sign_after_notice(agent, blob, true).at(4), 14);
    EXPECT_NE(AgentProcess::read_file((agent.root() / "pinentry.log").string()).find("CONFIRM"), std::string::npos);

    ControlRequest lock;
    lock.message = WM_COMMAND_MESSAGE;
    lock.wparam = MENU_LOCK;
    ASSERT_TRUE(control_send(control, lock));
    EXPECT_EQ(AgentClient(agent.socket_path()).request(IS_LOCKED), hex_bytes("00000001 aa"));
    ControlRequest unlock = lock;
    unlock.wparam = MENU_UNLOCK;
    ASSERT_TRUE(control_send(control, unlock));
    EXPECT_EQ(AgentClient(agent.socket_path()).request(IS_LOCKED), hex_bytes("00000001 ab"));
    EXPECT_NE(AgentProcess::read_file((agent.root() / "pinentry.log").string()).find("GETPIN"), std::string::npos);
}
