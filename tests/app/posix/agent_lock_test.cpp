#include <gtest/gtest.h>

#include <openssl/evp.h>

#include "support/agent_process.h"
#include "support/requests.h"

namespace {

// A passphrase whose SHA-1 digest begins with a white-space byte, found by
// search: the settings file would read such a digest back shifted.
std::string unstorable_passphrase()
{
    for (int i = 0;; ++i) {
        std::string candidate = "candidate-" + std::to_string(i);
        unsigned char digest[EVP_MAX_MD_SIZE];
        EVP_Digest(candidate.data(), candidate.size(), digest, nullptr, EVP_sha1(), nullptr);
        if (isspace(digest[0]))
            return candidate;
    }
}

// Starts `agent` with `args`; its answer to "is it locked?".
Bytes lock_state_after_start(AgentProcess &agent, std::vector<std::string> args)
{
    agent.stop();
    agent.extra_args = std::move(args);
    EXPECT_TRUE(agent.start()) << agent.log_text();
    return AgentClient(agent.socket_path()).request(IS_LOCKED);
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
    std::string bad = write_text(agent, "bad.txt", unstorable_passphrase() + "\n");
    agent.extra_args = {"--passphrase-file", bad};
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
    EXPECT_EQ(mode_of(agent.data_dir() + "/tAgent"), 0600u);
    EXPECT_TRUE(has(read_file_text(agent.root() / "data" / "tAgent"), "\nAttemptEmpty no\n"));

    // A later run without the file starts locked (and a sign request gets
    // the locked answer); with the wrong line it stays locked; with the
    // right one (also ending in CR LF) it unlocks.
    EXPECT_EQ(lock_state_after_start(agent, {}), LOCKED);
    EXPECT_EQ(AgentClient(agent.socket_path()).request(frame(hex_bytes("0d"))), LOCKED);
    EXPECT_EQ(lock_state_after_start(agent, {"--passphrase-file", write_text(agent, "p.txt", "agent secreT\n")}), LOCKED);
    std::string crlf = write_text(agent, "p.txt", "agent secret\r\n");
    EXPECT_EQ(lock_state_after_start(agent, {"--passphrase-file", crlf}), UNLOCKED);

    // The lock text is not kept: only the agent passphrase unlocks, also
    // when it was the lock text.
    // ssh-add's prompts are answered by an askpass program.
    std::string askpass = write_text(agent, "askpass.sh", "#!/bin/sh\necho \"$ANSWER\"\n");
    chmod(askpass.c_str(), 0700);
    AgentClient client(agent.socket_path());
    struct Step { const char *flag, *text; int status; Bytes state; } steps[] = {
        {"-x", "lock text", 0, LOCKED},      {"-X", "lock text", 1, LOCKED},
        {"-X", "agent secrets", 1, LOCKED},  {"-X", "agent secret", 0, UNLOCKED},
        {"-x", "agent secret", 0, LOCKED},   {"-X", "agent secret", 0, UNLOCKED}};
    for (const Step &s : steps) {
        ProgramRun run = run_program(agent, {"/usr/bin/ssh-add", s.flag}, {"SSH_ASKPASS=" + askpass,
                                     "SSH_ASKPASS_REQUIRE=force", "DISPLAY=:0", std::string("ANSWER=") + s.text});
        EXPECT_EQ(run.status != 0, s.status != 0) << s.flag << " " << s.text;
        EXPECT_EQ(client.request(IS_LOCKED), s.state) << s.flag << " " << s.text;
    }

    const std::pair<Bytes, Bytes> exchanges[] = {
        {string_request(159, ""), hex_bytes("00000001 66")},  // AttemptEmpty is off
        {string_request(212, "abc"), hex_bytes("00000004 96 616263")},
        {string_request(212, std::string("a\0bc", 4)), hex_bytes("00000002 96 61")},
        {frame(hex_bytes("d4")), hex_bytes("00000001 96")},
        {string_request(1, "client 1.0"), hex_bytes("00000005 67 00000002")}};
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
    // stored, the held key is stored again under it, and it unlocks the next
    // start.
    ASSERT_EQ(ssh_add(agent, {make_key(agent, "id", "ecdsa")}).status, 0);
    ProgramRun unstorable = run_tagent(agent, {"passphrase", "--old-file", file, "--new-file", bad});
    EXPECT_EQ(unstorable.status, 1);
    EXPECT_TRUE(has(unstorable.output, "its SHA-1 digest begins with a white-space byte")) << unstorable.output;
    std::string other = write_text(agent, "other.txt", "another passphrase\n");
    EXPECT_EQ(run_tagent(agent, {"passphrase", "--old-file", file, "--new-file", other}).status, 0);
    EXPECT_EQ(lock_state_after_start(agent, {"--passphrase-file", other}), UNLOCKED);
    EXPECT_TRUE(agent_signs_with(agent, (agent.root() / "id").string()));
    EXPECT_EQ(agent.stop(), 0);
    log = agent.log_text();
    for (const char *line : {"keyagent: Unlock failed: wrong passphrase",
                             "keyagent: Agent forwarding notice: jump (192.0.2.1) port 22",
                             "keyagent: Forwarding chain length: 2", "keyagent: Client version string : client 1.0"})
        EXPECT_TRUE(has(log, line)) << line;

    // Starting over is a deliberate choice: refused while the settings file
    // is intact; with it lost, the old store is set aside, never deleted.
    std::string stored = read_file_text(agent.data_dir() + "/tAgentKeys");
    agent.extra_args = {"--passphrase-file", other, "--start-over"};
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
