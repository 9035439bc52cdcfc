// Debian's real pinentry-tty asks for the first agent passphrase on the
// terminal the agent was started from; tmux plays the user.
#include <gtest/gtest.h>

#include "support/agent_process.h"
#include "support/requests.h"

namespace {

class TmuxSession {
public:
    explicit TmuxSession(const std::string &command) { run("new-session -d -x 160 -y 40 '" + command + "'"); }
    ~TmuxSession() { run("kill-server"); }

    std::string screen() const { return run("capture-pane -p -J"); }

    // Waits until the screen shows `text` (at most about 10 s).
    bool wait_for(const std::string &text) const
    {
        for (int i = 0; i < 200 && !has(screen(), text); ++i)
            std::this_thread::sleep_for(std::chrono::milliseconds(50));
        return has(screen(), text);
    }

    void type_line(const std::string &text) const { run("send-keys '" + text + "' Enter"); }

private:
    std::string run(const std::string &args) const { return run_tool("tmux -L " + socket_ + " " + args).output; }
    std::string socket_ = "tarnwell-test-" + std::to_string(getpid());
};

}  // namespace

TEST(PinentryTty, FirstPassphraseTypedAtTheTerminal)
{
    if (system("command -v tmux > /dev/null && test -x /usr/bin/pinentry-tty") != 0)
        GTEST_SKIP() << "tmux or pinentry-tty is not installed";
    AgentProcess agent;
    std::string command = "TARNWELL_PINENTRY=/usr/bin/pinentry-tty";
    for (const std::string &arg : agent.base_args())
        command += " " + arg;
    TmuxSession tmux(command + " 2>" + agent.stderr_path() + "; sleep 60");

    ASSERT_TRUE(tmux.wait_for("Passphrase:")) << tmux.screen();
    tmux.type_line("tmux words");
    ASSERT_TRUE(tmux.wait_for("Repeat:")) << tmux.screen();
    tmux.type_line("tmux words");
    ASSERT_TRUE(tmux.wait_for("SSH_AUTH_SOCK=")) << tmux.screen() << agent.log_text();

    AgentClient client(agent.socket_path());
    EXPECT_EQ(client.request(IS_LOCKED), UNLOCKED);
    EXPECT_EQ(client.request(frame(hex_bytes("16 00000000"))), hex_bytes("00000001 06"));
    EXPECT_EQ(client.request(string_request(23, "tmux words")), hex_bytes("00000001 06"));
    EXPECT_TRUE(has(agent.log_text(), "keyagent: Agent has a passphrase now"));
    EXPECT_EQ(run_program(agent, {TKEYAGENT_PATH, "-k", "-a", agent.socket_path()}).status, 0);
}
