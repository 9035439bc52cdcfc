#include <gtest/gtest.h>

#include "pki/agent_enum.h"
#include "support/log_capture.h"

namespace {

struct AgentEnum : ::testing::Test {
    void TearDown() override { agent_enum_set(AGENT_ENUM_INITIAL); }
    // Which of the mode predicates hold: both, certs first, keys first,
    // certs as certs, certs as keys.
    static std::string predicates()
    {
        std::string held;
        for (auto [letter, holds] : {std::pair{'b', agent_enum_both()}, {'f', agent_enum_certs_first()},
                                     {'k', agent_enum_keys_first()}, {'C', agent_enum_certs_as_certs()},
                                     {'K', agent_enum_certs_as_keys()}})
            if (holds)
                held += letter;
        return held;
    }
};

}  // namespace

// From the initial mode (both, certificates first) through every
// configuration setting and its log line, the words, and the ordering that
// an authentication key sets.
TEST_F(AgentEnum, SettingsWordsAndAuthenticationOrder)
{
    EXPECT_EQ(agent_enum_get(), 0x13u);
    EXPECT_EQ(predicates(), "bf");
    LogCapture log;
    for (auto [setting, mode, line] :
         {std::tuple{0, 3u, "Agent set to enumerate certs as certs and as keys (Default for certs first)."},
          {1, 2u, "Agent set to enumerate certs as keys."},
          {2, 1u, "Agent set to enumerate certs as certs."},
          {256, 0x103u, "Agent set to enumerate certs for QMAR servers."},
          {512, 0x203u, "Agent set to enumerate certs for OpenSSH servers."},
          {768, 0x303u, "Agent set to enumerate certs for OpenSSH PKIX servers."},
          {1024, 0x403u, "Agent set to enumerate certs for SunSSH servers."},
          {1280, 0x503u, "Agent set to enumerate certs for OpenVMS servers."},
          {7, 3u, "Invalid enum setting (7). Agent set to enumerate certs as certs and as keys (Default for certs "
                  "first)."}}) {
        log.clear();
        agent_enum_set(0x20);
        EXPECT_EQ(agent_enum_from_setting(setting), mode) << setting;
        EXPECT_TRUE(log.contains(std::string("debug3: ") + line)) << setting;
    }

    // The words cross on purpose: "keys" offers certificates as keys.
    agent_enum_from_setting(agent_enum_setting_from_word("KEYS"));
    EXPECT_EQ(predicates(), "K");
    agent_enum_from_setting(agent_enum_setting_from_word("certs"));
    EXPECT_EQ(predicates(), "C");
    EXPECT_EQ(agent_enum_setting_from_word("SunSSH"), 1024);
    EXPECT_EQ(agent_enum_setting_from_word("pkix"), 768);
    EXPECT_EQ(agent_enum_setting_from_word("both"), -1);
    EXPECT_EQ(agent_enum_unsupported_message(0), "Unsupported argument for AgentEnumCertsAs.");
    EXPECT_EQ(agent_enum_unsupported_message(12), "line 12: Unsupported argument for AgentEnumCertsAs.");

    // Authentication orders only the "both" mode.
    EXPECT_EQ(agent_enum_from_setting(256), 0x103u);
    EXPECT_EQ(predicates(), "b");
    EXPECT_EQ(agent_enum_order_by_auth_key(5), 0x123u);
    EXPECT_EQ(predicates(), "bk");
    EXPECT_TRUE(log.contains("Because a key (5) was used for authentication, the key agent, if used, will present "
                             "keys before certificates."));
    // The bits accumulate: both orderings set, neither predicate holds.
    EXPECT_EQ(agent_enum_order_by_auth_key(6), 0x133u);
    EXPECT_EQ(predicates(), "b");
    EXPECT_EQ(agent_enum_get_low(), 0x33u);
    agent_enum_from_setting(0);
    EXPECT_EQ(agent_enum_order_by_auth_key(8), 0x13u);
    EXPECT_TRUE(log.contains("As a default, the key agent, if used, will present certificates before keys."));
    agent_enum_from_setting(2);
    EXPECT_EQ(agent_enum_order_by_auth_key(1), 1u);
    agent_enum_set(0x23);
    EXPECT_EQ(predicates(), "bk");
    EXPECT_TRUE(log.contains("debug3: Key agent enum set to 0x0023."));
}
