#include <gtest/gtest.h>

#include <utility>

#include "agent/handlers.h"
#include "app/message_processor.h"
#include "platform/platform.h"
#include "support/bytes.h"
#include "support/log_capture.h"

#if !defined(_WIN32)
#include <sched.h>

namespace {
int allowed_cores()
{
    cpu_set_t cores;
    return sched_getaffinity(0, sizeof cores, &cores) == 0 ? CPU_COUNT(&cores) : -1;
}
}  // namespace
#endif

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

    // Sharing a core binds the caller at once and the message thread from
    // its next piece of work on; ending it frees both.
    message_processor_share_core(true);
    int core = platform_current_core();
    EXPECT_EQ(on_message_thread<int>([] { return platform_current_core(); }), core);
    message_processor_share_core(false);
#if !defined(_WIN32)
    EXPECT_EQ(on_message_thread<int>(allowed_cores), allowed_cores());
    EXPECT_GE(allowed_cores(), 1);
#endif

    message_processor_stop();
    int pki = log.index_of("keyagent: PKI delete");
    EXPECT_TRUE(pki >= 0 && pki < log.index_of("keyagent: Crypto cleanup"));
    agent_set_locked(true);
}
