#include <gtest/gtest.h>

#include "support/agent_state.h"
#include "support/dispatch_helper.h"
#include "support/identity_fixture.h"
#include "support/log_capture.h"

namespace {

using Dispatch = UnlockedAgentTest;

// A request frame whose length field says `length`, followed by `length`
// bytes of a list request and padding.
Bytes list_request_of_length(uint32_t length)
{
    Bytes body(length, 0);
    body[0] = 11;
    return frame(body);
}

}  // namespace

TEST_F(Dispatch, FramingLimitsOnBothSides)
{
    LogCapture log;
    struct Case { Bytes input; const char *reply_hex; const char *line; };
    const Case cases[] = {
        {hex_bytes(""), "", "Incomplete client request ignored"},
        {hex_bytes("00000001"), "", "Incomplete client request ignored"},        // 4 bytes: under 5
        {hex_bytes("00000000 ff"), "00000001 05", "Processing client request"},  // 5 bytes: message 0
        {hex_bytes("00000002 0b"), "", "Incomplete client request ignored"},     // one byte short
        {hex_bytes("00000002 0b00"), "00000005 0c 00000000", "Processing client request"},
        {list_request_of_length(0x40000), "00000005 0c 00000000", "Processing client request"},
        {hex_bytes("00040001 0b"), "", "keyagent: Client request too large. Ignored"},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.line);
        log.clear();
        DispatchResult result = dispatch_bytes(c.input);
        EXPECT_EQ(result.reply, hex_bytes(c.reply_hex));
        EXPECT_TRUE(log.contains(c.line));
    }
    // A request too large closes the connection's context.
    EXPECT_EQ(dispatch_bytes(hex_bytes("00040001 0b")).type, 0);
    EXPECT_EQ(dispatch_bytes(list_request_of_length(0x40000)).type, AUTH_CONNECTION);

    // Two requests in one read: only the first is answered.
    Bytes two = request_hex("03");
    Bytes second = request_hex("d5");
    two.insert(two.end(), second.begin(), second.end());
    EXPECT_EQ(dispatch_bytes(two).reply, hex_bytes("00000001 05"));
}

// Replies up to 128 KiB go out; a larger one becomes a failure.
TEST_F(Dispatch, ReplyLimitOnBothSides)
{
    Identity *identity = add_test_identity(key_generate(KEY_ED25519, 0), "x", "ed");
    size_t base = dispatch_bytes(request_hex("0b")).reply.size();
    identity->comment = std::string(1 + 131072 - base, 'c');
    Bytes reply = dispatch_bytes(request_hex("0b")).reply;
    EXPECT_EQ(reply.size(), 131072u);
    EXPECT_EQ(reply[4], 12);
    identity->comment = std::string(2 + 131072 - base, 'c');
    LogCapture log;
    EXPECT_EQ(dispatch_bytes(request_hex("0b")).reply, hex_bytes("00000001 05"));
    EXPECT_TRUE(log.contains("Reply of 131073 bytes exceeds the 131072-byte limit; answering failure"));
}

TEST_F(Dispatch, UnknownMessagesAnswerTheirFamilysFailure)
{
    LogCapture log;
    DispatchResult challenge = dispatch_bytes(request_hex("03"));
    EXPECT_EQ(challenge.reply, hex_bytes("00000001 05"));
    EXPECT_EQ(challenge.agent_protocol, 1);
    EXPECT_EQ(log.lines(), (std::vector<std::string>{
                               "keyagent: Processing client request SSH_AGENTC_RSA_CHALLENGE (3)",
                               "error: Unknown message 3",
                               "keyagent: Done processing client request SSH_AGENTC_RSA_CHALLENGE (3)"}));
    // Numbers from 201 on are version 2 messages.
    for (auto [number, hex, protocol] : {std::tuple{200, "c8", 1}, {201, "c9", 2}, {213, "d5", 2}, {255, "ff", 2}}) {
        DispatchResult r = dispatch_bytes(request_hex(hex));
        EXPECT_EQ(r.reply, hex_bytes(protocol == 1 ? "00000001 05" : "00000001 66")) << number;
        EXPECT_EQ(r.agent_protocol, protocol) << number;
    }
    EXPECT_TRUE(log.contains("Processing client request SSH_AGENT_RANDOM (213)"));
    EXPECT_TRUE(log.contains("Processing client request (generic) (255)"));
}

TEST_F(Dispatch, LockedAgentServesOnlyItsTable)
{
    LogCapture log;
    agent_set_locked(true);
    for (int number : {7, 8, 9, 17, 18, 19, 22, 24, 25, 152, 153, 202, 203, 205, 207, 208, 212}) {
        log.clear();
        char hex[3];
        snprintf(hex, sizeof hex, "%02x", number);
        EXPECT_EQ(dispatch_bytes(request_hex(hex)).reply, hex_bytes(number < 201 ? "00000001 05" : "00000001 66"))
            << number;
        EXPECT_TRUE(log.contains("Received a request for unknown message type (" + std::to_string(number) + ")"));
        EXPECT_FALSE(log.contains("Done processing")) << number;
    }
    struct Served { const char *hex; const char *reply_hex; const char *line; };
    for (const Served &s : {Served{"0b", "00000005 0c 00000000", "keyagent: Received a request for identities"},
                            {"9b", "00000005 0c 00000000", "keyagent: Received a request for identities"},
                            {"01", "00000005 02 00000000", "keyagent: Assuming version 1"},
                            {"9a", "00000005 02 00000000", "keyagent: Received a request for RSA identities"},
                            {"97", "00000001 aa", "keyagent: Received a request for islocked"},
                            {"0d", "00000001 aa", "SSH2_AGENTC_SIGN_REQUEST (13)"},
                            {"a0", "00000001 aa", "keyagent: Processing client request"},
                            {"cc", "00000005 68 00000000", "keyagent: Processing client request SSH_AGENT_LIST_KEYS"}}) {
        log.clear();
        EXPECT_EQ(dispatch_bytes(request_hex(s.hex)).reply, hex_bytes(s.reply_hex)) << s.hex;
        EXPECT_TRUE(log.contains(s.line)) << s.hex;
    }
}

TEST(RequestNames, LogNamesOfTheMessages)
{
    for (auto [number, name] : {std::pair{1u, "SSH_AGENT_REQUEST_VERSION/SSH_AGENTC_REQUEST_RSA_IDENTITIES"},
                                {24u, "(generic)"}, {25u, "(generic)"}, {160u, "SSH2_AGENTC_ZEM_SIGN_REQUEST"},
                                {213u, "SSH_AGENT_RANDOM"}, {301u, "(generic)"}})
        EXPECT_STREQ(request_name(number), name) << number;
}
