#include <gtest/gtest.h>

#include "support/agent_state.h"
#include "support/dispatch_helper.h"
#include "support/identity_fixture.h"
#include "support/log_capture.h"

using Dispatch = UnlockedAgentTest;

TEST_F(Dispatch, FramingLimitsOnBothSides)
{
    LogCapture log;
    Bytes largest(4 + 0x40000, 0);  // a list request padded to the 256 KiB limit
    largest[1] = 4, largest[4] = 11;
    Bytes two = request_hex("03"), second = request_hex("d5");
    two.insert(two.end(), second.begin(), second.end());
    struct Case { Bytes input; const char *reply_hex; const char *line; int type; };
    const Case cases[] = {
        {hex_bytes(""), "", "Incomplete client request ignored", AUTH_CONNECTION},
        {hex_bytes("00000001"), "", "Incomplete client request ignored", AUTH_CONNECTION},  // 4 bytes: under 5
        {hex_bytes("00000000 ff"), "00000001 05", "Processing client request", AUTH_CONNECTION},  // message 0
        {hex_bytes("00000002 0b"), "", "Incomplete client request ignored", AUTH_CONNECTION},     // one byte short
        {hex_bytes("00000002 0b00"), "00000005 0c 00000000", "Processing client request", AUTH_CONNECTION},
        {largest, "00000005 0c 00000000", "Processing client request", AUTH_CONNECTION},
        // One byte over closes the connection's context.
        {hex_bytes("00040001 0b"), "", "keyagent: Client request too large. Ignored", 0},
        {two, "00000001 05", "SSH_AGENTC_RSA_CHALLENGE (3)", AUTH_CONNECTION},  // only the first is answered
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.line);
        log.clear();
        DispatchResult result = dispatch_bytes(c.input);
        EXPECT_EQ(result.reply, hex_bytes(c.reply_hex));
        EXPECT_EQ(result.type, c.type);
        EXPECT_TRUE(log.contains(c.line));
    }
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

// Unknown numbers answer their family's failure: from 201 on, version 2.
TEST_F(Dispatch, UnknownMessagesAnswerTheirFamilysFailure)
{
    LogCapture log;
    EXPECT_EQ(dispatch_bytes(request_hex("03")).reply, hex_bytes("00000001 05"));
    EXPECT_EQ(log.lines(), (std::vector<std::string>{
                               "keyagent: Processing client request SSH_AGENTC_RSA_CHALLENGE (3)",
                               "error: Unknown message 3",
                               "keyagent: Done processing client request SSH_AGENTC_RSA_CHALLENGE (3)"}));
    for (auto [hex, protocol, name] : {std::tuple{"03", 1, "SSH_AGENTC_RSA_CHALLENGE (3)"}, {"c8", 1, "(generic) (200)"},
                                       {"c9", 2, "(generic) (201)"}, {"d5", 2, "SSH_AGENT_RANDOM (213)"},
                                       {"ff", 2, "(generic) (255)"}, {"18", 1, "(generic) (24)"}}) {
        log.clear();
        DispatchResult r = dispatch_bytes(request_hex(hex));
        EXPECT_EQ(r.reply, hex_bytes(protocol == 1 ? "00000001 05" : "00000001 66")) << hex;
        EXPECT_EQ(r.agent_protocol, protocol) << hex;
        EXPECT_TRUE(log.contains(std::string("Processing client request ") + name)) << hex;
    }
    EXPECT_STREQ(request_name(1), "SSH_AGENT_REQUEST_VERSION/SSH_AGENTC_REQUEST_RSA_IDENTITIES");
    EXPECT_STREQ(request_name(160), "SSH2_AGENTC_ZEM_SIGN_REQUEST");
}

TEST_F(Dispatch, LockedAgentServesOnlyItsTable)
{
    LogCapture log;
    agent_set_locked(true);
    for (int number : {7, 8, 9, 17, 18, 19, 22, 24, 25, 152, 153, 202, 203, 205, 207, 208, 212}) {
        log.clear();
        EXPECT_EQ(dispatch_bytes(frame({static_cast<uint8_t>(number)})).reply,
                  hex_bytes(number < 201 ? "00000001 05" : "00000001 66")) << number;
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
