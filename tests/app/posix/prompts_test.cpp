// The agent's prompts through a scripted pinentry.
#include <gtest/gtest.h>

#include "app/posix/control_client.h"
#include "app/window_messages.h"
#include "support/agent_process.h"
#include "support/requests.h"
#include "support/tool_run.h"

namespace {

// A scripted pinentry that answers GETPIN with `pin` and CONFIRM with
// `confirm`, or cancels, and logs what it was sent.
std::vector<std::string> pinentry_env(const AgentProcess &agent, const std::string &pin, const char *confirm,
                                      bool cancel = false)
{
    return {"TARNWELL_PINENTRY=" + std::string(TARNWELL_SOURCE_DIR) + "/tests/support/scripted_pinentry.sh",
            "PINENTRY_PIN=" + pin, std::string("PINENTRY_CONFIRM=") + confirm,
            std::string("PINENTRY_CANCEL=") + (cancel ? "1" : "0"),
            "PINENTRY_LOG=" + (agent.root() / "pinentry.log").string()};
}

void send_control(const AgentProcess &agent, uint32_t message, uint64_t wparam, uint64_t lparam)
{
    ControlRequest request;
    request.message = message;
    request.wparam = wparam;
    request.lparam = lparam;
    ASSERT_TRUE(control_send(agent.control_path(), request));
}

}  // namespace

TEST(Prompts, FirstPassphraseNoPassphraseChoiceAndCancel)
{
    // The typed passphrase comes back percent-escaped and is read whole.
    AgentProcess typed;
    typed.set_env(pinentry_env(typed, "typed 50% words", "no"));
    ASSERT_TRUE(typed.start()) << typed.log_text();
    AgentClient client(typed.socket_path());
    EXPECT_EQ(client.request(IS_LOCKED), UNLOCKED);
    // Locked, the typed passphrase unlocks it.
    EXPECT_EQ(client.request(frame(hex_bytes("16 00000000"))), hex_bytes("00000001 06"));
    EXPECT_EQ(client.request(IS_LOCKED), LOCKED);
    EXPECT_EQ(client.request(string_request(23, "typed 50% words")), hex_bytes("00000001 06"));

    // An empty entry, confirmed, is the no-passphrase choice: AttemptEmpty.
    AgentProcess empty;
    empty.set_env(pinentry_env(empty, "", "yes"));
    ASSERT_TRUE(empty.start());
    EXPECT_EQ(empty.stop(), 0);
    EXPECT_TRUE(has(read_file_text(empty.root() / "data" / "tAgent"), "AttemptEmpty yes"));

    // Cancel, and an empty entry that is not confirmed, both stop the start.
    for (bool cancel : {true, false}) {
        AgentProcess refused;
        refused.set_env(pinentry_env(refused, "", "no", cancel));
        EXPECT_FALSE(refused.start());
        EXPECT_EQ(refused.stop(), 1);
        EXPECT_TRUE(has(refused.log_text(), "User cancelled agent passphrase initialization"));
    }
}

// With ConfirmKeyOp on, only a remote sign request asks, and the answer
// decides; the menu's unlock unlocks through AttemptEmpty without asking,
// or asks for the passphrase.
TEST(Prompts, RemoteSignConfirmationAndUnlockFromTheMenu)
{
    struct Case {
        const char *passphrase;  // nullptr: the empty passphrase
        const char *answer;
        bool signs;
        bool asks_pin;
    } cases[] = {{nullptr, "no", false, false}, {"menu words", "yes", true, true}};
    for (const Case &c : cases) {
        SCOPED_TRACE(c.answer);
        AgentProcess agent;
        agent.set_extra_args(c.passphrase ? std::vector<std::string>{"--passphrase-file",
                                                                     write_text(agent, "pass.txt", c.passphrase)}
                                          : std::vector<std::string>{"--empty-passphrase"});
        agent.set_env(pinentry_env(agent, c.passphrase ? c.passphrase : "", c.answer));
        ASSERT_TRUE(agent.start()) << agent.log_text();
        std::string key = make_key(agent, "50%k", "ecdsa");
        ASSERT_EQ(ssh_add(agent, {key}).status, 0);
        Bytes blob = public_line_blob(key + ".pub");
        send_control(agent, WM_SET_CONFIRM_KEY_OP, 0, 1);

        // A sign request on a fresh connection, after a plain forwarding
        // notice when remote.
        auto sign = [&](bool remote) {
            AgentClient client(agent.socket_path());
            if (remote)
                client.send_bytes(forwarding_notice("far.example", "192.0.2.1"));
            return client.request(sign_request(blob, "data"));
        };
        std::string asked_log = (agent.root() / "pinentry.log").string();
        EXPECT_EQ(sign(false).at(4), 14);
        EXPECT_FALSE(has(read_file_text(asked_log), "CONFIRM")) << "a local request asked";
        Bytes remote = sign(true);
        if (c.signs)
            EXPECT_EQ(remote.at(4), 14);
        else
            EXPECT_EQ(remote, hex_bytes("00000001 05"));
        // The question (with the key's comment, its path) reaches the
        // pinentry with its percent sign and line break escaped.
        EXPECT_TRUE(has(read_file_text(asked_log), "CONFIRM"));
        EXPECT_TRUE(has(read_file_text(asked_log), "50%25k'.%0AAllow it?")) << read_file_text(asked_log);
        EXPECT_EQ(has(agent.log_text(), "User rejected a request from a remote server to issue a signature"), !c.signs);

        send_control(agent, WM_COMMAND_MESSAGE, MENU_LOCK, 0);
        EXPECT_EQ(AgentClient(agent.socket_path()).request(IS_LOCKED), LOCKED);
        send_control(agent, WM_COMMAND_MESSAGE, MENU_UNLOCK, 0);
        EXPECT_EQ(AgentClient(agent.socket_path()).request(IS_LOCKED), UNLOCKED);
        EXPECT_EQ(has(read_file_text(asked_log), "GETPIN"), c.asks_pin);
    }
}
