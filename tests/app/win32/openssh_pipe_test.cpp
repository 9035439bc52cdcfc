// The OpenSSH agent pipe and the Pageant window of tkeyagent.exe under Wine.

#include "win32/agent_channels.h"

namespace {

// ssh2 on both (each line comes from a callback: a Pageant helper that
// cannot start prints none), clients that misbehave, and clients on all
// three ways in at once.
TEST(OpenSshPipe, ServesSsh2AndEveryWayInAndEndsOnlyBadConnections)
{
    WindowsAgent agent;
    agent.seed_passphrase("");
    HWND window = agent.start();
    ASSERT_NE(window, nullptr) << agent.log();
    for (const char *channel : {"openssh", "pageant"}) {
        std::string output = NodeClient(agent.folder(), std::string(channel) + " check").finish();
        for (const char *line : {"add rsa: ok", "add ecdsa: ok", "rsa-sha2-256 and rsa-sha2-512: verified",
                                 "ecdsa-sha2-nistp256: verified", "removed key: not listed",
                                 "locked: sign refused (reply 170)", "unlock: ok", "done\nexit 0\n"})
            EXPECT_NE(output.find(line), std::string::npos) << channel << ": " << line << " missing from:\n" << output;
    }

    WinHandle steady = openssh_pipe_open();
    ASSERT_TRUE(steady && lists(steady.get()));
    expect_user_only(steady.get());
    // A sign request whose key blob claims four gigabytes ends its
    // connection at once; the others end when the client goes.
    const Bytes garbage = {0, 0, 0, 9, SIGN_REQUEST, 0xff, 0xff, 0xff, 0xff, 0, 0, 0, 0};
    const Bytes pipe_cases[] = {garbage, {0xff, 0xff, 0xff, 0xff, SIGN_REQUEST, 1, 2, 3}, {0, 0, 0, 9, SIGN_REQUEST, 0, 0}};
    for (size_t n = 0; n < 3; ++n) {
        SCOPED_TRACE(n);
        {
            WinHandle bad = openssh_pipe_open();
            ASSERT_TRUE(bad && write_bytes(bad.get(), pipe_cases[n]));
            uint8_t byte;
            DWORD got = 0;
            if (n == 0) {
                EXPECT_FALSE(ReadFile(bad.get(), &byte, 1, &got, nullptr) && got > 0);
            }
        }
        EXPECT_TRUE(agent.log_shows("Connection shutdown", n + 1));
        EXPECT_TRUE(lists(steady.get()));
    }
    EXPECT_TRUE(agent.logged("Client request too large. Ignored"));

    // Pageant: only the user's mappings, and only whole requests that fit.
    PSID system = nullptr;
    ASSERT_TRUE(ConvertStringSidToSidW(L"S-1-5-18", &system));
    const struct {
        Bytes request;
        PSID owner;
        DWORD mapping_size;
        const char *log_line;
    } pageant_cases[] = {
        {LIST_REQUEST, system, 8192, "does not belong to the user"},
        {garbage, nullptr, 8192, "Connection shutdown"},
        {{0, 0, 0x1f, 0xfd, SIGN_REQUEST}, nullptr, 8192, "Pageant request refused: 8189 bytes do not fit 8188"},
        {{0, 0, 0x13, 0x88, SIGN_REQUEST}, nullptr, 4096, "Pageant request refused: 5000 bytes do not fit 4092"},
        {{0, 0, 0, 0}, nullptr, 8192, "Incomplete client request ignored"},
    };
    for (const auto &c : pageant_cases) {
        SCOPED_TRACE(c.log_line);
        Bytes reply;
        EXPECT_EQ(pageant_call(c.request, &reply, c.owner, c.mapping_size), 0);
        EXPECT_TRUE(agent.logged(c.log_line));
        EXPECT_NE(pageant_call(LIST_REQUEST, &reply), 0);
        EXPECT_EQ(reply_type(reply), IDENTITIES_ANSWER);
    }
    LocalFree(system);
    EXPECT_TRUE(lists(steady.get()));

    // Four ssh2 clients sign at once while this test lists on the agent's own pipe.
    std::vector<std::unique_ptr<NodeClient>> nodes;
    for (const char *channel : {"openssh", "pageant", "openssh", "pageant"})
        nodes.push_back(std::make_unique<NodeClient>(agent.folder(), std::string(channel) + " sign 5"));
    WinHandle own = agent_pipe_open(window);
    for (int n = 0; n < 50; ++n)
        ASSERT_TRUE(lists(own.get()));
    for (auto &node : nodes) {
        std::string output = node->finish();
        EXPECT_NE(output.find("signed and verified: 5\ndone\nexit 0\n"), std::string::npos) << output;
    }

    EXPECT_TRUE(agent.logged("keyagent: Connected to the OpenSSH agent pipe."));
    steady = WinHandle();
    EXPECT_EQ(agent.close(), 0);
    std::string log = agent.log();
    EXPECT_LT(log.find("keyagent: Stopped listening on the OpenSSH agent pipe."),
              log.find("keyagent: Process message thread stopped."));
}

// A program that holds the name first keeps it; the agent says so and still
// serves its own pipe and Pageant. Switched off, neither is there.
TEST(OpenSshPipeTaken, AgentRunsWithoutItAndServesItsOtherWays)
{
    {
        WindowsAgent agent;
        agent.seed_passphrase("");
        std::ofstream(agent.path("tAgent"), std::ios::binary | std::ios::app) << "OpenSshPipe no\nPageant no\n";
        ASSERT_NE(agent.start(), nullptr);
        EXPECT_FALSE(openssh_pipe_open());
        EXPECT_EQ(FindWindowW(PAGEANT_WINDOW_CLASS, PAGEANT_WINDOW_TITLE), nullptr);
        EXPECT_TRUE(agent.logged("keyagent: The OpenSSH agent pipe is switched off (OpenSshPipe no)."));
        EXPECT_TRUE(agent.logged("keyagent: The Pageant protocol is switched off (Pageant no)."));
    }
    WinHandle owner(CreateNamedPipeW(OPENSSH_AGENT_PIPE, PIPE_ACCESS_DUPLEX, PIPE_TYPE_BYTE | PIPE_WAIT,
                                     PIPE_UNLIMITED_INSTANCES, 4096, 4096, 0, nullptr));
    ASSERT_NE(owner.get(), INVALID_HANDLE_VALUE);
    WindowsAgent agent;
    agent.seed_passphrase("");
    HWND window = agent.start();
    ASSERT_NE(window, nullptr);
    EXPECT_TRUE(agent.logged("keyagent: The OpenSSH agent pipe is in use by another program (another agent?); "
                             "running without it."));
    EXPECT_TRUE(lists(agent_pipe_open(window).get()));
    Bytes reply;
    EXPECT_NE(pageant_call(LIST_REQUEST, &reply), 0);
    EXPECT_EQ(reply_type(reply), IDENTITIES_ANSWER);
    // The name still leads to the program that owns it.
    WinHandle client = openssh_pipe_open();
    ASSERT_TRUE(client);
    EXPECT_TRUE(ConnectNamedPipe(owner.get(), nullptr) || GetLastError() == ERROR_PIPE_CONNECTED);
}

}  // namespace
