// The key store that the Windows build wrote under a passphrase (exported by
// its test into TARNWELL_WINDOWS_STORE) is read by this build: listed while
// locked, unlocked by the same passphrase, and signed with.
#include <gtest/gtest.h>

#include "support/agent_process.h"

TEST(WindowsStore, LinuxAgentReadsTheStoreTheWindowsAgentWrote)
{
    const char *exported = getenv("TARNWELL_WINDOWS_STORE");
    if (!exported || !*exported)
        GTEST_SKIP() << "no store from the Windows build (TARNWELL_WINDOWS_STORE)";
    AgentProcess agent;
    std::filesystem::create_directories(agent.data_dir());
    std::filesystem::permissions(agent.data_dir(), std::filesystem::perms::owner_all);
    std::string key = (agent.root() / "id_shared").string();
    for (auto [from, to] : {std::pair<std::string, std::string>{"tAgent", agent.data_dir() + "/tAgent"},
                            {"tAgentKeys", agent.data_dir() + "/tAgentKeys"},
                            {"tAgentKeys.pub", agent.data_dir() + "/tAgentKeys.pub"}, {"id_shared.pem", key}}) {
        ASSERT_TRUE(std::filesystem::copy_file(std::filesystem::path(exported) / from, to)) << from;
        std::filesystem::permissions(to, std::filesystem::perms::owner_read | std::filesystem::perms::owner_write);
    }
    ASSERT_EQ(run_tool("ssh-keygen -y -f " + key + " > " + key + ".pub").status, 0);

    ASSERT_TRUE(agent.start()) << agent.log_text();
    std::string listed = ssh_add(agent, {"-L"}).output, pub = read_file_text(key + ".pub");
    EXPECT_TRUE(has(listed, pub.substr(0, pub.find_first_of(" \n", pub.find(' ') + 1)))) << listed << pub;
    EXPECT_FALSE(agent_signs_with(agent, key)) << "locked";
    EXPECT_EQ(run_tagent(agent, {"unlock", "--passphrase-file", write_text(agent, "pass.txt", "shared words\n")}).status,
              0);
    EXPECT_TRUE(agent_signs_with(agent, key)) << agent.log_text();
}
