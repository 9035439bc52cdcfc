// OpenSSH's ssh-add against the real agent: adding, listing and removing
// keys made by ssh-keygen.
#include <gtest/gtest.h>

#include <sstream>

#include "support/agent_process.h"
#include "support/tool_run.h"

namespace {

struct SshAdd {
    int status;
    std::string output;
};

SshAdd ssh_add(const AgentProcess &agent, std::vector<std::string> args)
{
    std::string out = (agent.root() / "ssh-add.txt").string();
    std::filesystem::remove(out);
    args.insert(args.begin(), "/usr/bin/ssh-add");
    pid_t pid = AgentProcess::spawn(args, out, out, {"SSH_AUTH_SOCK=" + agent.socket_path()});
    int status = AgentProcess::wait_exit(pid);
    return {status, AgentProcess::read_file(out)};
}

std::string make_key(const AgentProcess &agent, const std::string &name, const std::string &type, int bits = 0)
{
    std::string path = (agent.root() / name).string();
    EXPECT_TRUE(make_ssh_keygen_key(path, type, bits)) << path;
    return path;
}

size_t count_lines(const std::string &text, const std::string &needle)
{
    size_t n = 0;
    std::istringstream lines(text);
    for (std::string line; std::getline(lines, line);)
        n += line.find(needle) != std::string::npos;
    return n;
}

}  // namespace

TEST(OpenSshAdd, AddsListsAndRemovesEveryKeyType)
{
    AgentProcess agent({"--empty-passphrase"});
    ASSERT_TRUE(agent.start()) << agent.log_text();
    struct { const char *name, *type; int bits; const char *listed; } keys[] = {
        {"rsa2048", "rsa", 2048, "(RSA)"},        {"rsa4096", "rsa", 4096, "(RSA)"},
        {"dsa", "dsa", 0, "(DSA)"},               {"p256", "ecdsa", 256, "(ECDSA)"},
        {"p384", "ecdsa", 384, "(ECDSA)"},        {"p521", "ecdsa", 521, "(ECDSA)"},
        {"ed", "ed25519", 0, "(ED25519)"},        {"ed_confirm", "ed25519", 0, "(ED25519)"},
    };
    bool confirm = false;
    for (const auto &k : keys) {
        std::string path = make_key(agent, k.name, k.type, k.bits);
        std::vector<std::string> args = {path};
        if ((confirm = !confirm))
            args.insert(args.begin(), "-c");  // every other key with the confirm constraint
        SshAdd added = ssh_add(agent, args);
        EXPECT_EQ(added.status, 0) << k.name << ": " << added.output;
    }
    // Adding a held key again still succeeds.
    EXPECT_EQ(ssh_add(agent, {(agent.root() / "p256").string()}).status, 0);
    EXPECT_NE(agent.log_text().find("keyagent: Key exists : id_ECDSA_256_2 ECDSA 256-bit"), std::string::npos);

    SshAdd listed = ssh_add(agent, {"-l"});
    EXPECT_EQ(listed.status, 0);
    // An RSA key is offered under three signature names, the others once.
    EXPECT_EQ(count_lines(listed.output, "rsa2048 (RSA)"), 3u) << listed.output;
    EXPECT_EQ(count_lines(listed.output, "dsa (DSA)"), 1u);
    EXPECT_EQ(count_lines(listed.output, "p521 (ECDSA)"), 1u);
    SshAdd public_keys = ssh_add(agent, {"-L"});
    for (std::string name : {"p384", "ed", "ed_confirm"}) {
        // -L gives the .pub file's key; -l the size and fingerprint that
        // ssh-keygen shows, the comment after the offered name (an OpenSSH
        // format key brings its own comment, a PEM one its path).
        std::string pub = AgentProcess::read_file((agent.root() / (name + ".pub")).string());
        EXPECT_NE(public_keys.output.find(pub.substr(0, pub.rfind(' '))), std::string::npos) << name;
        std::string shown = run_tool("ssh-keygen -l -f " + (agent.root() / name).string() + ".pub").output;
        bool ed = name != "p384";
        std::string comment = ed ? " ssh-ed25519 - " + name : " ecdsa-sha2-nistp384 - " + (agent.root() / name).string();
        EXPECT_NE(listed.output.find(shown.substr(0, shown.find(' ', 4)) + comment + (ed ? " (ED25519)" : " (ECDSA)")),
                  std::string::npos)
            << shown << listed.output;
    }
    EXPECT_NE(agent.log_text().find("keyagent: Add key : id_ED25519_256 ED25519 256-bit"), std::string::npos);

    EXPECT_EQ(ssh_add(agent, {"-d", (agent.root() / "p384").string()}).status, 0);
    EXPECT_EQ(count_lines(ssh_add(agent, {"-l"}).output, "p384"), 0u);
    EXPECT_EQ(ssh_add(agent, {"-D"}).status, 0);
    EXPECT_EQ(ssh_add(agent, {"-l"}).status, 1);  // "The agent has no identities."
}

TEST(OpenSshAdd, TreatsLifetimesAsAbsolute)
{
    AgentProcess agent({"--empty-passphrase"});
    ASSERT_TRUE(agent.start());
    // ssh-add -t sends lifetime code 1, which this agent stores as an
    // absolute time: 600 seconds after the epoch is long past, so the key
    // is gone at the next request.
    EXPECT_EQ(ssh_add(agent, {"-t", "600", make_key(agent, "short", "ecdsa", 256)}).status, 0);
    EXPECT_EQ(ssh_add(agent, {"-l"}).status, 1);
    EXPECT_NE(agent.log_text().find("keyagent: Removing key: id_ECDSA_256 - lifetime has expired"), std::string::npos);
}
