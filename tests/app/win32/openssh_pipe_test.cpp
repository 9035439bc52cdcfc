// The OpenSSH agent pipe and the Pageant window of tkeyagent.exe under Wine.
#include <windows.h>
#include <sddl.h>

#include <cstdio>
#include <fstream>
#include <thread>
#include <vector>

#include "win32/agent_channels.h"

namespace {

const Bytes LIST_REQUEST = frame({REQUEST_IDENTITIES});

// ssh2 on both (each line comes from a callback: a Pageant helper that
// cannot start prints none), clients that misbehave, and ssh2 and this
// test's own clients on all three ways in signing at once.
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
    EXPECT_EQ(access_list(steady.get()), user_only_access_list());
    const struct {
        const char *what;
        Bytes bytes;
        bool agent_closes;  // the agent ends the connection itself
    } pipe_cases[] = {
        // A sign request whose key blob claims four gigabytes.
        {"garbage", {0, 0, 0, 9, SIGN_REQUEST, 0xff, 0xff, 0xff, 0xff, 0, 0, 0, 0}, true},
        {"over-long length", {0xff, 0xff, 0xff, 0xff, SIGN_REQUEST, 1, 2, 3}, false},
        {"half request", {0, 0, 0, 9, SIGN_REQUEST, 0, 0}, false},
    };
    size_t shutdowns = 0;
    for (const auto &c : pipe_cases) {
        SCOPED_TRACE(c.what);
        {
            WinHandle bad = openssh_pipe_open();
            ASSERT_TRUE(bad && write_bytes(bad.get(), c.bytes));
            uint8_t byte;
            DWORD got = 0;
            if (c.agent_closes) {
                EXPECT_FALSE(ReadFile(bad.get(), &byte, 1, &got, nullptr) && got > 0);
            }
        }
        EXPECT_TRUE(agent.log_shows("Connection shutdown", ++shutdowns));
        EXPECT_TRUE(lists(steady.get()));
    }
    EXPECT_TRUE(agent.logged("Client request too large. Ignored"));

    // Pageant: only the user's mappings, and only whole requests that fit.
    PSID system = nullptr;
    ASSERT_TRUE(ConvertStringSidToSidW(L"S-1-5-18", &system));
    std::vector<BYTE> user = current_user_sid();
    const struct {
        const char *what;
        Bytes request;
        PSID owner;
        DWORD mapping_size;
        const char *log_line;
    } pageant_cases[] = {
        {"Local System's", LIST_REQUEST, system, 8192, "does not belong to the user"},
        {"garbage", {0, 0, 0, 9, SIGN_REQUEST, 0xff, 0xff, 0xff, 0xff, 0, 0, 0, 0}, user.data(), 8192,
         "Connection shutdown"},
        {"over-long length", {0, 0, 0x1f, 0xfd, SIGN_REQUEST}, user.data(), 8192,
         "Pageant request refused: 8189 bytes do not fit 8188"},
        {"half request", {0, 0, 0x13, 0x88, SIGN_REQUEST}, user.data(), 4096,
         "Pageant request refused: 5000 bytes do not fit 4092"},
        {"empty", {0, 0, 0, 0}, user.data(), 8192, "Incomplete client request ignored"},
    };
    for (const auto &c : pageant_cases) {
        SCOPED_TRACE(c.what);
        Bytes reply;
        EXPECT_EQ(pageant_call(c.request, c.owner, &reply, c.mapping_size), 0);
        EXPECT_TRUE(agent.logged(c.log_line));
        EXPECT_NE(pageant_call(LIST_REQUEST, &reply), 0);
        EXPECT_EQ(reply_type(reply), IDENTITIES_ANSWER);
    }
    LocalFree(system);
    EXPECT_TRUE(lists(steady.get()));

    std::vector<std::unique_ptr<NodeClient>> nodes;
    for (const char *channel : {"openssh", "pageant", "openssh", "pageant"})
        nodes.push_back(std::make_unique<NodeClient>(agent.folder(), std::string(channel) + " sign 5"));
    TestKey key;
    ASSERT_EQ(pipe_call(agent_pipe_open(window).get(), key.add_body()), Bytes{AGENT_SUCCESS});
    enum Way { OWN_PIPE, OPENSSH_PIPE, PAGEANT };
    constexpr int rounds = 20;
    std::atomic<int> verified{0}, last_failure{0};
    std::vector<std::thread> clients;
    for (Way way : {OWN_PIPE, OPENSSH_PIPE, PAGEANT, OWN_PIPE, OPENSSH_PIPE, PAGEANT}) {
        clients.emplace_back([&, way] {
            WinHandle pipe = way == OWN_PIPE ? agent_pipe_open(window)
                                             : way == OPENSSH_PIPE ? openssh_pipe_open() : WinHandle();
            for (int n = 0; n < rounds; ++n) {
                Bytes data(48, static_cast<uint8_t>(n)), reply;
                data[0] = static_cast<uint8_t>(way);
                if (way == PAGEANT)
                    pageant_call(frame(key.sign_body(data)), &reply);
                else
                    reply = pipe_call(pipe.get(), key.sign_body(data));
                if (key.verifies(reply, data))
                    ++verified;
                else
                    last_failure = reply_type(reply);
            }
        });
    }
    for (std::thread &client : clients)
        client.join();
    EXPECT_EQ(verified, 6 * rounds) << "a failed reply's type: " << last_failure;
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
// serves its own pipe and Pageant.
TEST(OpenSshPipeTaken, AgentRunsWithoutItAndServesItsOtherWays)
{
    WinHandle owner(CreateNamedPipeW(OPENSSH_AGENT_PIPE, PIPE_ACCESS_DUPLEX, PIPE_TYPE_BYTE | PIPE_WAIT,
                                     PIPE_UNLIMITED_INSTANCES, 4096, 4096, 0, nullptr));
    ASSERT_NE(owner.get(), INVALID_HANDLE_VALUE);
    WindowsAgent agent;
    agent.seed_passphrase("");
    HWND window = agent.start();
    ASSERT_NE(window, nullptr);
    EXPECT_TRUE(agent.logged("keyagent: The OpenSSH agent pipe is in use by another program (another agent?); "
                             "running without it."));
    WinHandle own = agent_pipe_open(window);
    EXPECT_TRUE(own && lists(own.get()));
    Bytes reply;
    EXPECT_NE(pageant_call(LIST_REQUEST, &reply), 0);
    EXPECT_EQ(reply_type(reply), IDENTITIES_ANSWER);
    // The name still leads to the program that owns it.
    WinHandle client = openssh_pipe_open();
    ASSERT_TRUE(client);
    EXPECT_TRUE(ConnectNamedPipe(owner.get(), nullptr) || GetLastError() == ERROR_PIPE_CONNECTED);
}

TEST(OpenSshPipeSetting, OffMeansNoPipeAndNoPageant)
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

// List requests per second through the OpenSSH pipe and through the agent's
// own pipe, without the log file; printed, not judged.
TEST(OpenSshPipeRate, AgainstTheAgentsOwnPipe)
{
    WindowsAgent agent(false);
    agent.seed_passphrase("");
    HWND window = agent.start();
    ASSERT_NE(window, nullptr);
    WinHandle own = agent_pipe_open(window), openssh = openssh_pipe_open();
    ASSERT_TRUE(own && openssh);
    constexpr int requests = 2000;
    double rate[2];
    HANDLE pipes[2] = {openssh.get(), own.get()};
    for (int i = 0; i < 2; ++i) {
        ULONGLONG started = GetTickCount64();
        for (int n = 0; n < requests; ++n)
            ASSERT_TRUE(lists(pipes[i]));
        rate[i] = requests * 1000.0 / static_cast<double>(GetTickCount64() - started + 1);
    }
    printf("list requests per second: OpenSSH pipe %.0f, own pipe %.0f\n", rate[0], rate[1]);
}

}  // namespace
