// Real SSH clients authenticate through the agent against a private sshd on
// 127.0.0.1.
#include <gtest/gtest.h>

#include "support/agent_process.h"
#include "support/sshd_server.h"
#include "support/tool_run.h"

namespace {

const char *const EVERY_TYPE[] = {"ssh-rsa", "ssh-dss", "ecdsa-sha2-nistp256", "ecdsa-sha2-nistp384",
                                  "ecdsa-sha2-nistp521", "ssh-ed25519"};

// An agent holding RSA, ECDSA (three curves), DSA and Ed25519 keys, and an
// sshd that accepts them.
class SshEndToEnd : public ::testing::Test {
protected:
    void SetUp() override
    {
        if (!SshdServer::available())
            GTEST_SKIP() << "sshd is not installed";
        ASSERT_TRUE(agent.start()) << agent.log_text();
        std::string authorized;
        for (auto [name, type, bits] : std::vector<std::tuple<std::string, std::string, int>>{
                 {"rsa", "rsa", 3072}, {"p256", "ecdsa", 256}, {"p384", "ecdsa", 384}, {"p521", "ecdsa", 521},
                 {"dsa", "dsa", 0}, {"ed", "ed25519", 0}}) {
            ProgramRun added = ssh_add(agent, {make_key(agent, name, type, bits)});
            ASSERT_EQ(added.status, 0) << added.output;
            authorized += read_file_text(agent.root() / (name + ".pub"));
        }
        ASSERT_TRUE(sshd.start(authorized, {"PubkeyAcceptedAlgorithms +ssh-dss"})) << sshd.log();
    }

    // Logs in with `key` and runs `echo word`; the word came back.
    bool logs_in(const std::string &key, const std::string &word, std::vector<std::string> options = {})
    {
        options.insert(options.end(), {"-o", "IdentitiesOnly=yes", "-o", "IdentityFile=" + path(key) + ".pub"});
        ProgramRun run = run_program(agent, sshd.ssh_args(options, "echo " + word));
        EXPECT_EQ(run.status, 0) << key << ": " << run.output << sshd.log();
        return has(run.output, word);
    }

    // Runs a client `program` that lists the agent's keys and has each one
    // sign; every key type is verified and none failed.
    void every_type_verified(const std::vector<std::string> &program)
    {
        ProgramRun run = run_program(agent, program);
        EXPECT_EQ(run.status, 0) << run.output;
        for (const char *name : EVERY_TYPE)
            EXPECT_TRUE(has(run.output, std::string(name) + " verified")) << run.output;
        EXPECT_FALSE(has(run.output, "FAILED")) << run.output;
    }

    std::string path(const std::string &name) const { return (agent.root() / name).string(); }
    static std::string script(const std::string &name) { return TARNWELL_SOURCE_DIR "/tests/app/posix/" + name; }

    AgentProcess agent{{"--empty-passphrase"}};
    SshdServer sshd{agent.root() / "sshd"};
};

}  // namespace

TEST_F(SshEndToEnd, EveryKeyTypeLogsIn)
{
    for (const char *algorithm : {"rsa-sha2-512", "rsa-sha2-256"})
        EXPECT_TRUE(logs_in("rsa", "rsa-ok", {"-o", std::string("PubkeyAcceptedAlgorithms=") + algorithm}));
    for (const char *key : {"p256", "p384", "p521", "ed"})
        EXPECT_TRUE(logs_in(key, std::string(key) + "-ok"));
    EXPECT_TRUE(logs_in("dsa", "dsa-ok", {"-o", "PubkeyAcceptedAlgorithms=+ssh-dss"}));
    std::string log = agent.log_text();
    EXPECT_TRUE(has(log, "(as type: rsa-sha2-512,  hash: SHA512)"));
    EXPECT_TRUE(has(log, "(as type: rsa-sha2-256,  hash: SHA256)"));
    EXPECT_TRUE(has(log, "Signing using key id_ED25519_256 (as type: ssh-ed25519,  hash: UNDEF)"));
}

TEST_F(SshEndToEnd, SshKeygenSignsFilesAndAForwardedAgentLists)
{
    // Given only the public key, ssh-keygen -Y sign has the agent sign.
    for (const char *key : {"ed", "rsa", "p521"})
        EXPECT_TRUE(agent_signs_with(agent, path(key))) << key;
    ProgramRun far = run_program(agent, sshd.ssh_args({"-A", "-o", "IdentityFile=" + path("p256") + ".pub"}, "ssh-add -l"));
    EXPECT_EQ(far.status, 0) << far.output;
    EXPECT_TRUE(has(far.output, "p384 (ECDSA)")) << far.output;
    EXPECT_TRUE(has(far.output, "rsa (RSA)"));
}

TEST_F(SshEndToEnd, PuttyAndParamikoListAndSign)
{
    if (system("command -v plink > /dev/null && /usr/bin/python3 -c 'import paramiko' 2> /dev/null") != 0)
        GTEST_SKIP() << "plink or paramiko is not installed";
    // plink authenticates with the agent's keys; the host key is given.
    std::string shown = run_tool("ssh-keygen -l -E sha256 -f " + path("sshd/host_key.pub")).output;
    ProgramRun plink = run_program(agent, {"/usr/bin/plink", "-batch", "-ssh", "-agent", "-P", std::to_string(sshd.port()),
                                           "-hostkey", "SHA256:" + word_after(shown, "SHA256:"),
                                           platform_user_name() + "@127.0.0.1", "echo plink-ok"});
    EXPECT_EQ(plink.status, 0) << plink.output;
    EXPECT_TRUE(has(plink.output, "plink-ok"));

    // paramiko lists the keys and has each one sign.
    every_type_verified({"/usr/bin/python3", script("paramiko_check.py")});
}

TEST_F(SshEndToEnd, NodeSsh2ListsAndSignsWithEveryKeyType)
{
    if (system("command -v node > /dev/null") != 0)
        GTEST_SKIP() << "node is not installed, so the ssh2 npm client cannot run";
    // The project script installs ssh2 into the cache folder when missing.
    const char *cache = getenv("XDG_CACHE_HOME");
    std::string modules = (cache && *cache ? std::string(cache) : std::string(getenv("HOME")) + "/.cache") +
                          "/tarnwell/node-clients";
    ASSERT_EQ(system((std::string(TARNWELL_SOURCE_DIR) + "/scripts/install-node-clients " + modules).c_str()), 0);
    every_type_verified({"/usr/bin/env", "node", script("ssh2_check.js"), modules});
}
