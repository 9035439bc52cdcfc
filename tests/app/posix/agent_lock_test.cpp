#include <gtest/gtest.h>

#include <sys/stat.h>

#include "support/agent_process.h"

namespace {

Bytes with_string(uint8_t number, const std::string &text)
{
    Buffer b;
    buffer_put_char(&b, number);
    buffer_put_string(&b, text.data(), static_cast<uint32_t>(text.size()));
    return frame(buffer_bytes(b));
}

const Bytes IS_LOCKED = frame(hex_bytes("97"));
const Bytes LOCKED = hex_bytes("00000001 aa");
const Bytes UNLOCKED = hex_bytes("00000001 ab");

std::string write_passphrase_file(const AgentProcess &agent, const std::string &text)
{
    std::string path = (agent.root() / "passphrase.txt").string();
    std::ofstream(path) << text;
    return path;
}

// Runs OpenSSH's ssh-add with `flag`; its prompts are answered with `text`
// by an askpass program.
int ssh_add(const AgentProcess &agent, const char *flag, const std::string &text)
{
    std::string answer = (agent.root() / "askpass-answer.txt").string();
    std::ofstream(answer) << text << "\n";
    std::string script = (agent.root() / "askpass.sh").string();
    std::ofstream(script) << "#!/bin/sh\ncat '" << answer << "'\n";
    chmod(script.c_str(), 0700);
    std::string out = (agent.root() / "ssh-add.txt").string();
    pid_t pid = AgentProcess::spawn({"/usr/bin/ssh-add", flag}, out, out,
                                    {"SSH_AUTH_SOCK=" + agent.socket_path(), "SSH_ASKPASS=" + script,
                                     "SSH_ASKPASS_REQUIRE=force", "DISPLAY=:0"});
    return AgentProcess::wait_exit(pid);
}

}  // namespace

TEST(AgentLock, StartUpPassphraseOnFirstAndLaterRuns)
{
    AgentProcess agent;
    // A first run needs to be told the passphrase.
    std::string err = (agent.root() / "first.txt").string();
    pid_t refused = AgentProcess::spawn(agent.base_args(), err, err);
    EXPECT_EQ(AgentProcess::wait_exit(refused), 1);
    EXPECT_NE(AgentProcess::read_file(err).find("--passphrase-file FILE or --empty-passphrase"), std::string::npos);
    EXPECT_FALSE(std::filesystem::exists(agent.root() / "data" / "tAgent"));

    std::string file = write_passphrase_file(agent, "agent secret\nnot this line\n");
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
    agent.set_extra_args({"--passphrase-file", write_passphrase_file(agent, "agent secreT\n")});
    ASSERT_TRUE(agent.start());
    EXPECT_EQ(AgentClient(agent.socket_path()).request(IS_LOCKED), LOCKED);
    agent.stop();
    agent.set_extra_args({"--passphrase-file", write_passphrase_file(agent, "agent secret")});
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
    EXPECT_EQ(client.request(with_string(159, "")), hex_bytes("00000001 06"));
    EXPECT_NE(agent.log_text().find("keyagent: UNLOCKED"), std::string::npos);
}

TEST(AgentLock, OpenSshLocksAndUnlocksTheAgent)
{
    AgentProcess agent;
    agent.set_extra_args({"--passphrase-file", write_passphrase_file(agent, "agent secret\n")});
    ASSERT_TRUE(agent.start()) << agent.log_text();
    AgentClient client(agent.socket_path());

    EXPECT_EQ(ssh_add(agent, "-x", "lock text"), 0);
    EXPECT_EQ(client.request(IS_LOCKED), LOCKED);
    // The lock text is not kept: it does not unlock.
    EXPECT_NE(ssh_add(agent, "-X", "lock text"), 0);
    EXPECT_NE(ssh_add(agent, "-X", "agent secrets"), 0);
    EXPECT_EQ(client.request(IS_LOCKED), LOCKED);
    EXPECT_EQ(ssh_add(agent, "-X", "agent secret"), 0);
    EXPECT_EQ(client.request(IS_LOCKED), UNLOCKED);

    // Locking with the agent passphrase itself, then unlocking with it.
    EXPECT_EQ(ssh_add(agent, "-x", "agent secret"), 0);
    EXPECT_EQ(client.request(IS_LOCKED), LOCKED);
    EXPECT_EQ(ssh_add(agent, "-X", "agent secret"), 0);
    EXPECT_EQ(client.request(IS_LOCKED), UNLOCKED);
}

TEST(AgentLock, SmallRequestsOverTheSocket)
{
    AgentProcess agent;
    agent.set_extra_args({"--passphrase-file", write_passphrase_file(agent, "pw\n")});
    ASSERT_TRUE(agent.start());
    AgentClient client(agent.socket_path());

    EXPECT_EQ(client.request(with_string(159, "")), hex_bytes("00000001 66"));  // AttemptEmpty is off
    EXPECT_EQ(client.request(with_string(212, "abc")), hex_bytes("00000004 96 616263"));
    EXPECT_EQ(client.request(with_string(212, std::string("a\0bc", 4))), hex_bytes("00000002 96 61"));
    EXPECT_EQ(client.request(frame(hex_bytes("d4"))), hex_bytes("00000001 96"));
    EXPECT_EQ(client.request(with_string(1, "client 1.0")), hex_bytes("00000005 67 00000002"));
    EXPECT_EQ(client.request(frame(hex_bytes("9c 1122334455667788 00000007"))),
              hex_bytes("00000008 1122334455667788"));

    // The plain forwarding notice is not answered: the next reply is the ping's.
    Buffer plain;
    buffer_put_char(&plain, 206);
    buffer_put_cstring(&plain, "jump");
    buffer_put_cstring(&plain, "192.0.2.1");
    buffer_put_int(&plain, 22);
    client.send_bytes(frame(buffer_bytes(plain)));
    EXPECT_EQ(client.request(with_string(212, "x")), hex_bytes("00000002 96 78"));

    // Two vendor notices on one connection make a chain of 2 (the plain one
    // went to the same connection, so a fresh one is used).
    AgentClient vendor(agent.socket_path());
    Buffer notice;
    buffer_put_char(&notice, 158);
    buffer_put_cstring(&notice, "gate");
    buffer_put_cstring(&notice, "192.0.2.2");
    buffer_put_int(&notice, 22);
    buffer_put_int(&notice, 3);
    buffer_put_int(&notice, 0);
    buffer_put_int(&notice, 0x13);
    buffer_put_int64(&notice, 77);
    buffer_put_int(&notice, 0);
    EXPECT_EQ(vendor.request(frame(buffer_bytes(notice))), hex_bytes("00000001 06"));
    EXPECT_EQ(vendor.request(frame(buffer_bytes(notice))), hex_bytes("00000001 06"));
    EXPECT_EQ(agent.stop(), 0);
    std::string log = agent.log_text();
    EXPECT_NE(log.find("keyagent: Agent forwarding notice: jump (192.0.2.1) port 22"), std::string::npos);
    EXPECT_NE(log.find("keyagent: Forwarding chain length: 2"), std::string::npos);
    EXPECT_NE(log.find("keyagent: Client version string : client 1.0"), std::string::npos);
}
