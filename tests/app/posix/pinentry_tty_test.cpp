// Debian's real pinentry-tty asks for the first agent passphrase on the
// terminal the agent was started from; tmux plays the user.
#include <gtest/gtest.h>

#include "support/agent_process.h"
#include "support/requests.h"

namespace {

class TmuxSession {
public:
    explicit TmuxSession(const std::string &command)
        : socket_("tarnwell-test-" + std::to_string(getpid()))
    {
        run("new-session -d -x 160 -y 40 '" + command + "'");
    }
    ~TmuxSession() { run("kill-server"); }

    std::string screen()
    {
        std::string out;
        FILE *p = popen(("tmux -L " + socket_ + " capture-pane -p -J 2>/dev/null").c_str(), "r");
        char chunk[512];
        size_t n;
        while (p && (n = fread(chunk, 1, sizeof chunk, p)) > 0)
            out.append(chunk, n);
        if (p)
            pclose(p);
        return out;
    }

    // Waits until the screen shows `text` (at most about 10 s).
    bool wait_for(const std::string &text, size_t after = 0)
    {
        for (int i = 0; i < 200; ++i) {
            std::string s = screen();
            if (s.find(text, after) != std::string::npos)
                return true;
            std::this_thread::sleep_for(std::chrono::milliseconds(50));
        }
        return false;
    }

    void type_line(const std::string &text) { run("send-keys '" + text + "' Enter"); }

private:
    void run(const std::string &args) { (void)!system(("tmux -L " + socket_ + " " + args + " 2>/dev/null").c_str()); }
    std::string socket_;
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
    command += " 2>" + agent.stderr_path() + "; sleep 60";
    TmuxSession tmux(command);

    ASSERT_TRUE(tmux.wait_for("Passphrase:")) << tmux.screen();
    tmux.type_line("tmux words");
    ASSERT_TRUE(tmux.wait_for("Repeat:")) << tmux.screen();
    tmux.type_line("tmux words");
    ASSERT_TRUE(tmux.wait_for("SSH_AUTH_SOCK=")) << tmux.screen() << agent.log_text();

    AgentClient client(agent.socket_path());
    EXPECT_EQ(client.request(frame(hex_bytes("97"))), hex_bytes("00000001 ab"));
    EXPECT_EQ(client.request(frame(hex_bytes("16 00000000"))), hex_bytes("00000001 06"));
    EXPECT_EQ(client.request(string_request(23, "tmux words")), hex_bytes("00000001 06"));
    EXPECT_NE(agent.log_text().find("keyagent: Agent has a passphrase now"), std::string::npos);

    EXPECT_EQ(run_program(agent, {TKEYAGENT_PATH, "-k", "-a", agent.socket_path()}).status, 0);
}
