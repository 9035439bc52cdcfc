// Real SSH clients authenticate through the agent against a private sshd on
// 127.0.0.1.
#include <gtest/gtest.h>

#include "support/agent_process.h"
#include "support/tool_run.h"
#include "support/sshd_server.h"

namespace {

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
            std::string path = make_key(agent, name, type, bits);
            ProgramRun added = ssh_add(agent, {path});
            ASSERT_EQ(added.status, 0) << added.output;
            authorized += AgentProcess::read_file(path + ".pub");
        }
        sshd = std::make_unique<SshdServer>(agent.root() / "sshd");
        ASSERT_TRUE(sshd->start(authorized, {"PubkeyAcceptedAlgorithms +ssh-dss"})) << sshd->log();
    }

    ProgramRun ssh(const std::string &key, const std::vector<std::string> &options, const std::string &command)
    {
        std::vector<std::string> all = {"-o", "IdentitiesOnly=yes", "-o",
                                        "IdentityFile=" + (agent.root() / (key + ".pub")).string()};
        all.insert(all.end(), options.begin(), options.end());
        return run_program(agent, sshd->ssh_args(all, command));
    }

    AgentProcess agent{{"--empty-passphrase"}, "e2e"};
    std::unique_ptr<SshdServer> sshd;
};

}  // namespace

TEST_F(SshEndToEnd, EveryKeyTypeLogsIn)
{
    for (const char *algorithm : {"rsa-sha2-512", "rsa-sha2-256"}) {
        ProgramRun rsa = ssh("rsa", {"-o", std::string("PubkeyAcceptedAlgorithms=") + algorithm}, "echo rsa-ok");
        EXPECT_EQ(rsa.status, 0) << algorithm << ": " << rsa.output << sshd->log();
        EXPECT_NE(rsa.output.find("rsa-ok"), std::string::npos);
    }
    std::string log = agent.log_text();
    EXPECT_NE(log.find("(as type: rsa-sha2-512,  hash: SHA512)"), std::string::npos);
    EXPECT_NE(log.find("(as type: rsa-sha2-256,  hash: SHA256)"), std::string::npos);

    for (const char *key : {"p256", "p384", "p521"}) {
        ProgramRun ec = ssh(key, {}, "echo ec-ok");
        EXPECT_EQ(ec.status, 0) << key << ": " << ec.output;
    }
    ProgramRun dsa = ssh("dsa", {"-o", "PubkeyAcceptedAlgorithms=+ssh-dss"}, "echo dsa-ok");
    EXPECT_EQ(dsa.status, 0) << dsa.output;
    ProgramRun ed = ssh("ed", {}, "echo ed-ok");
    EXPECT_EQ(ed.status, 0) << ed.output;
    EXPECT_NE(ed.output.find("ed-ok"), std::string::npos);
    EXPECT_NE(agent.log_text().find("Signing using key id_ED25519_256 (as type: ssh-ed25519,  hash: UNDEF)"),
              std::string::npos);
}

TEST_F(SshEndToEnd, SshKeygenSignsFilesThroughTheAgent)
{
    // Given only the public key, ssh-keygen -Y sign has the agent sign.
    for (const char *key : {"ed", "rsa", "p521"})
        EXPECT_TRUE(agent_signs_with(agent, (agent.root() / key).string())) << key;
}

TEST_F(SshEndToEnd, ForwardedAgentListsKeysOnTheFarSide)
{
    ProgramRun far = ssh("p256", {"-A"}, "ssh-add -l");
    EXPECT_EQ(far.status, 0) << far.output;
    EXPECT_NE(far.output.find("p384 (ECDSA)"), std::string::npos) << far.output;
    EXPECT_NE(far.output.find("rsa (RSA)"), std::string::npos);
}

TEST_F(SshEndToEnd, PuttyAndParamikoListAndSign)
{
    if (system("command -v plink > /dev/null && /usr/bin/python3 -c 'import paramiko' 2> /dev/null") != 0)
        GTEST_SKIP() << "plink or paramiko is not installed";
    // plink authenticates with the agent's keys; the host key is given.
    std::string host_key = (agent.root() / "sshd" / "host_key.pub").string();
    std::string fingerprint =
        "SHA256:" + word_after(run_program(agent, {"/usr/bin/ssh-keygen", "-l", "-E", "sha256", "-f", host_key}).output,
                               "SHA256:");
    ProgramRun plink = run_program(agent, {"/usr/bin/plink", "-batch", "-ssh", "-agent", "-P", std::to_string(sshd->port()), "-hostkey",
                        fingerprint, platform_user_name() + "@127.0.0.1", "echo plink-ok"});
    EXPECT_EQ(plink.status, 0) << plink.output;
    EXPECT_NE(plink.output.find("plink-ok"), std::string::npos);

    // paramiko lists the keys and has each one sign; paramiko checks each
    // signature against the listed public key.
    std::string script = (agent.root() / "paramiko_check.py").string();
    std::ofstream(script) << R"(
import paramiko, sys
keys = paramiko.Agent().get_keys()
print("keys", len(keys))
data = b"data to be signed"
for key in keys:
    name = key.get_name()
    if name in ("ecdsa-sha2-nistp256", "ecdsa-sha2-nistp384", "ecdsa-sha2-nistp521"):
        public = paramiko.ECDSAKey(data=key.asbytes())
    elif name == "ssh-rsa":
        public = paramiko.RSAKey(data=key.asbytes())
    elif name == "ssh-dss":
        public = paramiko.DSSKey(data=key.asbytes())
    elif name == "ssh-ed25519":
        public = paramiko.Ed25519Key(data=key.asbytes())
    else:
        continue
    signature = paramiko.Message(key.sign_ssh_data(data))
    print(name, "verified" if public.verify_ssh_sig(data, signature) else "FAILED")
)";
    ProgramRun paramiko = run_program(agent, {"/usr/bin/python3", script});
    EXPECT_EQ(paramiko.status, 0) << paramiko.output;
    for (const char *name : {"ssh-rsa", "ssh-dss", "ecdsa-sha2-nistp256", "ecdsa-sha2-nistp384", "ecdsa-sha2-nistp521",
                             "ssh-ed25519"})
        EXPECT_NE(paramiko.output.find(std::string(name) + " verified"), std::string::npos) << paramiko.output;
    EXPECT_EQ(paramiko.output.find("FAILED"), std::string::npos);
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
    std::string script = (agent.root() / "ssh2_check.js").string();
    std::ofstream(script) << R"(
const dir = process.argv[2] + '/node_modules/ssh2';
const { OpenSSHAgent } = require(dir);
const { sigSSHToASN1 } = require(dir + '/lib/protocol/utils.js');
const agent = new OpenSSHAgent(process.env.SSH_AUTH_SOCK);
const data = Buffer.from('data to be signed');
agent.getIdentities((err, keys) => {
  if (err) { console.log('FAILED to list:', err.message); process.exit(1); }
  let pending = keys.length;
  for (const key of keys) {
    agent.sign(key, data, { hash: 'sha256' }, (err, sig) => {
      if (err) {
        console.log(key.type, 'FAILED to sign:', err.message);
      } else {
        const ok = key.verify(data, sigSSHToASN1(sig, key.type), key.type === 'ssh-rsa' ? 'sha256' : undefined);
        console.log(key.type, ok === true ? 'verified' : 'FAILED');
      }
      if (--pending === 0) process.exit(0);
    });
  }
});
)";
    ProgramRun node = run_program(agent, {"/usr/bin/env", "node", script, modules});
    EXPECT_EQ(node.status, 0) << node.output;
    for (const char *name : {"ssh-rsa", "ssh-dss", "ecdsa-sha2-nistp256", "ecdsa-sha2-nistp384", "ecdsa-sha2-nistp521",
                             "ssh-ed25519"})
        EXPECT_NE(node.output.find(std::string(name) + " verified"), std::string::npos) << node.output;
    EXPECT_EQ(node.output.find("FAILED"), std::string::npos) << node.output;
}
