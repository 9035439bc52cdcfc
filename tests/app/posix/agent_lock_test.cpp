#include <gtest/gtest.h>

#include <sys/stat.h>

#include "support/agent_process.h"
#include "support/requests.h"

namespace {

const Bytes IS_LOCKED = frame(hex_bytes("97"));
const Bytes LOCKED = hex_bytes("00000001 aa");
const Bytes UNLOCKED = hex_bytes("00000001 ab");

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

TEST(AgentLock, StartUpPassphraseOnFirstAndLaterRuns)
{
    AgentProcess agent;
    // A first run needs to be told the passphrase.
    ProgramRun refused = run_program(agent, agent.base_args());
    EXPECT_EQ(refused.status, 1);
    EXPECT_NE(refused.output.find("--passphrase-file FILE or --empty-passphrase"), std::string::npos);
    EXPECT_FALSE(std::filesystem::exists(agent.root() / "data" / "tAgent"));

    std::string file = write_text(agent, "passphrase.txt", "agent secret\nnot this line\n");
    agent.set_extra_args({"--passphrase-file", file});
    ASSERT_TRUE(agent.start()) << agent.log_text();
    {
        AgentClient client(agent.socket_path());
        EXPECT_EQ(client.request(IS_LOCKED), UNLOCKED);
    }
    EXPECT_EQ(agent.stop(), 0);
    std::string log = agent.log_text();
    EXPECT_LT(log.find("keyagent: Agent not initialized with passphrase yet"),
              log.find("keyagent: Agent has a passphrase now"));
    struct stat st;
    ASSERT_EQ(stat((agent.root() / "data" / "tAgent").c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 0777, 0600u);
    EXPECT_NE(AgentProcess::read_file((agent.root() / "data" / "tAgent").string()).find("\nAttemptEmpty no\n"),
              std::string::npos);

    // A later run without the file starts locked; with the wrong line it
    // stays locked; with the right one it unlocks.
    agent.set_extra_args({});
    ASSERT_TRUE(agent.start());
    {
        AgentClient client(agent.socket_path());
        EXPECT_EQ(client.request(IS_LOCKED), LOCKED);
        EXPECT_EQ(client.request(frame(hex_bytes("0d"))), LOCKED);
    }
    agent.stop();
    agent.set_extra_args({"--passphrase-file", write_text(agent, "passphrase.txt", "agent secreT\n")});
    ASSERT_TRUE(agent.start());
    EXPECT_EQ(AgentClient(agent.socket_path()).request(IS_LOCKED), LOCKED);
    agent.stop();
    agent.set_extra_args({"--passphrase-file", write_text(agent, "passphrase.txt", "agent secret")});
    ASSERT_TRUE(agent.start());
    EXPECT_EQ(AgentClient(agent.socket_path()).request(IS_LOCKED), UNLOCKED);
    EXPECT_EQ(agent.stop(), 0);
    EXPECT_NE(agent.log_text().find("keyagent: Unlock failed: wrong passphrase"), std::string::npos);
}

TEST(AgentLock, EmptyPassphraseUnlocksLaterRuns)
{
    AgentProcess agent({"--empty-passphrase"});
    ASSERT_TRUE(agent.start());
    agent.stop();
    agent.set_extra_args({});
    ASSERT_TRUE(agent.start());
    AgentClient client(agent.socket_path());
    EXPECT_EQ(client.request(IS_LOCKED), UNLOCKED);
    EXPECT_EQ(client.request(string_request(159, "")), hex_bytes("00000001 06"));
    EXPECT_NE(agent.log_text().find("keyagent: UNLOCKED"), std::string::npos);
}

TEST(AgentLock, OpenSshLocksAndUnlocksTheAgent)
{
    AgentProcess agent;
    agent.set_extra_args({"--passphrase-file", write_text(agent, "passphrase.txt", "agent secret\n")});
    ASSERT_TRUE(agent.start()) << agent.log_text();
    AgentClient client(agent.socket_path());

    EXPECT_EQ(ssh_add_answering(agent, "-x", "lock text"), 0);
    EXPECT_EQ(client.request(IS_LOCKED), LOCKED);
    // The lock text is not kept: it does not unlock.
    EXPECT_NE(ssh_add_answering(agent, "-X", "lock text"), 0);
    EXPECT_NE(ssh_add_answering(agent, "-X", "agent secrets"), 0);
    EXPECT_EQ(client.request(IS_LOCKED), LOCKED);
    EXPECT_EQ(ssh_add_answering(agent, "-X", "agent secret"), 0);
    EXPECT_EQ(client.request(IS_LOCKED), UNLOCKED);

    // Locking with the agent passphrase itself, then unlocking with it.
    EXPECT_EQ(ssh_add_answering(agent, "-x", "agent secret"), 0);
    EXPECT_EQ(client.request(IS_LOCKED), LOCKED);
    EXPECT_EQ(ssh_add_answering(agent, "-X", "agent secret"), 0);
    EXPECT_EQ(client.request(IS_LOCKED), UNLOCKED);
}

TEST(AgentLock, SmallRequestsOverTheSocket)
{
    AgentProcess agent;
    agent.set_extra_args({"--passphrase-file", write_text(agent, "passphrase.txt", "pw\n")});
    ASSERT_TRUE(agent.start());
    AgentClient client(agent.socket_path());

    EXPECT_EQ(client.request(string_request(159, "")), hex_bytes("00000001 66"));  // AttemptEmpty is off
    EXPECT_EQ(client.request(string_request(212, "abc")), hex_bytes("00000004 96 616263"));
    EXPECT_EQ(client.request(string_request(212, std::string("a\0bc", 4))), hex_bytes("00000002 96 61"));
    EXPECT_EQ(client.request(frame(hex_bytes("d4"))), hex_bytes("00000001 96"));
    EXPECT_EQ(client.request(string_request(1, "client 1.0")), hex_bytes("00000005 67 00000002"));
    EXPECT_EQ(client.request(frame(hex_bytes("9c 1122334455667788 00000007"))),
              hex_bytes("00000008 1122334455667788"));

    // The plain forwarding notice is not answered: the next reply is the ping's.
    client.send_bytes(forwarding_notice("jump", "192.0.2.1"));
    EXPECT_EQ(client.request(string_request(212, "x")), hex_bytes("00000002 96 78"));

    // Two vendor notices on one connection make a chain of 2 (the plain one
    // went to the same connection, so a fresh one is used).
    AgentClient vendor(agent.socket_path());
    Bytes notice = vendor_notice("gate", 0x13, 77);
    EXPECT_EQ(vendor.request(notice), hex_bytes("00000001 06"));
    EXPECT_EQ(vendor.request(notice), hex_bytes("00000001 06"));
    EXPECT_EQ(agent.stop(), 0);
    std::string log = agent.log_text();
    EXPECT_NE(log.find("keyagent: Agent forwarding notice: jump (192.0.2.1) port 22"), std::string::npos);
    EXPECT_NE(log.find("keyagent: Forwarding chain length: 2"), std::string::npos);
    EXPECT_NE(log.find("keyagent: Client version string : client 1.0"), std::string::npos);
}
