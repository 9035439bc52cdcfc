// tagent, the client and manager, against the real agent; tagent watch
// sees locks, unlocks and changes until a reset destroys the store and
// stops the agent.
#include <gtest/gtest.h>

#include "support/agent_process.h"
#include "support/tool_run.h"

TEST(Tagent, KeysSettingsLockingWatchAndReset)
{
    AgentProcess agent({"--empty-passphrase"});
    ASSERT_TRUE(agent.start()) << agent.log_text();
    std::string out = (agent.root() / "watch.txt").string();
    pid_t watcher = AgentProcess::spawn({TAGENT_PATH, "-a", agent.socket_path(), "watch"}, out, out);
    // Wait until the subscription is in place: a lock must then be seen.
    std::string empty = write_text(agent, "empty.txt", "\n");
    for (int i = 0; i < 100 && !has(read_file_text(out), "locked"); ++i) {
        run_tagent(agent, {"lock"});
        run_tagent(agent, {"unlock", "--passphrase-file", empty});
    }
    std::string key = make_key(agent, "work_key", "ecdsa");
    ProgramRun added = run_tagent(agent, {"add", key, "--name", "work", "--confirm"});
    EXPECT_EQ(added.status, 0) << added.output;
    EXPECT_EQ(run_tagent(agent, {"add", key, "--name", "work"}).output, "Already held: " + key + "\n");

    // export gives a block that OpenSSH imports as the same key.
    ProgramRun exported = run_tagent(agent, {"export", "work", "--comment", "for the server"});
    EXPECT_TRUE(has(exported.output, "Comment: \"256-bit ECDSA, for the server\""));
    std::string secsh = write_text(agent, "work.secsh", exported.output);
    EXPECT_EQ(run_tool("ssh-keygen -i -f " + secsh).output.substr(0, 60), read_file_text(key + ".pub").substr(0, 60));

    // A key in OpenSSH's own format is added and listed with the
    // fingerprint that ssh-keygen shows; an encrypted one is left to ssh-add.
    std::string openssh = (agent.root() / "rsa").string();
    ASSERT_EQ(run_tool("ssh-keygen -q -N '' -t rsa -f " + openssh).status, 0);
    EXPECT_EQ(run_tagent(agent, {"add", openssh, "--name", "rsa"}).status, 0);
    std::string shown = run_tool("ssh-keygen -l -E sha256 -f " + openssh + ".pub").output;
    EXPECT_TRUE(has(run_tagent(agent, {"list"}).output, "rsa  RSA 3072  SHA256:" + word_after(shown, "SHA256:")));
    std::string locked = (agent.root() / "locked").string();
    ASSERT_EQ(run_tool("ssh-keygen -q -N secret -a 2 -t ed25519 -f " + locked).status, 0);
    ProgramRun refused = run_tagent(agent, {"add", locked});
    EXPECT_EQ(refused.status, 1);
    EXPECT_EQ(refused.output, "tagent: " + locked +
                                  " is an encrypted OpenSSH private key; add it with ssh-add, which decrypts it itself\n");

    ProgramRun status = run_tagent(agent, {"status"});
    EXPECT_TRUE(has(status.output, "state: unlocked"));
    EXPECT_TRUE(has(status.output, "identities: 4")) << status.output;  // RSA under three names
    EXPECT_EQ(run_tagent(agent, {"set", "ConfirmKeyOp", "yes"}).output, "ConfirmKeyOp changed\n");
    EXPECT_EQ(run_tagent(agent, {"set", "confirmkeyop", "YES"}).output, "confirmkeyop unchanged\n");
    EXPECT_EQ(run_tagent(agent, {"set", "Nonsense", "yes"}).status, 2);

    EXPECT_EQ(run_tagent(agent, {"lock"}).status, 0);
    EXPECT_TRUE(has(run_tagent(agent, {"status"}).output, "state: locked"));
    EXPECT_EQ(run_tagent(agent, {"unlock", "--passphrase-file", write_text(agent, "wrong.txt", "not it\n")}).status, 1);
    EXPECT_EQ(run_tagent(agent, {"unlock", "--passphrase-file", empty}).status, 0);
    EXPECT_EQ(run_tagent(agent, {"remove", "work"}).status, 0);
    EXPECT_EQ(run_tagent(agent, {"remove", "work"}).status, 1);
    EXPECT_EQ(run_tagent(agent, {"add", "/nonexistent"}).status, 1);

    EXPECT_EQ(run_tagent(agent, {"reset"}).status, 2);  // needs --yes
    EXPECT_EQ(run_tagent(agent, {"reset", "--yes"}).status, 0);
    EXPECT_EQ(agent.stop(0), 0);
    EXPECT_EQ(AgentProcess::wait_exit(watcher), 0);
    std::string seen = read_file_text(out);
    for (const char *line : {"locked\n", "unlocked\n", "changed\n"})
        EXPECT_TRUE(has(seen, line)) << seen;
    for (const char *file : {"tAgentKeys", "tAgentKeys.pub", "tAgent"})
        EXPECT_FALSE(std::filesystem::exists(agent.root() / "data" / file)) << file;
    EXPECT_TRUE(has(agent.log_text(), "Resetting key agent data.  All keys destroyed and passphrase reset."));
    ProgramRun gone = run_tagent(agent, {"status"});
    EXPECT_EQ(gone.status, 2);
    EXPECT_TRUE(has(gone.output, "no agent is reachable"));
    EXPECT_EQ(run_tagent(agent, {"frobnicate"}).status, 2);
}
