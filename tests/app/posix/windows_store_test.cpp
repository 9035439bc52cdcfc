// The key store that the Windows build wrote under a passphrase (exported by
// its test into TARNWELL_WINDOWS_STORE) is read by this build: listed while
// locked, unlocked by the same passphrase, and signed with.
#include <gtest/gtest.h>

#include <sys/stat.h>

#include "support/agent_process.h"

TEST(WindowsStore, LinuxAgentReadsTheStoreTheWindowsAgentWrote)
{
    const char *exported = getenv("TARNWELL_WINDOWS_STORE");
    if (!exported || !*exported)
        GTEST_SKIP() << "no store from the Windows build (TARNWELL_WINDOWS_STORE)";
    AgentProcess agent;
    std::filesystem::create_directories(agent.data_dir());
    chmod(agent.data_dir().c_str(), 0700);
    for (const char *name : {"tAgent", "tAgentKeys", "tAgentKeys.pub"}) {
        std::filesystem::path copy = std::filesystem::path(agent.data_dir()) / name;
        ASSERT_TRUE(std::filesystem::copy_file(std::filesystem::path(exported) / name, copy)) << name;
        chmod(copy.c_str(), 0600);
    }
    std::string key = (agent.root() / "id_shared").string();
    std::filesystem::copy_file(std::filesystem::path(exported) / "id_shared.pem", key);
    chmod(key.c_str(), 0600);
    ASSERT_EQ(system(("ssh-keygen -y -f " + key + " > " + key + ".pub").c_str()), 0);

    ASSERT_TRUE(agent.start()) << agent.log_text();
    ProgramRun listed = ssh_add(agent, {"-L"});
    std::string pub = read_file_text(key + ".pub");
    EXPECT_NE(listed.output.find(pub.substr(0, pub.find_first_of(" \n", pub.find(' ') + 1))), std::string::npos)
        << listed.output << pub;
    EXPECT_FALSE(agent_signs_with(agent, key)) << "locked";
    EXPECT_EQ(run_tagent(agent, {"unlock", "--passphrase-file", write_text(agent, "pass.txt", "shared words\n")}).status,
              0);
    EXPECT_TRUE(agent_signs_with(agent, key)) << agent.log_text();
}
