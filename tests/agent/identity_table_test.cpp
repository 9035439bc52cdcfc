#include <gtest/gtest.h>

#include <ctime>

#include "agent/identity_table.h"
#include "keys/key.h"
#include "support/identity_fixture.h"
#include "support/log_capture.h"

TEST(IdentityTable, NamesAreUniqueAcrossBothTablesIgnoringCase)
{
    identity_tables_init();
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
    identity_tables_init();
}

TEST(IdentityTable, CountsOrderAndSweeps)
{
    LogCapture log;
    identity_tables_init();
    IdentityTable *table = identity_table_for_version(2);
    const int64_t now = static_cast<int64_t>(time(nullptr));
    add_test_identity(key_generate(KEY_ECDSA, 256), "expired", "a", now - 1);
    add_test_identity(key_generate(KEY_ECDSA, 256), "forever", "b", 0);
    add_test_identity(make_test_certificate_key(), "cert", "c", 0, 1);
    add_test_identity(key_generate(KEY_ECDSA, 384), "later", "d", now + 3600);
    EXPECT_EQ(table->nentries, 4);
    EXPECT_EQ(table->ncerts, 1);

    remove_expired_identities();
    EXPECT_TRUE(log.contains("keyagent: Removing key: a - lifetime has expired"));
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
    identity_tables_init();
}

TEST(IdentityTable, CertificateLookupAsKey)
{
    identity_tables_init();
    Identity *held = add_test_identity(make_test_certificate_key(), "cert", "c");
    KeyPtr plain = key_from_private(held->key.get());
    plain->type = KEY_RSA;
    plain->cert.reset();
    // The plain key of the certificate is not the certificate identity...
    EXPECT_EQ(lookup_identity(plain.get(), 2), nullptr);
    // ...unless certificates count as keys; the held type stays as it was.
    EXPECT_EQ(lookup_identity_as_key(plain.get(), 2), held);
    EXPECT_EQ(held->key->type, KEY_X509_RSA);
    identity_tables_init();
}
