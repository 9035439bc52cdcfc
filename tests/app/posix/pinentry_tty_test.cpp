// Debian's real pinentry-tty asks for the first agent passphrase on the
// terminal the agent was started from; tmux plays the user.
#include <gtest/gtest.h>

#include "support/agent_process.h"
#include "support/requests.h"

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
