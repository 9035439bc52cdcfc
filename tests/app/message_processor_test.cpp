#include <gtest/gtest.h>

#include <thread>
#include <vector>

#include "agent/handlers.h"
#include "app/message_processor.h"
#include "support/bytes.h"
#include "support/log_capture.h"

TEST(MessageProcessor, SerialisesSubmittersAndStopsCleanly)
{
    LogCapture log;
    agent_set_locked(false);
    message_processor_start();
    EXPECT_TRUE(log.contains("keyagent: Process message thread started."));
    EXPECT_LT(log.index_of("Crypto initialization"), log.index_of("PKI creation"));

    // Requests from several threads at once: each gets its own whole reply.
    // Zero bytes give an empty reply of length 0.
    constexpr int clients = 4, requests = 25;
    std::vector<std::thread> threads;
    std::vector<int> good(clients, 0);
    for (int c = 0; c < clients; ++c) {
        threads.emplace_back([&, c] {
            Bytes request = c == 0 ? hex_bytes("000000") : frame(hex_bytes("d5"));
            Bytes expected = c == 0 ? Bytes() : hex_bytes("00000001 66");
            uint8_t reply[131072];
            for (int i = 0; i < requests; ++i) {
                uint32_t length = 99;
                int32_t protocol = 0;
                submit_client_request(request.data(), static_cast<uint32_t>(request.size()), reply, sizeof reply,
                                      &length, &protocol, nullptr, static_cast<uint64_t>(c + 1));
                good[c] += Bytes(reply, reply + length) == expected && (c == 0 || protocol == 2);
            }
        });
    }
    for (auto &t : threads)
        t.join();
    EXPECT_EQ(good, std::vector<int>(clients, requests));

    message_processor_stop();
    int pki = log.index_of("keyagent: PKI delete");
    int crypto = log.index_of("keyagent: Crypto cleanup");
    int stopped = log.index_of("keyagent: Process message thread stopped.");
    EXPECT_TRUE(pki >= 0 && pki < crypto && crypto < stopped);
    agent_set_locked(true);
}
