// The agent's prompts through a scripted pinentry, and through Debian's real
// pinentry-tty on a terminal.
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

}  // namespace

// The first passphrase is typed (it comes back percent-escaped and is read
// whole), or an empty entry confirmed is the no-passphrase choice
// (AttemptEmpty); cancel, and an empty entry not confirmed, stop the start.
// With ConfirmKeyOp on, only a remote sign request asks, and the answer
// decides; the menu's unlock asks for the passphrase, or unlocks through
// AttemptEmpty without asking.
TEST(Prompts, FirstPassphraseRemoteSignConfirmationAndUnlockFromTheMenu)
{
    for (bool cancel : {true, false}) {
        AgentProcess refused;
        refused.env = pinentry_env(refused, "", "no", cancel);
        EXPECT_FALSE(refused.start());
        EXPECT_EQ(refused.stop(), 1);
        EXPECT_TRUE(has(refused.log_text(), "User cancelled agent passphrase initialization"));
    }
    for (std::string pin : {"typed 50% words", ""}) {
        SCOPED_TRACE(pin);
        bool empty = pin.empty();  // and then every confirmation is answered yes, else no
        AgentProcess agent;
        agent.env = pinentry_env(agent, pin, empty ? "yes" : "no");
        ASSERT_TRUE(agent.start()) << agent.log_text();
        AgentClient client(agent.socket_path());
        EXPECT_EQ(client.request(IS_LOCKED), UNLOCKED);
        // Locked, the first passphrase unlocks it.
        EXPECT_EQ(client.request(frame(hex_bytes("16 00000000"))), hex_bytes("00000001 06"));
        EXPECT_EQ(client.request(IS_LOCKED), LOCKED);
        EXPECT_EQ(client.request(string_request(23, pin)), hex_bytes("00000001 06"));

        std::string asked_log = (agent.root() / "pinentry.log").string();
        std::filesystem::remove(asked_log);  // the first passphrase's questions
        std::string key = make_key(agent, "50%k", "ecdsa");
        ASSERT_EQ(ssh_add(agent, {key}).status, 0);
        Bytes blob = public_line_blob(key + ".pub");
        ASSERT_TRUE(control_send(agent.control_path(), {WM_SET_CONFIRM_KEY_OP, 0, 1, ""}));
        // A sign request on a fresh connection, after a plain forwarding
        // notice when remote.
        auto sign = [&](bool remote) {
            AgentClient signer(agent.socket_path());
            if (remote)
                signer.send_bytes(forwarding_notice("far.example", "192.0.2.1"));
            return signer.request(sign_request(blob, "data"));
        };
        EXPECT_EQ(sign(false).at(4), 14);
        EXPECT_FALSE(has(read_file_text(asked_log), "CONFIRM")) << "a local request asked";
        Bytes remote = sign(true);
        if (empty)
            EXPECT_EQ(remote.at(4), 14);
        else
            EXPECT_EQ(remote, hex_bytes("00000001 05"));
        // The question (with the key's comment, its path) reaches the
        // pinentry with its percent sign and line break escaped.
        EXPECT_TRUE(has(read_file_text(asked_log), "50%25k'.%0AAllow it?")) << read_file_text(asked_log);
        EXPECT_EQ(has(agent.log_text(), "User rejected a request from a remote server to issue a signature"), !empty);

        ASSERT_TRUE(control_send(agent.control_path(), {WM_COMMAND_MESSAGE, MENU_LOCK, 0, ""}));
        EXPECT_EQ(client.request(IS_LOCKED), LOCKED);
        ASSERT_TRUE(control_send(agent.control_path(), {WM_COMMAND_MESSAGE, MENU_UNLOCK, 0, ""}));
        EXPECT_EQ(client.request(IS_LOCKED), UNLOCKED);
        EXPECT_EQ(has(read_file_text(asked_log), "GETPIN"), !empty);
        EXPECT_EQ(agent.stop(), 0);
        std::string settings = read_file_text(agent.root() / "data" / "tAgent");
        EXPECT_TRUE(has(settings, empty ? "AttemptEmpty yes" : "AttemptEmpty no"));
    }
}

// Debian's real pinentry-tty asks for the first agent passphrase on the
// terminal the agent was started from; tmux plays the user.
TEST(PinentryTty, FirstPassphraseTypedAtTheTerminal)
{
    if (system("command -v tmux > /dev/null && test -x /usr/bin/pinentry-tty") != 0)
        GTEST_SKIP() << "tmux or pinentry-tty is not installed";
    AgentProcess agent;
    // A private tmux server, ended with everything in it however the test ends.
    struct Tmux {
        std::string command = "tmux -L tarnwell-test-" + std::to_string(getpid()) + " ";
        ~Tmux() { run_tool(command + "kill-server"); }
        std::string screen() const { return run_tool(command + "capture-pane -p -J").output; }
    } tmux;
    std::string start = "TARNWELL_PINENTRY=/usr/bin/pinentry-tty";
    for (const std::string &arg : agent.base_args())
        start += " " + arg;
    run_tool(tmux.command + "new-session -d -x 160 -y 40 '" + start + " 2>" + agent.stderr_path() + "; sleep 60'");

    // Each prompt is answered once the screen shows it (at most about 10 s).
    for (auto [shown, typed] :
         {std::pair{"Passphrase:", "tmux words"}, {"Repeat:", "tmux words"}, {"SSH_AUTH_SOCK=", ""}}) {
        for (int i = 0; i < 200 && !has(tmux.screen(), shown); ++i)
            std::this_thread::sleep_for(std::chrono::milliseconds(50));
        ASSERT_TRUE(has(tmux.screen(), shown)) << tmux.screen() << agent.log_text();
        if (*typed)
            run_tool(tmux.command + "send-keys '" + typed + "' Enter");
    }

    AgentClient client(agent.socket_path());
    EXPECT_EQ(client.request(IS_LOCKED), UNLOCKED);
    EXPECT_EQ(client.request(frame(hex_bytes("16 00000000"))), hex_bytes("00000001 06"));
    EXPECT_EQ(client.request(string_request(23, "tmux words")), hex_bytes("00000001 06"));
    EXPECT_TRUE(has(agent.log_text(), "keyagent: Agent has a passphrase now"));
    EXPECT_EQ(run_program(agent, {TKEYAGENT_PATH, "-k", "-a", agent.socket_path()}).status, 0);
}
