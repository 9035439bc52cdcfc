#include <gtest/gtest.h>

#include <ctime>

#include <openssl/core_names.h>

#include "support/agent_state.h"
#include "support/identity_fixture.h"
#include "support/log_capture.h"

using IdentityTables = AgentStateTest;

TEST_F(IdentityTables, NamesAreUniqueAcrossBothTablesIgnoringCase)
{
    KeyPtr first = key_generate(KEY_RSA, 1024), second = key_from_private(first.get());
    EXPECT_EQ(make_identity_name(first.get()), "id_RSA_1024");
    first->name = "ID_rsa_1024";  // other letter case, table 1
    identity_add(identity_table_for_version(1), make_identity_record(std::move(first), "one", 0, 0, 0));
    EXPECT_EQ(make_identity_name(second.get()), "id_RSA_1024_2");
    add_test_identity(std::move(second), "two", "id_RSA_1024_2");
    EXPECT_EQ(make_identity_name(identity_table_for_version(2)->identities.front()->key.get()), "id_RSA_1024_3");
    EXPECT_EQ(make_identity_name(key_generate(KEY_ECDSA, 256).get()), "id_ECDSA_256");
}

TEST_F(IdentityTables, CountsOrderAndSweeps)
{
    LogCapture log;
    IdentityTable *table = identity_table_for_version(2);
    const int64_t now = static_cast<int64_t>(time(nullptr));
    add_test_identity(key_generate(KEY_ECDSA, 256), "expired", "a", now - 1);
    add_test_identity(key_generate(KEY_ECDSA, 256), "forever", "b", 0);
    add_test_identity(make_test_certificate_key("EC"), "cert", "c", 0, 1);
    add_test_identity(key_generate(KEY_ECDSA, 384), "later", "d", now + 3600);
    add_test_identity(key_generate(KEY_ED25519, 0), "ends now", "e", static_cast<int64_t>(time(nullptr)));
    EXPECT_EQ(table->nentries, 5);
    EXPECT_EQ(table->ncerts, 1);

    remove_expired_identities();
    EXPECT_TRUE(log.contains("keyagent: Removing key: a - lifetime has expired"));
    EXPECT_TRUE(log.contains("keyagent: Removing key: e - lifetime has expired"));
    ASSERT_EQ(table->nentries, 3);
    EXPECT_EQ(table->identities.front()->key->name, "b");  // insertion order kept
    remove_temporary_identities();
    EXPECT_TRUE(log.contains("keyagent: Removing key: c - key only temporary"));
    EXPECT_EQ(table->nentries, 2);
    EXPECT_EQ(table->ncerts, 0);
    EXPECT_EQ(table->identities.back()->key->name, "d");

    EXPECT_THROW(identity_table_for_version(3), FatalError);
    EXPECT_EQ(identity_add(nullptr, nullptr), -1);
    EXPECT_EQ(identity_remove(table, nullptr), -1);
}

// In a table large enough for lookups to compare public keys in their
// encoded form, every kind of key is still found by an equal public copy,
// also when one side holds its EC point compressed, and a new key is not.
TEST_F(IdentityTables, LookupInALargeTableFindsEqualKeysOnly)
{
    auto compressed_copy = [](const Key *key) {
        KeyPtr copy = key_from_private(key);
        EVP_PKEY_set_utf8_string_param(copy->pkey.get(), OSSL_PKEY_PARAM_EC_POINT_CONVERSION_FORMAT, "compressed");
        return copy;
    };
    std::vector<KeyPtr> probes;
    for (int i = 0; i < 4; ++i)
        for (auto [type, bits] : {std::pair{KEY_RSA, 1024u}, {KEY_DSA, 1024u}, {KEY_ECDSA, 256u}, {KEY_ECDSA, 384u},
                                  {KEY_ED25519, 256u}}) {
            KeyPtr key = key_generate(type, bits);
            probes.push_back(key_from_private(key.get()));
            if (i == 3 && type == KEY_ECDSA)  // held compressed in the table
                key = compressed_copy(key.get());
            add_test_identity(std::move(key), "c", ("k" + std::to_string(probes.size())).c_str());
        }
    add_test_identity(make_test_certificate_key("EC"), "cert", "cert");
    ASSERT_GE(identity_table_for_version(2)->nentries, 16);

    auto it = identity_table_for_version(2)->identities.begin();
    for (const KeyPtr &probe : probes) {
        SCOPED_TRACE((*it)->key->name);
        EXPECT_EQ(lookup_identity(probe.get(), 2), it->get());
        if (probe->type == KEY_ECDSA) {
            EXPECT_EQ(lookup_identity(compressed_copy(probe.get()).get(), 2), it->get());
        }
        ++it;
    }
    for (auto [type, bits] : {std::pair{KEY_RSA, 1024u}, {KEY_ECDSA, 256u}, {KEY_ED25519, 256u}})
        EXPECT_EQ(lookup_identity(key_generate(type, bits).get(), 2), nullptr);
}
