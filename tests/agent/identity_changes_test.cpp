#include <gtest/gtest.h>

#include <ctime>

#include "keys/key_material.h"
#include "keys/private_key_material.h"
#include "support/agent_state.h"
#include "support/dispatch_helper.h"
#include "support/identity_fixture.h"
#include "support/log_capture.h"

namespace {

using IdentityChanges = UnlockedAgentTest;

// The private fields of an add request, as a client writes them.
Bytes key_fields(const Key *key)
{
    Buffer b;
    EXPECT_TRUE(private_key_put_agent_fields(key->pkey.get(), &b));
    return buffer_bytes(b);
}

// An add request: the fields, the comment, the key name (vendor form) and
// the constraint bytes.
Bytes add_request(uint8_t number, const Bytes &fields, const std::string &constraints_hex = "",
                  const char *name = nullptr)
{
    Bytes tail = hex_bytes(constraints_hex);
    return request_of(number, [&](Buffer *b) {
        buffer_append(b, fields.data(), static_cast<uint32_t>(fields.size()));
        buffer_put_cstring(b, "a comment");
        buffer_put_cstring(b, name);
        buffer_append(b, tail.data(), static_cast<uint32_t>(tail.size()));
    });
}

Bytes remove_request(uint8_t number, const Key *key)
{
    return request_of(number, [&](Buffer *b) { put_bytes(b, public_blob(key)); });
}

IdentityTable *table() { return identity_table_for_version(2); }

}  // namespace

// Material that does not make one consistent private key is no key at all.
TEST_F(IdentityChanges, DamagedKeyMaterialIsRefused)
{
    KeyPtr ec = key_generate(KEY_ECDSA, 256), ed = key_generate(KEY_ED25519, 0), rsa = key_generate(KEY_RSA, 1024);
    const Bytes ec_fields = key_fields(ec.get()), ed_fields = key_fields(ed.get());
    auto with = [](Bytes fields, size_t at, std::initializer_list<uint8_t> bytes) {
        std::copy(bytes.begin(), bytes.end(), fields.begin() + static_cast<long>(at));
        return fields;
    };
    // ECDSA fields: name 4+19, curve 4+8, point 4+65 from offset 39, scalar.
    // Ed25519: name 4+11, then the public key before the secret.
    std::vector<std::pair<const char *, Bytes>> cases = {
        {"curve", with(ec_fields, 32, {'3', '8', '4'})},  // "nistp384" with a P-256 point
        {"compressed point", with(ec_fields, 39, {0x02})},
        {"scalar of another point", with(ec_fields, ec_fields.size() - 1, {uint8_t(ec_fields.back() ^ 1)})},
        {"Ed25519 secret's copy of the public key", with(ed_fields, ed_fields.size() - 1, {uint8_t(ed_fields.back() ^ 1)})}};
    // RSA fields: name, n, e, d, iqmp, p, q; a zero q.
    Buffer rsa_fields;
    buffer_put_cstring(&rsa_fields, "ssh-rsa");
    for (const char *name : {"n", "e", "d", "rsa-coefficient1", "rsa-factor1"})
        buffer_put_bignum2(&rsa_fields, pkey_get_bn(rsa->pkey.get(), name).get());
    buffer_put_int(&rsa_fields, 0);
    cases.emplace_back("RSA factor", buffer_bytes(rsa_fields));
    LogCapture log;
    for (const auto &[what, fields] : cases)
        EXPECT_EQ(dispatch_bytes(add_request(17, fields)).reply, hex_bytes("00000001 05")) << what;
    EXPECT_TRUE(log.contains("error: process_add_identity: unable to identify the key."));
    EXPECT_TRUE(log.contains("keyagent: Add key request failed"));
    EXPECT_EQ(table()->nentries, 0);
    // The version 2 add takes a SECSH blob; its failure carries a 7.
    EXPECT_EQ(dispatch_bytes(request_of(202, [](Buffer *b) {
                  for (const char *field : {"not a key", "", "comment"})
                      buffer_put_cstring(b, field);
              })).reply,
              hex_bytes("00000002 66 07"));
}

// Each constraint code: lifetimes (code 50 relative, 1, 51 and 52
// absolute), confirmations, the byte skipped after 150, the reply string
// of 100 (read from the reply, not the request) and unknown codes skipped.
TEST_F(IdentityChanges, ConstraintCodes)
{
    const int64_t now = static_cast<int64_t>(time(nullptr));
    struct Case { const char *hex; int64_t death; bool relative; uint32_t confirm, temporary; };
    const Case cases[] = {
        {"01 00000005", 5, false, 0, 0},
        {"32 00000000", 0, false, 0, 0},
        {"32 00000001", 1, true, 0, 0},
        {"33 00000007", 7, false, 0, 0},
        {"34 00000008", 8, false, 0, 0},
        {"31 00000009", 0, false, 0, 0},  // 49 and 53 are unknown: the
        {"35 00000009", 0, false, 0, 0},  // value bytes read as codes
        {"02", 0, false, 1, 0},
        {"97 05", 0, false, 5, 0},
        {"96 9b 02", 0, false, 1, 0},
        {"9b", 0, false, 0, 1},
        {"64 9b", 0, false, 0, 1},
        {"9b 01 0000000a", 10, false, 0, 1},
    };
    KeyPtr key = key_generate(KEY_ED25519, 0);
    for (const Case &c : cases) {
        SCOPED_TRACE(c.hex);
        identity_tables_init();
        ASSERT_EQ(dispatch_bytes(add_request(25, key_fields(key.get()), c.hex)).reply, hex_bytes("00000001 06"));
        ASSERT_EQ(table()->nentries, 1);
        const Identity &added = *table()->identities.back();
        EXPECT_GE(added.death, c.death + (c.relative ? now : 0));
        EXPECT_LE(added.death, c.death + (c.relative ? now + 60 : 0));
        EXPECT_EQ(added.confirm, c.confirm);
        EXPECT_EQ(added.temporary, c.temporary);
    }
    // An absolute lifetime in the past ends the key at the next request.
    EXPECT_EQ(dispatch_bytes(request_hex("0b")).reply, hex_bytes("00000005 0c 00000000"));
}

TEST_F(IdentityChanges, AddAndRemoveRepliesAndRemoteRules)
{
    LogCapture log;
    KeyPtr key = key_generate(KEY_ECDSA, 256), other = key_generate(KEY_ECDSA, 256), ed = key_generate(KEY_ED25519, 0);
    Bytes fields = key_fields(key.get());
    struct Step { Bytes request; int chain; const char *reply_hex; const char *line; };
    auto run = [&](const std::vector<Step> &steps) {
        for (const Step &s : steps) {
            log.clear();
            EXPECT_EQ(dispatch_bytes(s.request, 1, s.chain).reply, hex_bytes(s.reply_hex)) << s.line;
            EXPECT_TRUE(log.contains(s.line)) << s.line;
        }
    };
    // The vendor add carries the key name; 0 when added, 9 when held, and
    // a protocol 1 vendor add always fails with 7.
    set_allow_add(0);
    set_allow_delete(0);
    run({
        {add_request(153, fields, "", "work"), 0, "00000001 00", "keyagent: Add key : work ECDSA 256-bit"},
        {add_request(153, fields, "", "work"), 0, "00000001 09", "keyagent: Key exists : work ECDSA 256-bit"},
        {add_request(152, fields, "", "work"), 0, "00000001 07", "error: process_add_identity: unsupported version"},
        // Remote adds and deletes follow AllowAdd and AllowDelete; local
        // ones never do.
        {add_request(17, key_fields(other.get())), 1, "00000001 05",
         "keyagent: Rejecting request from a remote server to add a key"},
        {remove_request(18, key.get()), 2, "00000001 05",
         "keyagent: Rejecting request from a remote server to delete a key"},
        {request_hex("13"), 1, "00000001 05", "keyagent: Rejecting request from a remote server to delete all keys"},
        {add_request(17, key_fields(other.get())), 0, "00000001 06", "keyagent: Add key : id_ECDSA_256 ECDSA 256-bit"},
    });
    EXPECT_EQ(table()->identities.front()->key->name, "work");
    set_allow_add(1);
    set_allow_delete(1);
    // Message 8 looks in the empty protocol 1 table; the request key has no
    // name; removing all from an empty table still succeeds.
    run({
        {add_request(17, key_fields(ed.get())), 1, "00000001 06", "keyagent: Add key : id_ED25519_256 ED25519 256-bit"},
        {remove_request(8, key.get()), 0, "00000001 05", "keyagent: Remove identity request failed"},
        {remove_request(207, key.get()), 1, "00000001 65", "keyagent: Remove key:  ECDSA 256-bit"},
        {remove_request(18, other.get()), 0, "00000001 06", "keyagent: Remove key:  ECDSA 256-bit"},
    });
    ASSERT_EQ(table()->nentries, 1);
    EXPECT_EQ(table()->identities.front()->key->name, "id_ED25519_256");
    run({
        {remove_request(18, ed.get()), 0, "00000001 06", "keyagent: Remove key:  ED25519 256-bit"},  // the last one
        {add_request(17, key_fields(ed.get())), 0, "00000001 06", "Add key"},
        {request_hex("cb"), 1, "00000001 65", "keyagent: Removed all identities"},
        {request_hex("13"), 0, "00000001 06", "keyagent: Removed all identities"},
    });
    EXPECT_EQ(table()->nentries, 0);
}

using IdentityTables = AgentStateTest;

TEST_F(IdentityTables, CountsOrderSweepsUniqueNamesAndLookups)
{
    LogCapture log;
    IdentityTable *table = identity_table_for_version(2);
    const int64_t now = static_cast<int64_t>(time(nullptr));
    add_test_identity(key_generate(KEY_ED25519, 0), "ends now", "e", static_cast<int64_t>(time(nullptr)));
    add_test_identity(key_generate(KEY_ECDSA, 256), "forever", "b", 0);
    add_test_identity(make_test_certificate_key("EC"), "cert", "c", 0, 1);
    add_test_identity(key_generate(KEY_ECDSA, 384), "later", "d", now + 3600);
    EXPECT_EQ(table->nentries, 4);
    EXPECT_EQ(table->ncerts, 1);

    remove_expired_identities();
    ASSERT_EQ(table->nentries, 3);
    EXPECT_EQ(table->identities.front()->key->name, "b");  // insertion order kept
    remove_temporary_identities();
    EXPECT_TRUE(log.contains("keyagent: Removing key: c - key only temporary"));
    EXPECT_EQ(table->nentries, 2);
    EXPECT_EQ(table->ncerts, 0);
    EXPECT_EQ(table->identities.back()->key->name, "d");

    // Names are unique across both tables, ignoring letter case.
    KeyPtr first = key_generate(KEY_RSA, 1024), second = key_from_private(first.get());
    EXPECT_EQ(make_identity_name(first.get()), "id_RSA_1024");
    first->name = "ID_rsa_1024";  // other letter case, table 1
    identity_add(identity_table_for_version(1), make_identity_record(std::move(first), "one", 0, 0, 0));
    EXPECT_EQ(make_identity_name(second.get()), "id_RSA_1024_2");
    add_test_identity(std::move(second), "two", "id_RSA_1024_2");
    EXPECT_EQ(make_identity_name(table->identities.back()->key.get()), "id_RSA_1024_3");

    // In a table large enough for lookups to compare public keys in their
    // encoded form first, every kind of key is still found by an equal
    // public copy, and a new key is not.
    identity_tables_init();
    std::vector<KeyPtr> probes;
    for (auto [type, bits] : {std::pair{KEY_RSA, 1024u}, {KEY_DSA, 1024u}, {KEY_ECDSA, 256u}, {KEY_ECDSA, 384u},
                              {KEY_ED25519, 256u}}) {
        KeyPtr key = key_generate(type, bits);
        probes.push_back(key_from_private(key.get()));
        add_test_identity(std::move(key), "c", "k");
    }
    add_test_identity(make_test_certificate_key("EC"), "cert", "cert");
    while (table->nentries < 16)
        add_test_identity(key_generate(KEY_ED25519, 0), "c", "more");
    auto it = table->identities.begin();
    for (const KeyPtr &probe : probes)
        EXPECT_EQ(lookup_identity(probe.get(), 2), (it++)->get()) << probe->type;
    for (auto [type, bits] : {std::pair{KEY_RSA, 1024u}, {KEY_ECDSA, 256u}, {KEY_ED25519, 256u}})
        EXPECT_EQ(lookup_identity(key_generate(type, bits).get(), 2), nullptr);
}
