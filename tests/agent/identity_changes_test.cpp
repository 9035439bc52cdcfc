#include <gtest/gtest.h>

#include <openssl/core_names.h>

#include "agent/handlers.h"
#include "agent/identity_table.h"
#include "agent/settings.h"
#include "keys/key_blob.h"
#include "support/dispatch_helper.h"
#include "support/log_capture.h"

namespace {

void put_bn(Buffer *b, const EVP_PKEY *key, const char *name)
{
    BIGNUM *value = nullptr;
    EVP_PKEY_get_bn_param(key, name, &value);
    buffer_put_bignum2(b, value);
    BN_clear_free(value);
}

// An add request for an ECDSA P-256 key: message, type, curve, point,
// scalar, comment, then `tail` (a key name and constraints).
Bytes ecdsa_add(uint8_t number, const EVP_PKEY *key, const Bytes &tail = {})
{
    Buffer b;
    buffer_put_char(&b, number);
    buffer_put_cstring(&b, "ecdsa-sha2-nistp256");
    buffer_put_cstring(&b, "nistp256");
    uint8_t point[133];
    size_t len = 0;
    EVP_PKEY_get_octet_string_param(key, OSSL_PKEY_PARAM_PUB_KEY, point, sizeof point, &len);
    buffer_put_string(&b, point, static_cast<uint32_t>(len));
    put_bn(&b, key, OSSL_PKEY_PARAM_PRIV_KEY);
    buffer_put_cstring(&b, "a comment");
    buffer_append(&b, tail.data(), static_cast<uint32_t>(tail.size()));
    return frame(buffer_bytes(b));
}

Bytes remove_request(uint8_t number, const Key *key)
{
    Buffer b;
    buffer_put_char(&b, number);
    SecureBytes blob;
    uint32_t len = key_to_blob(key, &blob, nullptr, key_blob_type_name(key));
    buffer_put_string(&b, blob.data(), len);
    return frame(buffer_bytes(b));
}

struct Fresh {
    Fresh() { agent_set_locked(false); identity_tables_init(); }
    ~Fresh()
    {
        agent_set_locked(true);
        identity_tables_init();
        set_allow_add(1);
        set_allow_delete(1);
    }
};

}  // namespace

TEST(IdentityChanges, AddRepliesConstraintsAndRemoteRules)
{
    LogCapture log;
    Fresh fresh;
    IdentityTable *table = identity_table_for_version(2);
    KeyPtr key = key_generate(KEY_ECDSA, 256);

    // The vendor add carries the key name; 0 when added, 9 when held, and
    // a protocol 1 vendor add always fails with 7.
    Buffer named;
    buffer_put_cstring(&named, "work");
    EXPECT_EQ(dispatch_bytes(ecdsa_add(153, key->pkey.get(), buffer_bytes(named))).reply, hex_bytes("00000001 00"));
    EXPECT_EQ(table->identities.back()->key->name, "work");
    EXPECT_EQ(dispatch_bytes(ecdsa_add(153, key->pkey.get(), buffer_bytes(named))).reply, hex_bytes("00000001 09"));
    EXPECT_EQ(dispatch_bytes(ecdsa_add(152, key->pkey.get(), buffer_bytes(named))).reply, hex_bytes("00000001 07"));
    EXPECT_TRUE(log.contains("error: process_add_identity: unsupported version"));

    // Code 50 with 0 means no expiry; 155 marks the key temporary; an
    // unknown code is skipped.
    KeyPtr other = key_generate(KEY_ECDSA, 256);
    EXPECT_EQ(dispatch_bytes(ecdsa_add(25, other->pkey.get(), hex_bytes("32 00000000 9b 63"))).reply,
              hex_bytes("00000001 06"));
    Identity *added = table->identities.back().get();
    EXPECT_EQ(added->death, 0);
    EXPECT_EQ(added->temporary, 1u);
    EXPECT_EQ(added->key->name, "id_ECDSA_256");
    EXPECT_TRUE(log.contains("keyagent: Add key : id_ECDSA_256 ECDSA 256-bit"));

    // A remote add is refused while AllowAdd is off, even for a held key.
    set_allow_add(0);
    EXPECT_EQ(dispatch_bytes(ecdsa_add(17, key->pkey.get()), 1, 1).reply, hex_bytes("00000001 05"));
    EXPECT_TRUE(log.contains("keyagent: Rejecting request from a remote server to add a key"));
    EXPECT_EQ(dispatch_bytes(ecdsa_add(17, key->pkey.get()), 1, 0).reply, hex_bytes("00000001 06"));

    // A bad point is no key at all; the version 2 failure carries a 7.
    Bytes broken = ecdsa_add(17, key->pkey.get());
    broken[50] ^= 0xff;  // inside the point
    EXPECT_EQ(dispatch_bytes(broken).reply, hex_bytes("00000001 05"));
    Buffer v2;
    buffer_put_char(&v2, 202);
    buffer_put_cstring(&v2, "not a key");
    buffer_put_cstring(&v2, "");
    buffer_put_cstring(&v2, "comment");
    EXPECT_EQ(dispatch_bytes(frame(buffer_bytes(v2))).reply, hex_bytes("00000002 66 07"));
}

TEST(IdentityChanges, RemoveAndRemoveAll)
{
    LogCapture log;
    Fresh fresh;
    IdentityTable *table = identity_table_for_version(2);
    KeyPtr key = key_generate(KEY_ECDSA, 256);
    dispatch_bytes(ecdsa_add(17, key->pkey.get()));
    ASSERT_EQ(table->nentries, 1);

    set_allow_delete(0);
    EXPECT_EQ(dispatch_bytes(remove_request(18, key.get()), 1, 2).reply, hex_bytes("00000001 05"));
    EXPECT_TRUE(log.contains("keyagent: Rejecting request from a remote server to delete a key"));
    EXPECT_EQ(dispatch_bytes(frame(hex_bytes("13")), 1, 1).reply, hex_bytes("00000001 05"));
    EXPECT_TRUE(log.contains("keyagent: Rejecting request from a remote server to delete all keys"));
    set_allow_delete(1);

    // Message 8 never finds a key.
    EXPECT_EQ(dispatch_bytes(remove_request(8, key.get())).reply, hex_bytes("00000001 05"));
    EXPECT_EQ(dispatch_bytes(remove_request(207, key.get())).reply, hex_bytes("00000001 65"));
    EXPECT_EQ(table->nentries, 0);
    EXPECT_EQ(dispatch_bytes(remove_request(18, key.get())).reply, hex_bytes("00000001 05"));
    EXPECT_TRUE(log.contains("keyagent: Remove identity request failed"));

    // Remove-all on an empty table succeeds.
    EXPECT_EQ(dispatch_bytes(frame(hex_bytes("cb"))).reply, hex_bytes("00000001 65"));
    EXPECT_TRUE(log.contains("keyagent: Removed all identities"));
}
