#include <gtest/gtest.h>

#include "pki/agent_enum.h"
#include "support/log_capture.h"

namespace {
struct EnumRestore {
    ~EnumRestore() { agent_enum_set(AGENT_ENUM_INITIAL); }
};
}  // namespace

TEST(AgentEnum, StartsAsBothWithCertificatesFirst)
{
    EXPECT_EQ(agent_enum_get(), 0x13u);
    EXPECT_TRUE(agent_enum_both());
    EXPECT_TRUE(agent_enum_certs_first());
    EXPECT_FALSE(agent_enum_keys_first());
    EXPECT_FALSE(agent_enum_certs_as_certs());
    EXPECT_FALSE(agent_enum_certs_as_keys());
}

TEST(AgentEnum, ConfigurationSettingsAndTheirWords)
{
    EnumRestore restore;
    LogCapture log;
    const struct {
        int setting;
        uint32_t mode;
        const char *line;
    } rows[] = {
        {0, 3, "Agent set to enumerate certs as certs and as keys (Default for certs first)."},
        {1, 2, "Agent set to enumerate certs as keys."},
        {2, 1, "Agent set to enumerate certs as certs."},
        {256, 0x103, "Agent set to enumerate certs for QMAR servers."},
        {512, 0x203, "Agent set to enumerate certs for OpenSSH servers."},
        {768, 0x303, "Agent set to enumerate certs for OpenSSH PKIX servers."},
        {1024, 0x403, "Agent set to enumerate certs for SunSSH servers."},
        {1280, 0x503, "Agent set to enumerate certs for OpenVMS servers."},
        {7, 3, "Invalid enum setting (7). Agent set to enumerate certs as certs and as keys (Default for certs "
               "first)."},
    };
    for (const auto &row : rows) {
        log.clear();
        agent_enum_set(0x20);
        EXPECT_EQ(agent_enum_from_setting(row.setting), row.mode) << row.setting;
        EXPECT_EQ(agent_enum_get(), row.mode);
        EXPECT_TRUE(log.contains(std::string("debug3: ") + row.line)) << row.setting;
    }

    // The words cross on purpose: "keys" offers certificates as keys.
    agent_enum_from_setting(agent_enum_setting_from_word("KEYS"));
    EXPECT_TRUE(agent_enum_certs_as_keys());
    agent_enum_from_setting(agent_enum_setting_from_word("certs"));
    EXPECT_TRUE(agent_enum_certs_as_certs());
    EXPECT_EQ(agent_enum_setting_from_word("SunSSH"), 1024);
    EXPECT_EQ(agent_enum_setting_from_word("pkix"), 768);
    EXPECT_EQ(agent_enum_setting_from_word("both"), -1);
    EXPECT_EQ(agent_enum_unsupported_message(0), "Unsupported argument for AgentEnumCertsAs.");
    EXPECT_EQ(agent_enum_unsupported_message(12), "line 12: Unsupported argument for AgentEnumCertsAs.");
}

TEST(AgentEnum, AuthenticationOrdersOnlyTheBothMode)
{
    EnumRestore restore;
    LogCapture log;
    EXPECT_EQ(agent_enum_from_setting(256), 0x103u);
    EXPECT_TRUE(agent_enum_both());
    EXPECT_FALSE(agent_enum_certs_first());
    EXPECT_FALSE(agent_enum_keys_first());

    EXPECT_EQ(agent_enum_order_by_auth_key(5), 0x123u);
    EXPECT_TRUE(agent_enum_keys_first());
    EXPECT_TRUE(log.contains("Because a key (5) was used for authentication, the key agent, if used, will present "
                             "keys before certificates."));
    // The bits accumulate: both orderings set, neither predicate holds.
    EXPECT_EQ(agent_enum_order_by_auth_key(6), 0x133u);
    EXPECT_FALSE(agent_enum_keys_first());
    EXPECT_FALSE(agent_enum_certs_first());
    EXPECT_EQ(agent_enum_get_low(), 0x33u);

    agent_enum_from_setting(0);
    EXPECT_EQ(agent_enum_order_by_auth_key(8), 0x13u);
    EXPECT_TRUE(log.contains("As a default, the key agent, if used, will present certificates before keys."));

    agent_enum_from_setting(2);
    EXPECT_EQ(agent_enum_order_by_auth_key(1), 1u);

    log.clear();
    agent_enum_set(0x23);
    EXPECT_TRUE(agent_enum_keys_first());
    EXPECT_TRUE(log.contains("debug3: Key agent enum set to 0x0023."));
}
