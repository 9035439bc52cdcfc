// Hostile, slow and concurrent clients while tagent changes the agent's
// state.
#include <gtest/gtest.h>

#include <thread>

#include "app/posix/unix_socket.h"
#include "support/agent_process.h"
#include "support/requests.h"
#include "support/tool_run.h"

// A control client that dribbles its request and a hundred agent clients
// that send nothing or half a request hold up no new client. A client that
// sends many requests and reads none of the replies until later gets every
// reply in order, and holds nobody up meanwhile; the 256th connection at
// once is refused, and its place is free again once another client leaves.
// Bytes that the reading rules find impossible end only their own client's
// connection, on every message that reads a string. Then several clients
// list and sign while tagent locks, unlocks, changes settings and the agent
// passphrase: every reply is well-formed and right for some state the agent
// was in. Built under ThreadSanitizer, this is the check that the agent's
// state has one owner.
TEST(StateOwner, HostileSlowAndConcurrentClientsWithControlCommands)
{
    AgentProcess agent({"--empty-passphrase"});
    ASSERT_TRUE(agent.start()) << agent.log_text();
    AgentClient bystander(agent.socket_path());
    for (const char *hostile : {"0000000d 0d 7fffffff 00000000 00000000", "00000005 0d 7fffffff",
                                "00000005 11 7fffffff", "00000005 ca 7fffffff", "00000005 99 7fffffff"}) {
        AgentClient client(agent.socket_path());
        EXPECT_EQ(client.request(hex_bytes(hostile)), Bytes()) << hostile;
        EXPECT_EQ(client.request(QUICK_REQUEST), Bytes()) << "the connection stays open after " << hostile;
        EXPECT_EQ(bystander.request(QUICK_REQUEST), QUICK_REPLY);
    }

    int dribbler = unix_socket_connect(agent.control_path());
    ASSERT_EQ(write(dribbler, "\0", 1), 1);
    std::vector<std::unique_ptr<AgentClient>> clients;
    for (int i = 0; i < 100; ++i) {
        clients.push_back(std::make_unique<AgentClient>(agent.socket_path()));
        if (i % 2)
            clients.back()->send_bytes(hex_bytes("00000010 0b"));
    }
    EXPECT_EQ(AgentClient(agent.socket_path()).request(QUICK_REQUEST), QUICK_REPLY);
    close(dribbler);
    clients.clear();

    constexpr int FLOOD = 60000;  // replies far beyond a socket's buffer
    AgentClient flooder(agent.socket_path());
    Bytes requests;
    for (int i = 0; i < FLOOD; ++i) {
        Bytes one = i % 2 ? frame(hex_bytes("0b")) : QUICK_REQUEST;
        requests.insert(requests.end(), one.begin(), one.end());
    }
    std::thread sender([&] { flooder.send_bytes(requests); });
    AgentClient other(agent.socket_path());
    EXPECT_EQ(other.request(QUICK_REQUEST), QUICK_REPLY);
    int in_order = 0;
    for (int i = 0; i < FLOOD; ++i)
        in_order += flooder.read_reply() == (i % 2 ? hex_bytes("00000005 0c 00000000") : QUICK_REPLY);
    sender.join();
    EXPECT_EQ(in_order, FLOOD);

    for (int i = 0; i < 252; ++i)  // with `bystander`, `flooder` and `other`, 255
        clients.push_back(std::make_unique<AgentClient>(agent.socket_path()));
    for (auto &client : clients)
        ASSERT_EQ(client->request(QUICK_REQUEST), QUICK_REPLY);
    AgentClient refused(agent.socket_path());
    EXPECT_TRUE(refused.closed_by_peer());
    clients.pop_back();
    EXPECT_EQ(other.request(QUICK_REQUEST), QUICK_REPLY);  // the departure is seen
    EXPECT_EQ(AgentClient(agent.socket_path()).request(QUICK_REQUEST), QUICK_REPLY);
    clients.clear();

    std::string key = make_key(agent, "key", "ecdsa");
    ASSERT_EQ(run_tagent(agent, {"add", key}).status, 0);
    Bytes blob = public_line_blob(key + ".pub");
    std::string old_file = write_text(agent, "first.txt", "\n");
    std::string new_file = write_text(agent, "second.txt", "second passphrase\n");

    // A list answer holds no identity (locked) or the one key; a sign answer
    // is a signature (unlocked) or the locked agent's answer. A client that
    // cannot connect gets no answer at all.
    std::vector<int> errors(4, 0);
    std::vector<std::thread> workers;
    for (size_t i = 0; i < errors.size(); ++i)
        workers.emplace_back([&, i] {
            AgentClient client(agent.socket_path());
            for (int round = 0; round < 150; ++round) {
                Bytes list = client.request(frame(hex_bytes("0b")));
                errors[i] += !(list.size() >= 9 && list[4] == 12 && (list[8] == 0 || list[8] == 1));
                Bytes signature = client.request(sign_request(blob, "data to sign"));
                errors[i] += !(signature.size() >= 5 && (signature[4] == 14 || signature == LOCKED));
            }
        });
    int control_failures = 0;
    for (int round = 0; round < 6; ++round) {
        control_failures += run_tagent(agent, {"lock"}).status != 0;
        control_failures += run_tagent(agent, {"unlock", "--passphrase-file", old_file}).status != 0;
        control_failures += run_tagent(agent, {"set", "UseOnlySha1", round % 2 ? "no" : "yes"}).status != 0;
        control_failures +=
            run_tagent(agent, {"passphrase", "--old-file", old_file, "--new-file", new_file}).status != 0;
        std::swap(old_file, new_file);
    }
    for (auto &worker : workers)
        worker.join();
    EXPECT_EQ(control_failures, 0);
    EXPECT_EQ(errors, std::vector<int>(4, 0));
    EXPECT_EQ(run_tagent(agent, {"stop"}).status, 0);
    EXPECT_EQ(agent.stop(0), 0);
    EXPECT_FALSE(std::filesystem::exists(agent.socket_path()));
    for (const char *line : {"buffer_get_string: bad string length 2147483647",
                             "keyagent: Refused a client: 255 connections are open already"})
        EXPECT_TRUE(has(agent.log_text(), line)) << line;
}
