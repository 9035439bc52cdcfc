#include <gtest/gtest.h>

#include "agent/handlers.h"
#include "agent/protocol.h"
#include "support/dispatch_helper.h"
#include "support/log_capture.h"

namespace {

struct LockGuard {
    explicit LockGuard(bool locked) : before(agent_is_locked()) { agent_set_locked(locked); }
    ~LockGuard() { agent_set_locked(before); }
    bool before;
};

}  // namespace

TEST(Dispatch, FramingRefusesShortOversizedAndIncompleteInput)
{
    LogCapture log;
    LockGuard unlocked(false);
    for (const Bytes &input : {hex_bytes("00000001"), hex_bytes("00000005 0b"), hex_bytes("")}) {
        log.clear();
        EXPECT_TRUE(dispatch_bytes(input).reply.empty());
        EXPECT_TRUE(log.contains("keyagent: Incomplete client request ignored"));
    }
    log.clear();
    DispatchResult big = dispatch_bytes(hex_bytes("00040001 0b"));
    EXPECT_TRUE(big.reply.empty());
    EXPECT_EQ(big.type, 0);  // the context is closed
    EXPECT_TRUE(log.contains("keyagent: Client request too large. Ignored"));
    EXPECT_FALSE(log.contains("Processing client request"));

    // A zero length followed by one byte is message 0: unknown.
    EXPECT_EQ(dispatch_bytes(hex_bytes("00000000 ff")).reply, hex_bytes("00000001 05"));
}

TEST(Dispatch, UnknownMessagesAnswerTheirFamilysFailure)
{
    LogCapture log;
    LockGuard unlocked(false);
    DispatchResult challenge = dispatch_bytes(request_hex("03"));
    EXPECT_EQ(challenge.reply, hex_bytes("00000001 05"));
    EXPECT_EQ(challenge.agent_protocol, 1);
    auto lines = log.lines();
    ASSERT_GE(lines.size(), 3u);
    EXPECT_EQ(lines[0], "keyagent: Processing client request SSH_AGENTC_RSA_CHALLENGE (3)");
    EXPECT_EQ(lines[1], "error: Unknown message 3");
    EXPECT_EQ(lines[2], "keyagent: Done processing client request SSH_AGENTC_RSA_CHALLENGE (3)");

    DispatchResult random = dispatch_bytes(request_hex("d5"));
    EXPECT_EQ(random.reply, hex_bytes("00000001 66"));
    EXPECT_EQ(random.agent_protocol, 2);
    EXPECT_EQ(dispatch_bytes(request_hex("ff")).reply, hex_bytes("00000001 66"));
    EXPECT_TRUE(log.contains("Processing client request (generic) (255)"));

    // Two requests in one read: only the first is answered.
    Bytes two = request_hex("03");
    Bytes second = request_hex("d5");
    two.insert(two.end(), second.begin(), second.end());
    EXPECT_EQ(dispatch_bytes(two).reply, hex_bytes("00000001 05"));
}

TEST(Dispatch, LockedAgentServesOnlyItsTable)
{
    LogCapture log;
    LockGuard locked(true);
    for (int number : {7, 8, 9, 17, 18, 19, 22, 24, 25, 152, 153, 202, 203, 205, 207, 208, 212}) {
        log.clear();
        char hex[3];
        snprintf(hex, sizeof hex, "%02x", number);
        DispatchResult result = dispatch_bytes(request_hex(hex));
        EXPECT_EQ(result.reply, hex_bytes(number < 201 ? "00000001 05" : "00000001 66")) << number;
        EXPECT_TRUE(log.contains("Received a request for unknown message type (" + std::to_string(number) + ")"));
        EXPECT_FALSE(log.contains("Done processing")) << number;
    }
    log.clear();
    dispatch_bytes(request_hex("0b"));
    EXPECT_TRUE(log.contains("keyagent: Received a request for identities"));
    dispatch_bytes(request_hex("01"));
    EXPECT_TRUE(log.contains("keyagent: Assuming version 1"));
    EXPECT_TRUE(log.contains("keyagent: Received a request for RSA identities"));
    dispatch_bytes(request_hex("97"));
    EXPECT_TRUE(log.contains("keyagent: Received a request for islocked"));
    dispatch_bytes(request_hex("9c"));
    EXPECT_TRUE(log.contains("keyagent: Received a request for ZEM register refresh"));
    dispatch_bytes(request_hex("9d"));
    EXPECT_TRUE(log.contains("keyagent: Received a request for unregister refresh"));
}

TEST(Dispatch, RequestNamesCoverTheTable)
{
    EXPECT_STREQ(request_name(1), "SSH_AGENT_REQUEST_VERSION/SSH_AGENTC_REQUEST_RSA_IDENTITIES");
    EXPECT_STREQ(request_name(24), "(generic)");
    EXPECT_STREQ(request_name(25), "(generic)");
    EXPECT_STREQ(request_name(160), "SSH2_AGENTC_ZEM_SIGN_REQUEST");
    EXPECT_STREQ(request_name(213), "SSH_AGENT_RANDOM");
    EXPECT_STREQ(request_name(301), "(generic)");
}
