// The real agent over a damaged settings file or key store: nothing intact
// is lost, and a passphrase that the settings file would read back shifted
// is never stored.
#include <gtest/gtest.h>

#include <algorithm>
#include <functional>

#include "support/agent_process.h"
#include "support/tool_run.h"
#include "support/unstorable_passphrase.h"

namespace {

// The second key's PEM block loses one line of its body.
std::string damage_second_record(std::string text)
{
    size_t block = text.find("-----BEGIN", text.find("-----END") + 1);
    size_t line = text.find('\n', text.find('\n', block) + 1) + 1;
    return text.erase(line, text.find('\n', line) + 1 - line);
}

struct Damage {
    const char *name;
    const char *file;  // the file that the one error line names
    std::function<void(const std::filesystem::path &data)> apply;
    std::vector<bool> intact;  // which of the three stored keys survive
    int unreadable;            // what tagent status counts
};

void rewrite(const std::filesystem::path &file, const std::function<std::string(std::string)> &change)
{
    std::string text = AgentProcess::read_file(file.string());
    std::ofstream(file, std::ios::binary | std::ios::trunc) << change(text);
}

}  // namespace

TEST(KeyStoreRecovery, DamagedSettingsOrStoreLosesNoIntactKey)
{
    auto settings = [](std::function<std::string(std::string)> change) {
        return [change](const std::filesystem::path &data) { rewrite(data / "tAgent", change); };
    };
    const std::vector<Damage> damages = {
        {"empty tAgent", "tAgent is empty", settings([](std::string) { return std::string(); }), {1, 1, 1}, 0},
        {"missing tAgent", "tAgent is missing", [](const std::filesystem::path &d) { std::filesystem::remove(d / "tAgent"); },
         {1, 1, 1}, 0},
        {"truncated tAgent", "tAgent is damaged", settings([](std::string t) { return t.substr(0, 15); }), {1, 1, 1}, 0},
        {"garbage tAgent", "tAgent is damaged", settings([](std::string t) { return "garbage " + t.substr(8); }),
         {1, 1, 1}, 0},
        {"zeroed tAgent", "tAgent is damaged", settings([](std::string t) { return std::string(t.size(), '\0'); }),
         {1, 1, 1}, 0},
        {"flipped byte in Passphrase", "tAgent is damaged",
         settings([](std::string t) { return t.replace(3, 1, "z"); }), {1, 1, 1}, 0},
        {"damaged record", "tAgentKeys: the stored key \"id_ECDSA_384\" cannot be read",
         [](const std::filesystem::path &d) { rewrite(d / "tAgentKeys", damage_second_record); }, {1, 0, 1}, 1},
        {"emptied tAgentKeys", "tAgentKeys is empty but",
         [](const std::filesystem::path &d) { rewrite(d / "tAgentKeys", [](std::string) { return std::string(); }); },
         {0, 0, 0}, 3},
    };
    TempFolder keys, public_keys;
    std::vector<std::string> key_files, public_files;
    for (const char *bits : {"256", "384", "521", "256"}) {
        std::string name = "id_" + std::to_string(key_files.size());
        key_files.push_back(keys.path(name));
        public_files.push_back(public_keys.path(name));
        ASSERT_EQ(run_tool("ssh-keygen -q -m PEM -N '' -t ecdsa -b " + std::string(bits) + " -f " + key_files.back()).status, 0);
        std::filesystem::copy_file(key_files.back() + ".pub", public_files.back() + ".pub");
    }

    for (const Damage &damage : damages) {
        SCOPED_TRACE(damage.name);
        AgentProcess agent;
        std::string old_pass = write_text(agent, "old.txt", "the old passphrase\n");
        agent.set_extra_args({"--passphrase-file", old_pass});
        ASSERT_TRUE(agent.start()) << agent.log_text();
        ASSERT_EQ(ssh_add(agent, {key_files[0], key_files[1], key_files[2]}).status, 0);
        agent.stop();
        damage.apply(agent.data_dir());
        std::string damaged_private = AgentProcess::read_file(agent.data_dir() + "/tAgentKeys");

        // Without the passphrase: the agent starts locked and lists every
        // stored key; the old passphrase unlocks it, and one line names
        // what is wrong.
        agent.set_extra_args({});
        ASSERT_TRUE(agent.start()) << agent.log_text();
        std::string listed = ssh_add(agent, {"-l"}).output;
        EXPECT_EQ(std::count(listed.begin(), listed.end(), '\n'), 3) << listed;
        EXPECT_NE(run_tagent(agent, {"unlock", "--passphrase-file", write_text(agent, "wrong.txt", "wrong\n")}).status, 0);
        EXPECT_EQ(run_tagent(agent, {"unlock", "--passphrase-file", old_pass}).status, 0);
        EXPECT_NE(agent.log_text().find(agent.data_dir() + "/" + damage.file), std::string::npos) << agent.log_text();
        ASSERT_EQ(ssh_add(agent, {key_files[3]}).status, 0);
        EXPECT_NE(run_tagent(agent, {"status"}).output.find("unreadable stored records: " + std::to_string(damage.unreadable)),
                  std::string::npos);
        agent.stop();

        agent.set_extra_args({"--passphrase-file", old_pass});
        ASSERT_TRUE(agent.start()) << agent.log_text();
        for (size_t i = 0; i < 3; ++i)
            EXPECT_EQ(agent_signs_with(agent, public_files[i]), damage.intact[i]) << i;
        EXPECT_TRUE(agent_signs_with(agent, public_files[3]));
        if (damage.unreadable == 1) {
            std::string kept = damaged_private.substr(damaged_private.find("id_ECDSA_384\n"));
            kept = kept.substr(0, kept.find("-----END"));
            EXPECT_NE(AgentProcess::read_file(agent.data_dir() + "/tAgentKeys").find(kept), std::string::npos);
        }
    }
}

// Refused at the first start and by tagent passphrase, with the reason;
// another passphrase is stored and unlocks the next start.
TEST(KeyStoreRecovery, PassphraseWhoseDigestReadsBackShiftedIsRefused)
{
    AgentProcess agent;
    std::string bad = write_text(agent, "bad.txt", search_passphrase() + "\n");
    std::string good = write_text(agent, "good.txt", search_passphrase(false) + "\n");
    agent.set_extra_args({"--passphrase-file", bad});
    EXPECT_FALSE(agent.start());
    EXPECT_EQ(agent.exit_status(), 1);
    EXPECT_NE(agent.log_text().find("tkeyagent: the passphrase in " + bad + ": this passphrase cannot be stored"),
              std::string::npos) << agent.log_text();
    EXPECT_FALSE(std::filesystem::exists(agent.data_dir() + "/tAgent"));

    agent.set_extra_args({"--passphrase-file", good});
    ASSERT_TRUE(agent.start()) << agent.log_text();
    ProgramRun refused = run_tagent(agent, {"passphrase", "--old-file", good, "--new-file", bad});
    EXPECT_EQ(refused.status, 1);
    EXPECT_NE(refused.output.find("its SHA-1 digest begins with a white-space byte"), std::string::npos)
        << refused.output;
    std::string other = write_text(agent, "other.txt", "another passphrase\n");
    EXPECT_EQ(run_tagent(agent, {"passphrase", "--old-file", good, "--new-file", other}).status, 0);
    agent.stop();
    agent.set_extra_args({"--passphrase-file", other});
    ASSERT_TRUE(agent.start()) << agent.log_text();
    EXPECT_NE(run_tagent(agent, {"status"}).output.find("state: unlocked"), std::string::npos);
}

// Starting over is a deliberate choice: refused while the settings file is
// intact; with it lost, the old store is set aside, never deleted.
TEST(KeyStoreRecovery, StartOverSetsTheOldStoreAside)
{
    AgentProcess agent;
    std::string pass = write_text(agent, "pass.txt", "first passphrase\n");
    std::string key = make_key(agent, "id", "ecdsa");
    agent.set_extra_args({"--passphrase-file", pass});
    ASSERT_TRUE(agent.start()) << agent.log_text();
    ASSERT_EQ(ssh_add(agent, {key}).status, 0);
    agent.stop();
    std::string stored = AgentProcess::read_file(agent.data_dir() + "/tAgentKeys");

    agent.set_extra_args({"--passphrase-file", pass, "--start-over"});
    EXPECT_FALSE(agent.start());
    EXPECT_EQ(agent.exit_status(), 1);
    std::filesystem::remove(agent.data_dir() + "/tAgent");
    ASSERT_TRUE(agent.start()) << agent.log_text();
    EXPECT_NE(agent.log_text().find("tAgent is missing: the key store is set aside as"), std::string::npos);
    EXPECT_EQ(ssh_add(agent, {"-l"}).output, "The agent has no identities.\n");
    agent.stop();
    int aside = 0;
    for (const auto &entry : std::filesystem::directory_iterator(agent.data_dir()))
        if (entry.path().filename().string().rfind("tAgentKeys.set-aside-", 0) == 0) {
            ++aside;
            EXPECT_EQ(AgentProcess::read_file(entry.path().string()), stored);
        }
    EXPECT_EQ(aside, 1);
}
