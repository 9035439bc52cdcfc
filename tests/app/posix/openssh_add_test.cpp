// OpenSSH's ssh-add against the real agent: adding, listing and removing
// keys made by ssh-keygen.
#include <gtest/gtest.h>

#include "support/agent_process.h"
#include "support/tool_run.h"

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
        ProgramRun added = ssh_add(agent, args);
        EXPECT_EQ(added.status, 0) << k.name << ": " << added.output;
    }
    // Adding a held key again still succeeds.
    EXPECT_EQ(ssh_add(agent, {(agent.root() / "p256").string()}).status, 0);
    EXPECT_NE(agent.log_text().find("keyagent: Key exists : id_ECDSA_256_2 ECDSA 256-bit"), std::string::npos);

    ProgramRun listed = ssh_add(agent, {"-l"});
    EXPECT_EQ(listed.status, 0);
    // An RSA key is offered under three signature names, the others once.
    EXPECT_EQ(count_of(listed.output, "rsa2048 (RSA)"), 3u) << listed.output;
    EXPECT_EQ(count_of(listed.output, "dsa (DSA)"), 1u);
    EXPECT_EQ(count_of(listed.output, "p521 (ECDSA)"), 1u);
    ProgramRun public_keys = ssh_add(agent, {"-L"});
    for (std::string name : {"p384", "ed", "ed_confirm"}) {
        // -L gives the .pub file's key; -l the size,
        // fingerprint and comment that ssh-keygen shows, after the offered
        // signature name.
        std::string path = (agent.root() / name).string();
        std::string pub = AgentProcess::read_file(path + ".pub");
        EXPECT_NE(public_keys.output.find(pub.substr(0, pub.find(' ', pub.find(' ') + 1))), std::string::npos) << name;
        std::string shown = run_tool("ssh-keygen -l -f " + path + ".pub").output;
        bool ed = name != "p384";
        std::string offered = ed ? " ssh-ed25519 - " : " ecdsa-sha2-nistp384 - ";
        EXPECT_NE(listed.output.find(shown.substr(0, shown.find(' ', 4)) + offered + path + (ed ? " (ED25519)" : " (ECDSA)")),
                  std::string::npos)
            << shown << listed.output;
    }
    EXPECT_NE(agent.log_text().find("keyagent: Add key : id_ED25519_256 ED25519 256-bit"), std::string::npos);

    EXPECT_EQ(ssh_add(agent, {"-d", (agent.root() / "p384").string()}).status, 0);
    EXPECT_EQ(count_of(ssh_add(agent, {"-l"}).output, "p384"), 0u);
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
