// The Pageant window of tkeyagent.exe under Wine: ssh2's PageantAgent (its
// pagent.c built for x64), the owner check, misbehaving requests, and
// clients of all three ways in signing at once.
#include <windows.h>
#include <sddl.h>

#include <thread>
#include <vector>

#include "win32/agent_channels.h"

namespace {

const Bytes LIST_REQUEST = frame({REQUEST_IDENTITIES});

class Pageant : public ::testing::Test {
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

// pagent.exe makes its mapping with default security, which has no owner
// under Wine; the agent lets that through only there.
TEST_F(Pageant, Ssh2PageantAgentListsSignsAddsRemovesAndIsRefusedWhileLocked)
{
    NodeClient node(agent_.folder(), "pageant check");
    std::string output = node.finish();
    // Each line comes from a callback: a helper that cannot start prints none.
    for (const char *line : {"add rsa: ok", "rsa-sha2-256 and rsa-sha2-512: verified", "ecdsa-sha2-nistp256: verified",
                             "removed key: not listed", "locked: sign refused (reply 170)", "done\nexit 0\n"})
        EXPECT_NE(output.find(line), std::string::npos) << line << " missing from:\n" << output;
}

TEST_F(Pageant, OnlyTheUsersMappingsAreServed)
{
    PSID system = nullptr;
    ASSERT_TRUE(ConvertStringSidToSidW(L"S-1-5-18", &system));
    std::vector<BYTE> user = current_user_sid();
    const struct {
        const char *owner_name;
        PSID owner;
        bool served;
    } cases[] = {{"the user", user.data(), true}, {"Local System", system, false}};
    for (const auto &c : cases) {
        SCOPED_TRACE(c.owner_name);
        Bytes reply;
        EXPECT_EQ(pageant_call(LIST_REQUEST, c.owner, &reply) != 0, c.served);
        EXPECT_EQ(reply_type(reply), c.served ? IDENTITIES_ANSWER : -1);
    }
    LocalFree(system);
    EXPECT_NE(agent_.log().find("does not belong to the user"), std::string::npos);
}

TEST_F(Pageant, BadRequestsAreRefusedAndTheNextIsServed)
{
    const std::vector<BYTE> user = current_user_sid();
    const struct {
        const char *what;
        Bytes request;
        DWORD mapping_size;
        const char *log_line;
    } cases[] = {
        {"garbage", {0, 0, 0, 9, SIGN_REQUEST, 0xff, 0xff, 0xff, 0xff, 0, 0, 0, 0}, 8192, "Connection shutdown"},
        {"over-long length", {0, 0, 0x1f, 0xfd, SIGN_REQUEST}, 8192, "Pageant request refused: 8189 bytes do not fit 8188"},
        {"half request", {0, 0, 0x13, 0x88, SIGN_REQUEST}, 4096, "Pageant request refused: 5000 bytes do not fit 4092"},
        {"empty", {0, 0, 0, 0}, 8192, "Incomplete client request ignored"},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.what);
        Bytes reply;
        EXPECT_EQ(pageant_call(c.request, const_cast<BYTE *>(user.data()), &reply, c.mapping_size), 0);
        EXPECT_NE(agent_.log().find(c.log_line), std::string::npos);
        EXPECT_NE(pageant_call(LIST_REQUEST, &reply), 0);
        EXPECT_EQ(reply_type(reply), IDENTITIES_ANSWER);
    }
}

// ssh2 through the OpenSSH pipe and through Pageant, and this test's own
// clients on the agent's pipe, the OpenSSH pipe and Pageant, all signing at
// once; every signature is checked.
TEST_F(Pageant, AllThreeWaysInSignAtOnce)
{
    std::vector<std::unique_ptr<NodeClient>> nodes;
    for (const char *channel : {"openssh", "pageant", "openssh", "pageant"})
        nodes.push_back(std::make_unique<NodeClient>(agent_.folder(), std::string(channel) + " sign 5"));

    TestKey key;
    {
        WinHandle pipe = agent_pipe_open(window_);
        ASSERT_TRUE(pipe);
        ASSERT_EQ(pipe_call(pipe.get(), key.add_body()), Bytes{AGENT_SUCCESS});
    }
    enum Way { OWN_PIPE, OPENSSH_PIPE, PAGEANT };
    constexpr int rounds = 20;
    std::atomic<int> verified{0}, last_failure{0};
    std::vector<std::thread> clients;
    for (Way way : {OWN_PIPE, OPENSSH_PIPE, PAGEANT, OWN_PIPE, OPENSSH_PIPE, PAGEANT}) {
        clients.emplace_back([&, way] {
            WinHandle pipe = way == OWN_PIPE ? agent_pipe_open(window_)
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
}

}  // namespace
