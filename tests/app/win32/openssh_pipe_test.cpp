// The OpenSSH agent pipe of tkeyagent.exe under Wine: ssh2 under Windows
// Node.js as a real third-party client, misbehaving clients, a name owned by
// another program, and the request rate against the agent's own pipe.
#include <windows.h>
#include <aclapi.h>
#include <sddl.h>

#include <cstdio>
#include <fstream>
#include <thread>

#include "app/program_texts.h"
#include "win32/agent_channels.h"
#include "win32/dialog_driver.h"

namespace {

const Bytes LIST_BODY = {REQUEST_IDENTITIES};

bool lists(HANDLE pipe)
{
    return reply_type(pipe_call(pipe, LIST_BODY)) == IDENTITIES_ANSWER;
}

// Polls the log (bounded) for `count` appearances of `line`.
bool log_shows(const WindowsAgent &agent, const std::string &line, size_t count = 1)
{
    for (int attempt = 0; attempt < 200; ++attempt) {
        std::string log = agent.log();
        size_t seen = 0;
        for (size_t at = log.find(line); at != std::string::npos; at = log.find(line, at + 1))
            ++seen;
        if (seen >= count)
            return true;
        Sleep(50);
    }
    return false;
}

class OpenSshPipe : public ::testing::Test {
protected:
    void SetUp() override
    {
        agent_.seed_passphrase("");
        window_ = agent_.start();
        ASSERT_NE(window_, nullptr) << agent_.log();
    }

    WindowsAgent agent_;
    HWND window_ = nullptr;
};

TEST_F(OpenSshPipe, Ssh2ListsSignsAddsRemovesAndIsRefusedWhileLocked)
{
    NodeClient node(agent_.folder(), "openssh check");
    std::string output = node.finish();
    for (const char *line : {"add rsa: ok", "add ecdsa: ok", "rsa-sha2-256 and rsa-sha2-512: verified",
                             "ecdsa-sha2-nistp256: verified", "removed key: not listed", "locked: sign refused (reply 170)",
                             "unlock: ok", "done\nexit 0\n"})
        EXPECT_NE(output.find(line), std::string::npos) << line << " missing from:\n" << output;
    EXPECT_NE(agent_.log().find("keyagent: Connected to the OpenSSH agent pipe."), std::string::npos);
    // The listener and the Pageant window end with the agent.
    EXPECT_EQ(agent_.close(), 0);
    std::string log = agent_.log();
    EXPECT_LT(log.find("keyagent: Stopped listening on the OpenSSH agent pipe."),
              log.find("keyagent: Process message thread stopped."));
    EXPECT_NE(log.find("keyagent: Process message thread stopped."), std::string::npos);
}

// After a forwarding notice on the same connection a sign request is a
// remote one: with ConfirmKeyOp on, the user is asked and the answer holds.
TEST_F(OpenSshPipe, RemoteSignIsConfirmedByTheUser)
{
    TestKey key;
    WinHandle pipe = openssh_pipe_open();
    ASSERT_TRUE(pipe);
    ASSERT_EQ(pipe_call(pipe.get(), key.add_body()), Bytes{AGENT_SUCCESS});
    ASSERT_EQ(SendMessageW(window_, 1029, 0, 1), 1);  // ConfirmKeyOp on
    Buffer notice;
    buffer_put_char(&notice, 206);
    buffer_put_cstring(&notice, "server.example");
    buffer_put_cstring(&notice, "192.0.2.7");
    buffer_put_int(&notice, 22);
    for (int button : {IDYES, IDNO}) {
        std::thread user([button] {
            HWND box = wait_for_dialog(utf8_to_wide(program_text(TEXT_APPLICATION_TITLE)));
            ASSERT_NE(box, nullptr);
            press(box, button);
        });
        WinHandle remote = openssh_pipe_open();
        const Bytes data(40, static_cast<uint8_t>(button));
        // The notice has no reply: the sign request's reply comes first.
        Bytes both = frame(buffer_bytes(notice)), sign = frame(key.sign_body(data));
        both.insert(both.end(), sign.begin(), sign.end());
        ASSERT_TRUE(write_bytes(remote.get(), both));
        Bytes reply = read_reply(remote.get());
        user.join();
        if (button == IDYES)
            EXPECT_TRUE(key.verifies(reply, data));
        else
            EXPECT_EQ(reply, Bytes{5});
    }
    EXPECT_NE(agent_.log().find("User rejected a request from a remote server to issue a signature"),
              std::string::npos);
}

// Wine keeps the access list without enforcing it: it is read back.
TEST_F(OpenSshPipe, AccessListGrantsTheUserAloneGenericAll)
{
    WinHandle pipe = openssh_pipe_open();
    ASSERT_TRUE(pipe);
    PSECURITY_DESCRIPTOR descriptor = nullptr;
    PACL dacl = nullptr;
    ASSERT_EQ(GetSecurityInfo(pipe.get(), SE_KERNEL_OBJECT, DACL_SECURITY_INFORMATION, nullptr, nullptr, &dacl,
                              nullptr, &descriptor),
              ERROR_SUCCESS);
    LPWSTR sddl = nullptr, sid_text = nullptr;
    ASSERT_TRUE(ConvertSecurityDescriptorToStringSecurityDescriptorW(descriptor, SDDL_REVISION_1,
                                                                     DACL_SECURITY_INFORMATION, &sddl, nullptr));
    std::vector<BYTE> sid = current_user_sid();
    ASSERT_TRUE(ConvertSidToStringSidW(sid.data(), &sid_text));
    EXPECT_EQ(std::wstring(sddl), L"D:(A;;GA;;;" + std::wstring(sid_text) + L")");
    LocalFree(sid_text);
    LocalFree(sddl);
    LocalFree(descriptor);
}

struct BadClient {
    const char *what;
    Bytes bytes;
    const char *log_line;
    bool agent_closes;  // the agent ends the connection itself
};

TEST_F(OpenSshPipe, BadClientsEndOnlyTheirOwnConnection)
{
    const BadClient cases[] = {
        // A sign request whose key blob claims four gigabytes.
        {"garbage", {0, 0, 0, 9, SIGN_REQUEST, 0xff, 0xff, 0xff, 0xff, 0, 0, 0, 0}, "", true},
        {"over-long length", {0xff, 0xff, 0xff, 0xff, SIGN_REQUEST, 1, 2, 3}, "Client request too large. Ignored",
         false},
        {"half request", {0, 0, 0, 9, SIGN_REQUEST, 0, 0}, "", false},
    };
    WinHandle steady = openssh_pipe_open();
    ASSERT_TRUE(steady && lists(steady.get()));
    size_t shutdowns = 0;
    for (const BadClient &c : cases) {
        SCOPED_TRACE(c.what);
        {
            WinHandle bad = openssh_pipe_open();
            ASSERT_TRUE(bad);
            ASSERT_TRUE(write_bytes(bad.get(), c.bytes));
            if (c.agent_closes) {
                uint8_t byte;
                DWORD got = 0;
                EXPECT_FALSE(ReadFile(bad.get(), &byte, 1, &got, nullptr) && got > 0);
            }
        }
        EXPECT_TRUE(log_shows(agent_, "Connection shutdown", ++shutdowns));
        if (*c.log_line) {
            EXPECT_NE(agent_.log().find(c.log_line), std::string::npos);
        }
        EXPECT_TRUE(lists(steady.get()));
        WinHandle later = openssh_pipe_open();
        EXPECT_TRUE(later && lists(later.get()));
        if (later) {
            later = WinHandle();
            ++shutdowns;
        }
    }
}

// A program that holds the name first keeps it; the agent says so and still
// serves its own pipe and Pageant.
TEST(OpenSshPipeTaken, AgentRunsWithoutItAndServesItsOtherWays)
{
    HANDLE taken = CreateNamedPipeW(OPENSSH_AGENT_PIPE, PIPE_ACCESS_DUPLEX, PIPE_TYPE_BYTE | PIPE_WAIT,
                                    PIPE_UNLIMITED_INSTANCES, 4096, 4096, 0, nullptr);
    ASSERT_NE(taken, INVALID_HANDLE_VALUE);
    WinHandle owner(taken);
    WindowsAgent agent;
    agent.seed_passphrase("");
    HWND window = agent.start();
    ASSERT_NE(window, nullptr);
    EXPECT_NE(agent.log().find("keyagent: The OpenSSH agent pipe is in use by another program (another agent?); "
                               "running without it."),
              std::string::npos)
        << agent.log();
    WinHandle own = agent_pipe_open(window);
    EXPECT_TRUE(own && lists(own.get()));
    Bytes reply;
    EXPECT_NE(pageant_call(frame(LIST_BODY), &reply), 0);
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
    std::string log = agent.log();
    EXPECT_NE(log.find("keyagent: The OpenSSH agent pipe is switched off (OpenSshPipe no)."), std::string::npos);
    EXPECT_NE(log.find("keyagent: The Pageant protocol is switched off (Pageant no)."), std::string::npos);
}

// List requests per second through the OpenSSH pipe and through the agent's
// own pipe, one client each after the other; printed, not judged.
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
    printf("list requests per second: OpenSSH pipe %.0f, own pipe %.0f, ratio %.2f\n", rate[0], rate[1],
           rate[0] / rate[1]);
}

}  // namespace
