#include <gtest/gtest.h>

#include <sys/stat.h>

#include "agent/key_store.h"
#include "support/agent_process.h"
#include "support/requests.h"
#include "support/unstorable_passphrase.h"

namespace {

// Starts `agent` with `args`; its answer to "is it locked?".
Bytes lock_state_after_start(AgentProcess &agent, std::vector<std::string> args)
{
    agent.stop();
    agent.set_extra_args(std::move(args));
    EXPECT_TRUE(agent.start()) << agent.log_text();
    return AgentClient(agent.socket_path()).request(IS_LOCKED);
}

// Runs OpenSSH's ssh-add with `flag`; its prompts are answered with `text`
// by an askpass program.
int ssh_add_answering(const AgentProcess &agent, const char *flag, const std::string &text)
{
    std::string answer = write_text(agent, "askpass-answer.txt", text + "\n");
    std::string script = write_text(agent, "askpass.sh", "#!/bin/sh\ncat '" + answer + "'\n");
    chmod(script.c_str(), 0700);
    return run_program(agent, {"/usr/bin/ssh-add", flag},
                       {"SSH_ASKPASS=" + script, "SSH_ASKPASS_REQUIRE=force", "DISPLAY=:0"})
        .status;
}

}  // namespace

// The first run needs a passphrase that the settings file can hold; later
// runs start locked until the right one is given; OpenSSH locks and
// unlocks; small requests and forwarding notices over the socket; a new
// passphrase, and starting over, which sets the old store aside.
TEST(AgentLock, PassphraseOnEveryRunLockingAndStartingOver)
{
    AgentProcess agent;
    ProgramRun refused = run_program(agent, agent.base_args());
    EXPECT_EQ(refused.status, 1);
    EXPECT_TRUE(has(refused.output, "--passphrase-file FILE or --empty-passphrase"));
    // A passphrase whose digest the settings file would read back shifted
    // is refused, with the reason.
    std::string bad = write_text(agent, "bad.txt", search_passphrase() + "\n");
    agent.set_extra_args({"--passphrase-file", bad});
    EXPECT_FALSE(agent.start());
    EXPECT_EQ(agent.exit_status(), 1);
    EXPECT_TRUE(has(agent.log_text(), "tkeyagent: the passphrase in " + bad + ": this passphrase cannot be stored"))
        << agent.log_text();
    EXPECT_FALSE(std::filesystem::exists(agent.root() / "data" / "tAgent"));

    std::string file = write_text(agent, "passphrase.txt", "agent secret\nnot this line\n");
    EXPECT_EQ(lock_state_after_start(agent, {"--passphrase-file", file}), UNLOCKED);
    EXPECT_EQ(agent.stop(), 0);
    std::string log = agent.log_text();
    EXPECT_LT(log.find("keyagent: Agent not initialized with passphrase yet"),
              log.find("keyagent: Agent has a passphrase now"));
    struct stat st;
    ASSERT_EQ(stat((agent.root() / "data" / "tAgent").c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 0777, 0600u);
    EXPECT_TRUE(has(read_file_text(agent.root() / "data" / "tAgent"), "\nAttemptEmpty no\n"));

    // A later run without the file starts locked (and a sign request gets
    // the locked answer); with the wrong line it stays locked; with the
    // right one it unlocks.
    EXPECT_EQ(lock_state_after_start(agent, {}), LOCKED);
    EXPECT_EQ(AgentClient(agent.socket_path()).request(frame(hex_bytes("0d"))), LOCKED);
    EXPECT_EQ(lock_state_after_start(agent, {"--passphrase-file", write_text(agent, "p.txt", "agent secreT\n")}), LOCKED);
    EXPECT_EQ(lock_state_after_start(agent, {"--passphrase-file", write_text(agent, "p.txt", "agent secret")}), UNLOCKED);

    // The lock text is not kept: only the agent passphrase unlocks, also
    // when it was the lock text.
    AgentClient client(agent.socket_path());
    struct Step { const char *flag, *text; int status; Bytes state; } steps[] = {
        {"-x", "lock text", 0, LOCKED},      {"-X", "lock text", 1, LOCKED},
        {"-X", "agent secrets", 1, LOCKED},  {"-X", "agent secret", 0, UNLOCKED},
        {"-x", "agent secret", 0, LOCKED},   {"-X", "agent secret", 0, UNLOCKED}};
    for (const Step &s : steps) {
        EXPECT_EQ(ssh_add_answering(agent, s.flag, s.text) != 0, s.status != 0) << s.flag << " " << s.text;
        EXPECT_EQ(client.request(IS_LOCKED), s.state) << s.flag << " " << s.text;
    }

    const std::pair<Bytes, Bytes> exchanges[] = {
        {string_request(159, ""), hex_bytes("00000001 66")},  // AttemptEmpty is off
        {string_request(212, "abc"), hex_bytes("00000004 96 616263")},
        {string_request(212, std::string("a\0bc", 4)), hex_bytes("00000002 96 61")},
        {frame(hex_bytes("d4")), hex_bytes("00000001 96")},
        {string_request(1, "client 1.0"), hex_bytes("00000005 67 00000002")},
        {frame(hex_bytes("9c 1122334455667788 00000007")), hex_bytes("00000008 1122334455667788")}};
    for (const auto &[request, reply] : exchanges)
        EXPECT_EQ(client.request(request), reply);
    // The plain forwarding notice is not answered: the next reply is the ping's.
    client.send_bytes(forwarding_notice("jump", "192.0.2.1"));
    EXPECT_EQ(client.request(string_request(212, "x")), hex_bytes("00000002 96 78"));
    // Two vendor notices on one connection make a chain of 2 (the plain one
    // went to the same connection, so a fresh one is used).
    AgentClient vendor(agent.socket_path());
    Bytes notice = vendor_notice("gate", 0x13, 77);
    EXPECT_EQ(vendor.request(notice), hex_bytes("00000001 06"));
    EXPECT_EQ(vendor.request(notice), hex_bytes("00000001 06"));

    // tagent passphrase refuses an unstorable passphrase; another one is
    // stored and unlocks the next start.
    ProgramRun unstorable = run_tagent(agent, {"passphrase", "--old-file", file, "--new-file", bad});
    EXPECT_EQ(unstorable.status, 1);
    EXPECT_TRUE(has(unstorable.output, "its SHA-1 digest begins with a white-space byte")) << unstorable.output;
    std::string other = write_text(agent, "other.txt", "another passphrase\n");
    EXPECT_EQ(run_tagent(agent, {"passphrase", "--old-file", file, "--new-file", other}).status, 0);
    ASSERT_EQ(ssh_add(agent, {make_key(agent, "id", "ecdsa")}).status, 0);
    EXPECT_EQ(lock_state_after_start(agent, {"--passphrase-file", other}), UNLOCKED);
    EXPECT_EQ(agent.stop(), 0);
    log = agent.log_text();
    for (const char *line : {"keyagent: Unlock failed: wrong passphrase",
                             "keyagent: Agent forwarding notice: jump (192.0.2.1) port 22",
                             "keyagent: Forwarding chain length: 2", "keyagent: Client version string : client 1.0"})
        EXPECT_TRUE(has(log, line)) << line;

    // Starting over is a deliberate choice: refused while the settings file
    // is intact; with it lost, the old store is set aside, never deleted.
    std::string stored = read_file_text(agent.data_dir() + "/tAgentKeys");
    agent.set_extra_args({"--passphrase-file", other, "--start-over"});
    EXPECT_FALSE(agent.start());
    EXPECT_EQ(agent.exit_status(), 1);
    std::filesystem::remove(agent.data_dir() + "/tAgent");
    ASSERT_TRUE(agent.start()) << agent.log_text();
    EXPECT_TRUE(has(agent.log_text(), "tAgent is missing: the key store is set aside as"));
    EXPECT_EQ(ssh_add(agent, {"-l"}).output, "The agent has no identities.\n");
    agent.stop();
    int aside = 0;
    for (const auto &entry : std::filesystem::directory_iterator(agent.data_dir()))
        if (entry.path().filename().string().rfind("tAgentKeys.set-aside-", 0) == 0) {
            ++aside;
            EXPECT_EQ(read_file_text(entry.path()), stored);
        }
    EXPECT_EQ(aside, 1);
}
