#include <gtest/gtest.h>

#include <utility>

#include "agent/handlers.h"
#include "app/message_processor.h"
#include "support/bytes.h"
#include "support/log_capture.h"

// The message thread starts after the crypto module and the PKI layer and
// stops before them; a request submitted from another thread gets its whole
// reply, zero bytes an empty reply of length 0. Many clients at once are the
// POSIX agent's state owner test.
TEST(MessageProcessor, SubmittedRequestsAndAnOrderlyStop)
{
    LogCapture log;
    agent_set_locked(false);
    message_processor_start();
    EXPECT_TRUE(log.contains("keyagent: Process message thread started."));
    EXPECT_LT(log.index_of("Crypto initialization"), log.index_of("PKI creation"));

    uint8_t reply[131072];
    for (const auto &[request, expected] :
         {std::pair{hex_bytes("000000"), Bytes()}, {frame(hex_bytes("d5")), hex_bytes("00000001 66")}}) {
        uint32_t length = 99;
        int32_t protocol = 0;
        submit_client_request(request.data(), static_cast<uint32_t>(request.size()), reply, sizeof reply, &length,
                              &protocol, nullptr, 1);
        EXPECT_EQ(Bytes(reply, reply + length), expected);
        EXPECT_TRUE(expected.empty() || protocol == 2);
    }

    message_processor_stop();
    int pki = log.index_of("keyagent: PKI delete");
    EXPECT_TRUE(pki >= 0 && pki < log.index_of("keyagent: Crypto cleanup"));
    agent_set_locked(true);
}
