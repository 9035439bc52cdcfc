#include <gtest/gtest.h>

#include <ctime>
#include <string>
#include <vector>

#include <openssl/core_names.h>

#include "agent/identity_table.h"
#include "keys/key.h"
#include "support/agent_state.h"
#include "support/identity_fixture.h"

using IdentityTables = AgentStateTest;
#include "support/log_capture.h"

TEST_F(IdentityTables, NamesAreUniqueAcrossBothTablesIgnoringCase)
{
    KeyPtr first = key_generate(KEY_RSA, 1024);
    EXPECT_EQ(make_identity_name(first.get()), "id_RSA_1024");
    first->name = "ID_rsa_1024";  // other letter case, table 1
    identity_add(identity_table_for_version(1), make_identity_record(std::move(first), "one", 0, 0, 0));
    KeyPtr second = key_generate(KEY_RSA, 1024);
    EXPECT_EQ(make_identity_name(second.get()), "id_RSA_1024_2");
    second->name = "id_RSA_1024_2";
    identity_add(identity_table_for_version(2), make_identity_record(std::move(second), "two", 0, 0, 0));
    KeyPtr third = key_generate(KEY_RSA, 1024);
    EXPECT_EQ(make_identity_name(third.get()), "id_RSA_1024_3");
    KeyPtr ec = key_generate(KEY_ECDSA, 256);
    EXPECT_EQ(make_identity_name(ec.get()), "id_ECDSA_256");
}

TEST_F(IdentityTables, CountsOrderAndSweeps)
{
    LogCapture log;
    IdentityTable *table = identity_table_for_version(2);
    const int64_t now = static_cast<int64_t>(time(nullptr));
    add_test_identity(key_generate(KEY_ECDSA, 256), "expired", "a", now - 1);
    add_test_identity(key_generate(KEY_ECDSA, 256), "forever", "b", 0);
    add_test_identity(make_test_certificate_key(), "cert", "c", 0, 1);
    add_test_identity(key_generate(KEY_ECDSA, 384), "later", "d", now + 3600);
    EXPECT_EQ(table->nentries, 4);
    EXPECT_EQ(table->ncerts, 1);

    add_test_identity(key_generate(KEY_ED25519, 0), "ends now", "e", static_cast<int64_t>(time(nullptr)));
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
        KeyPtr copy = key_new(key->type);
        copy->pkey.reset(EVP_PKEY_dup(key->pkey.get()));
        EVP_PKEY_set_utf8_string_param(copy->pkey.get(), OSSL_PKEY_PARAM_EC_POINT_CONVERSION_FORMAT, "compressed");
        copy->ecdsa_nid = key->ecdsa_nid;
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
            KeyPtr compressed = compressed_copy(probe.get());
            EXPECT_EQ(lookup_identity(compressed.get(), 2), it->get());
        }
        ++it;
    }
    for (auto [type, bits] : {std::pair{KEY_RSA, 1024u}, {KEY_ECDSA, 256u}, {KEY_ED25519, 256u}}) {
        KeyPtr stranger = key_generate(type, bits);
        EXPECT_EQ(lookup_identity(stranger.get(), 2), nullptr);
    }
}
