// The real agent over a damaged settings file or key store (nothing intact
// is lost), and over the store the Windows build wrote.
#include <gtest/gtest.h>

#include <functional>

#include "support/agent_process.h"
#include "support/tool_run.h"

TEST(KeyStoreRecovery, DamagedSettingsOrStoreLosesNoIntactKey)
{
    struct Damage {
        const char *file;  // the one error line names it so
        std::function<std::string(std::string)> change;  // of the file's text; null: removes it
        int unreadable;    // what tagent status counts: none, the second key or all three
    } const damages[] = {
        {"tAgent is empty", [](std::string) { return std::string(); }, 0},
        {"tAgent is missing", nullptr, 0},
        {"tAgent is damaged", [](std::string t) { return t.substr(0, 15); }, 0},
        {"tAgent is damaged", [](std::string t) { return "garbage " + t.substr(8); }, 0},
        {"tAgent is damaged", [](std::string t) { return std::string(t.size(), '\0'); }, 0},
        {"tAgent is damaged", [](std::string t) { return t.replace(3, 1, "z"); }, 0},  // in Passphrase
        // The second key's PEM block loses one line of its body.
        {"tAgentKeys: the stored key \"id_ECDSA_384\" cannot be read",
         [](std::string t) {
             size_t line = t.find('\n', t.find('\n', t.find("-----BEGIN", t.find("-----END") + 1)) + 1) + 1;
             return t.erase(line, t.find('\n', line) + 1 - line);
         },
         1},
        {"tAgentKeys is empty but", [](std::string) { return std::string(); }, 3},
    };
    // The public halves apart, so that only the agent can sign for them.
    TempFolder keys, public_keys;
    std::vector<std::string> key_files, public_files;
    for (int bits : {256, 384, 521, 256}) {
        std::string name = "id_" + std::to_string(key_files.size());
        key_files.push_back(keys.path(name));
        public_files.push_back(public_keys.path(name));
        ASSERT_TRUE(make_ssh_keygen_key(key_files.back(), "ecdsa", bits));
        std::filesystem::copy_file(key_files.back() + ".pub", public_files.back() + ".pub");
    }
    for (const Damage &damage : damages) {
        SCOPED_TRACE(damage.file);
        AgentProcess agent;
        std::string old_pass = write_text(agent, "old.txt", "the old passphrase\n");
        agent.extra_args = {"--passphrase-file", old_pass};
        ASSERT_TRUE(agent.start()) << agent.log_text();
        ASSERT_EQ(ssh_add(agent, {key_files[0], key_files[1], key_files[2]}).status, 0);
        agent.stop();
        std::filesystem::path file = agent.data_dir() + (has(damage.file, "tAgentKeys") ? "/tAgentKeys" : "/tAgent");
        if (damage.change) {
            std::string changed = damage.change(read_file_text(file));
            std::ofstream(file, std::ios::binary | std::ios::trunc) << changed;
        } else
            std::filesystem::remove(file);
        std::string damaged_private = read_file_text(agent.data_dir() + "/tAgentKeys");

        // Without the passphrase: the agent starts locked and lists every
        // stored key; the old passphrase unlocks it, and one line names
        // what is wrong.
        agent.extra_args = {};
        ASSERT_TRUE(agent.start()) << agent.log_text();
        EXPECT_EQ(count_of(ssh_add(agent, {"-l"}).output, "\n"), 3u);
        EXPECT_NE(run_tagent(agent, {"unlock", "--passphrase-file", write_text(agent, "wrong.txt", "wrong\n")}).status, 0);
        EXPECT_EQ(run_tagent(agent, {"unlock", "--passphrase-file", old_pass}).status, 0);
        EXPECT_TRUE(has(agent.log_text(), agent.data_dir() + "/" + damage.file)) << agent.log_text();
        ASSERT_EQ(ssh_add(agent, {key_files[3]}).status, 0);
        EXPECT_TRUE(has(run_tagent(agent, {"status"}).output,
                        "unreadable stored records: " + std::to_string(damage.unreadable)));
        agent.stop();

        agent.extra_args = {"--passphrase-file", old_pass};
        ASSERT_TRUE(agent.start()) << agent.log_text();
        for (size_t i = 0; i < 3; ++i)
            EXPECT_EQ(agent_signs_with(agent, public_files[i]), damage.unreadable == 0 || (damage.unreadable == 1 && i != 1))
                << i;
        EXPECT_TRUE(agent_signs_with(agent, public_files[3]));
        if (damage.unreadable == 1) {  // the unreadable record is kept as it was
            std::string kept = damaged_private.substr(damaged_private.find("id_ECDSA_384\n"));
            EXPECT_TRUE(has(read_file_text(agent.data_dir() + "/tAgentKeys"), kept.substr(0, kept.find("-----END"))));
        }
    }
}

// The key store that the Windows build wrote under a passphrase (exported by
// its test into TARNWELL_WINDOWS_STORE) is read by this build: listed while
// locked, unlocked by the same passphrase, and signed with.
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
