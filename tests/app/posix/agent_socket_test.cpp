#include <gtest/gtest.h>

#include <sys/stat.h>

#include "app/posix/control_client.h"
#include "app/posix/unix_socket.h"
#include "app/window_messages.h"
#include "support/agent_process.h"

TEST(AgentSocket, FramingOverTheRealSocket)
{
    AgentProcess agent;
    ASSERT_TRUE(agent.start()) << agent.log_text();

    struct stat st;
    ASSERT_EQ(stat(agent.socket_path().c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 0777, 0600u);
    ASSERT_EQ(stat((agent.root() / "run").c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 0777, 0700u);

    AgentClient client(agent.socket_path());
    ASSERT_TRUE(client.connected());
    // Two requests in one write are both answered on this transport.
    Bytes two = frame(hex_bytes("d5"));
    Bytes zero_length = hex_bytes("00000000");
    Bytes ping = frame(hex_bytes("d5"));
    two.insert(two.end(), zero_length.begin(), zero_length.end());
    two.insert(two.end(), ping.begin(), ping.end());
    client.send_bytes(two);
    EXPECT_EQ(client.read_reply(), hex_bytes("00000001 66"));
    EXPECT_EQ(client.read_reply(), hex_bytes("00000001 66"));

    // An oversized request is refused without an answer; its body is read
    // and thrown away, and the next request is served.
    Bytes oversized = hex_bytes("00040001");
    oversized.resize(4 + 0x40001, 0x0b);
    client.send_bytes(oversized);
    EXPECT_EQ(client.request(frame(hex_bytes("d5"))), hex_bytes("00000001 66"));

    // A request split across writes is joined.
    client.send_bytes(hex_bytes("00"));
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    client.send_bytes(hex_bytes("000001 d5"));
    EXPECT_EQ(client.read_reply(), hex_bytes("00000001 66"));

    EXPECT_EQ(agent.stop(), 0);
    std::string log = agent.log_text();
    EXPECT_NE(log.find("keyagent: Client request too large. Ignored"), std::string::npos);
    EXPECT_NE(log.find("keyagent: Key Agent stopped ==========="), std::string::npos);
    EXPECT_NE(log.find("keyagent: Process message thread stopped."), std::string::npos);
    EXPECT_FALSE(std::filesystem::exists(agent.socket_path()));
    EXPECT_FALSE(std::filesystem::exists(agent.root() / "run" / "agent.lock"));
}

TEST(AgentSocket, SingleInstanceAndPrivateFolders)
{
    AgentProcess agent;
    ASSERT_TRUE(agent.start());
    // A second start prints the running agent's lines and exits 0.
    std::vector<std::string> args = agent.base_args();
    args.push_back("-s");
    ProgramRun second = run_program(agent, args);
    EXPECT_EQ(second.status, 0);
    const std::string &printed = second.output;
    EXPECT_NE(printed.find("SSH_AUTH_SOCK=" + agent.socket_path() + "; export SSH_AUTH_SOCK;"), std::string::npos);
    EXPECT_NE(printed.find("SSH_AGENT_PID=" + std::to_string(agent.pid())), std::string::npos);
    EXPECT_NE(printed.find("Key Agent already running. Exit."), std::string::npos);
    EXPECT_EQ(agent.stop(SIGINT), 0);

    // A data folder open to others is refused with exit status 1.
    std::filesystem::create_directories(agent.data_dir());
    chmod(agent.data_dir().c_str(), 0755);
    ProgramRun refused = run_program(agent, agent.base_args());
    EXPECT_EQ(refused.status, 1);
    EXPECT_NE(refused.output.find("has mode 755"), std::string::npos);
}

TEST(AgentSocket, ControlSocketAnswersAndStopsTheAgent)
{
    AgentProcess agent;
    ASSERT_TRUE(agent.start());
    std::string control = (agent.root() / "run" / "control.sock").string();
    struct stat st;
    ASSERT_EQ(stat(control.c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 0777, 0600u);

    ControlRequest ready;
    ready.message = WM_QUERY_READY;
    int64_t result = -1;
    ASSERT_TRUE(control_call(control, ready, &result));
    EXPECT_EQ(result, 1);

    // -k stops the agent through the control socket.
    EXPECT_EQ(run_program(agent, {TKEYAGENT_PATH, "-k", "-a", agent.socket_path()}).status, 0);
    EXPECT_EQ(agent.wait_for_exit(), 0);
    EXPECT_NE(agent.log_text().find("Key agent is ready to create pipe connections."), std::string::npos);
    EXPECT_FALSE(std::filesystem::exists(control));
    EXPECT_FALSE(std::filesystem::exists(agent.socket_path()));

    // With no agent running, -k says so and exits 2.
    ProgramRun none = run_program(agent, {TKEYAGENT_PATH, "-k", "-a", agent.socket_path()});
    EXPECT_EQ(none.status, 2);
    EXPECT_NE(none.output.find("no agent is running"), std::string::npos);
}

// Bytes that the reading rules find impossible end only their own client's
// connection, on every message that reads a string, locked or not.
TEST(AgentSocket, HostileRequestsCloseOnlyTheirConnection)
{
    AgentProcess agent;
    ASSERT_TRUE(agent.start()) << agent.log_text();
    AgentClient bystander(agent.socket_path());
    for (const char *hostile : {"0000000d 0d 7fffffff 00000000 00000000", "00000005 0d 7fffffff",
                                "00000005 11 7fffffff", "00000005 ca 7fffffff", "00000005 99 7fffffff"}) {
        AgentClient client(agent.socket_path());
        EXPECT_EQ(client.request(hex_bytes(hostile)), Bytes()) << hostile;
        EXPECT_EQ(client.request(frame(hex_bytes("d5"))), Bytes()) << "the connection stays open after " << hostile;
        EXPECT_EQ(bystander.request(frame(hex_bytes("d5"))), hex_bytes("00000001 66"));
    }
    EXPECT_NE(agent.log_text().find("buffer_get_string: bad string length 2147483647"), std::string::npos);
    EXPECT_EQ(agent.stop(), 0);
}

// A control client that dribbles its request and a hundred agent clients
// that send nothing or half a request hold up no new client.
TEST(AgentSocket, SlowAndSilentClientsDelayNobody)
{
    AgentProcess agent;
    ASSERT_TRUE(agent.start()) << agent.log_text();
    int dribbler = unix_socket_connect((agent.root() / "run" / "control.sock").string());
    ASSERT_GE(dribbler, 0);
    ASSERT_EQ(write(dribbler, "\0", 1), 1);
    std::vector<std::unique_ptr<AgentClient>> idle;
    for (int i = 0; i < 100; ++i) {
        idle.push_back(std::make_unique<AgentClient>(agent.socket_path()));
        if (i % 2)
            idle.back()->send_bytes(hex_bytes("00000010 0b"));
    }
    AgentClient fresh(agent.socket_path());
    EXPECT_EQ(fresh.request(frame(hex_bytes("d5"))), hex_bytes("00000001 66"));
    close(dribbler);
}

// A client that sends many requests and reads none of the replies until
// later gets every reply in order, and holds nobody up meanwhile; the 256th
// connection at once is refused, and its place is free again once another
// client leaves.
TEST(AgentSocket, UnreadRepliesWaitAndTheConnectionLimitHolds)
{
    AgentProcess agent;
    ASSERT_TRUE(agent.start()) << agent.log_text();
    constexpr int FLOOD = 60000;  // replies far beyond a socket's buffer
    AgentClient flooder(agent.socket_path());
    Bytes requests;
    for (int i = 0; i < FLOOD; ++i) {
        Bytes one = frame(hex_bytes(i % 2 ? "0b" : "d5"));
        requests.insert(requests.end(), one.begin(), one.end());
    }
    std::thread sender([&] { flooder.send_bytes(requests); });
    AgentClient other(agent.socket_path());
    EXPECT_EQ(other.request(frame(hex_bytes("d5"))), hex_bytes("00000001 66"));
    int in_order = 0;
    for (int i = 0; i < FLOOD; ++i)
        in_order += flooder.read_reply() == (i % 2 ? hex_bytes("00000005 0c 00000000") : hex_bytes("00000001 66"));
    sender.join();
    EXPECT_EQ(in_order, FLOOD);

    std::vector<std::unique_ptr<AgentClient>> clients;
    for (int i = 0; i < 253; ++i)  // with `flooder` and `other`, 255
        clients.push_back(std::make_unique<AgentClient>(agent.socket_path()));
    for (auto &client : clients)
        ASSERT_EQ(client->request(frame(hex_bytes("d5"))), hex_bytes("00000001 66"));
    AgentClient refused(agent.socket_path());
    EXPECT_TRUE(refused.closed_by_peer());
    clients.pop_back();
    EXPECT_EQ(other.request(frame(hex_bytes("d5"))), hex_bytes("00000001 66"));  // the departure is seen
    AgentClient admitted(agent.socket_path());
    EXPECT_EQ(admitted.request(frame(hex_bytes("d5"))), hex_bytes("00000001 66"));
    EXPECT_EQ(agent.stop(), 0);
    EXPECT_NE(agent.log_text().find("keyagent: Refused a client: 255 connections are open already"),
              std::string::npos);
}
