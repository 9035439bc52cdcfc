// Several clients list and sign while tagent locks, unlocks, changes
// settings and the agent passphrase: every reply is well-formed and right
// for some state the agent was in. Built under ThreadSanitizer, this is the
// check that the agent's state has one owner.
#include <gtest/gtest.h>

#include <thread>

#include "support/agent_process.h"
#include "support/requests.h"
#include "support/tool_run.h"

namespace {

// A list answer holds no identity (locked) or the one key; a sign answer is
// a signature (unlocked) or the locked agent's answer (170).
int client_errors(const std::string &socket, const Bytes &blob, int rounds)
{
    AgentClient client(socket);
    int errors = 0;  // a client that cannot connect gets no answer at all
    for (int i = 0; i < rounds; ++i) {
        Bytes list = client.request(frame(hex_bytes("0b")));
        errors += !(list.size() >= 9 && list[4] == 12 && (list[8] == 0 || list[8] == 1));
        Bytes signature = client.request(sign_request(blob, "data to sign"));
        errors += !(signature.size() >= 5 && (signature[4] == 14 || signature == hex_bytes("00000001 aa")));
    }
    return errors;
}

}  // namespace

TEST(StateOwner, ClientsAndControlCommandsInterleave)
{
    AgentProcess agent({"--empty-passphrase"});
    ASSERT_TRUE(agent.start()) << agent.log_text();
    std::string key = make_key(agent, "key", "ecdsa");
    ASSERT_EQ(run_tagent(agent, {"add", key}).status, 0);
    Bytes blob = public_line_blob(key + ".pub");
    std::string old_file = write_text(agent, "first.txt", "\n");
    std::string new_file = write_text(agent, "second.txt", "second passphrase\n");

    std::vector<int> errors(4, 0);
    std::vector<std::thread> clients;
    for (size_t i = 0; i < errors.size(); ++i)
        clients.emplace_back([&, i] { errors[i] = client_errors(agent.socket_path(), blob, 150); });
    int control_failures = 0;
    for (int round = 0; round < 6; ++round) {
        control_failures += run_tagent(agent, {"lock"}).status != 0;
        control_failures += run_tagent(agent, {"unlock", "--passphrase-file", old_file}).status != 0;
        control_failures += run_tagent(agent, {"set", "UseOnlySha1", round % 2 ? "no" : "yes"}).status != 0;
        control_failures +=
            run_tagent(agent, {"passphrase", "--old-file", old_file, "--new-file", new_file}).status != 0;
        std::swap(old_file, new_file);
    }
    for (auto &client : clients)
        client.join();
    EXPECT_EQ(control_failures, 0);
    EXPECT_EQ(errors, std::vector<int>(4, 0));

    // The key store follows the last passphrase: a restart unlocks with it
    // and signs.
    EXPECT_EQ(run_tagent(agent, {"stop"}).status, 0);
    EXPECT_EQ(agent.wait_for_exit(), 0);
    agent.set_extra_args({"--passphrase-file", old_file});
    ASSERT_TRUE(agent.start()) << agent.log_text();
    Bytes signature = AgentClient(agent.socket_path()).request(sign_request(blob, "data to sign"));
    ASSERT_GE(signature.size(), 5u);
    EXPECT_EQ(signature[4], 14) << agent.log_text();
}
