#include <gtest/gtest.h>

#include <cstring>

#include <openssl/core_names.h>

#include "crypto/signature_types.h"
#include "keys/key.h"
#include "keys/key_blob.h"
#include "keys/key_fingerprint.h"
#include "keys/key_material.h"
#include "support/bytes.h"
// Installs the certificate layer's part of the key code for the whole
// program, as the agent does at start-up.
#include "support/cert_key_layer_environment.h"
#include "support/log_capture.h"

namespace {

Bytes blob_of(const Key *key, const char *name)
{
    SecureBytes blob;
    key_to_blob(key, &blob, nullptr, name);
    return Bytes(blob.begin(), blob.end());
}

KeyPtr read_blob(const Bytes &blob) { return key_from_blob(blob.data(), static_cast<uint32_t>(blob.size())); }

// A blob from its name and strings.
Bytes blob_from(const char *name, std::initializer_list<Bytes> strings)
{
    Buffer b;
    buffer_put_cstring(&b, name);
    for (const Bytes &s : strings)
        buffer_put_string(&b, s.data(), static_cast<uint32_t>(s.size()));
    return buffer_bytes(b);
}

Bytes text(const char *t) { return Bytes(t, t + strlen(t)); }

}  // namespace

// Every type's blob against ssh-keygen's is in the OpenSSH tests.
TEST(KeyBlob, RsaLayoutAndTheName)
{
    // A key read under rsa-sha2-512 keeps that name; its blob name stays ssh-rsa.
    KeyPtr key = key_generate(KEY_RSA, 2048);
    Bytes blob = blob_of(key.get(), "ssh-rsa");
    Bytes head = hex_bytes("00000007 7373682d727361 00000003 010001 00000101 00");
    EXPECT_EQ(Bytes(blob.begin(), blob.begin() + static_cast<long>(head.size())), head);
    EXPECT_EQ(blob.size(), 11u + 7 + 4 + 257);
    KeyPtr read = read_blob(blob_of(key.get(), "rsa-sha2-512"));
    EXPECT_STREQ(key_ssh_name(read.get()), "rsa-sha2-512");
    EXPECT_STREQ(key_blob_type_name(read.get()), "ssh-rsa");

    // Extra bytes after a key are logged and passed over; an unknown
    // algorithm is a key of no type, for the caller to judge.
    LogCapture log;
    blob.push_back(1);
    EXPECT_NE(key_equal(read_blob(blob).get(), key.get()), 0);
    EXPECT_TRUE(log.contains("key_from_blob: remaining bytes in key blob 1"));
    KeyPtr unknown = read_blob(blob_from("ssh-foo", {Bytes{7}}));
    ASSERT_NE(unknown, nullptr);
    EXPECT_EQ(unknown->type, KEY_UNSPEC);
}

TEST(KeyBlob, RefusalsAndTheirLogLines)
{
    KeyPtr p256 = key_generate(KEY_ECDSA, 256);
    Bytes point = blob_of(p256.get(), "ecdsa-sha2-nistp256");
    point.erase(point.begin(), point.begin() + 4 + 19 + 4 + 8 + 4);
    ASSERT_EQ(point.size(), 65u);
    Bytes compressed(point.begin(), point.begin() + 33), off_curve = point;
    compressed[0] = 0x02;
    off_curve[64] ^= 1;
    Bytes ed = blob_of(key_generate(KEY_ED25519, 0).get(), "ssh-ed25519");
    ASSERT_EQ(ed.size(), 19u + 32);
    Bytes ed_point(ed.begin() + 19, ed.end());
    Bytes ed_long = ed_point;
    ed_long.push_back(0);
    Buffer huge_rsa;
    buffer_put_cstring(&huge_rsa, "ssh-rsa");
    buffer_put_int(&huge_rsa, 8193);

    struct Case { Bytes blob; const char *line; };
    const Case cases[] = {
        {blob_from("ecdsa-sha2-nistp256", {text("nistp384"), point}),
         "key_from_blob_sig: ssh alg identifier does not match blob curve name."},
        {blob_from("ecdsa-sha2-nistp256", {text("nistp256"), compressed}),
         "get_ec_from_blob: Point conversion is uncompressed."},
        {blob_from("ecdsa-sha2-nistp256", {text("nistp256"), off_curve}), "get_ec_from_blob: unable to decode point."},
        {blob_from("ecdsa-sha2-nistp256", {text("nistp256"), Bytes(133, 4)}),
         "get_ec_from_blob: unable to decode point."},
        {blob_from("ecdsa-sha2-nistp256", {text("nistp256"), Bytes(134, 4)}), "get_ec_from_blob: Point length too large."},
        {blob_from("ecdsa-sha2-nistp256", {text("nistp256"), Bytes()}), "get_ec_from_blob: Point length too large."},
        {blob_from("ecdsa-sha2-nistp999", {text("nistp999"), point}), "key_from_blob_sig: invalid curve."},
        {blob_from("ecdsa-sha2-nistp256", {}), "key_from_blob_sig: invalid blob format."},
        {blob_from("ssh-ed25519", {Bytes(ed_point.begin(), ed_point.end() - 1)}), "key_from_blob: invalid Ed25519 key"},
        {blob_from("ssh-ed25519", {ed_long}), "key_from_blob: invalid Ed25519 key"},
        {blob_from("ssh-ed25519", {}), "key_from_blob: invalid Ed25519 key"},
        {blob_from("null", {Bytes()}), "key_from_blob: cannot handle type null"},
        {blob_from("x509v3-sign-rsa", {Bytes()}), "key_from_blob: cannot handle type x509v3-sign-rsa"},
        {blob_from("x509v3-ecdsa-sha2-nistp256", {Bytes()}), "key_from_blob: cannot handle type x509v3-ecdsa"},
    };
    for (const Case &c : cases) {
        LogCapture log;
        EXPECT_EQ(read_blob(c.blob), nullptr) << c.line;
        EXPECT_TRUE(log.contains(c.line)) << c.line;
    }
    // Big numbers past the buffer's limit are fatal, as everywhere else.
    buffer_append_space(&huge_rsa, 8193);
    EXPECT_THROW(read_blob(buffer_bytes(huge_rsa)), FatalError);

    LogCapture log;
    EXPECT_EQ(key_to_blob(key_new(KEY_ECDSA).get(), nullptr, nullptr, "ecdsa-sha2-nistp256"),
              static_cast<uint32_t>(KEY_EC_BAD_KEY));
    EXPECT_EQ(key_to_blob(key_new(KEY_UNSPEC).get(), nullptr, nullptr, "ssh-rsa"), 0u);
    EXPECT_TRUE(log.contains("key_to_blob: unsupported key type 8"));
}

// Generated keys have exactly the size asked for, their curve, and a public
// half that carries no secret.
TEST(Key, GeneratedKeysAndTheirPublicHalves)
{
    const std::string user = user_at_host();
    struct Case { int type; unsigned bits; int nid; const char *description; };
    for (Case c : {Case{KEY_RSA, 1024, -1, "1024-bit RSA, "}, Case{KEY_RSA, 2048, -1, "2048-bit RSA, "},
                   Case{KEY_RSA, 3072, -1, "3072-bit RSA, "}, Case{KEY_DSA, 1024, -1, "1024-bit DSA, "},
                   Case{KEY_ECDSA, 256, 415, "ECDSA P256, "}, Case{KEY_ECDSA, 384, 715, "ECDSA P384, "},
                   Case{KEY_ECDSA, 521, 716, "ECDSA P521, "}, Case{KEY_ED25519, 256, -1, "256-bit ED25519, "}}) {
        SCOPED_TRACE(c.description);
        KeyPtr key = key_generate(c.type, c.bits);
        ASSERT_NE(key, nullptr);
        KeyPtr pub = key_from_private(key.get());
        ASSERT_NE(pub, nullptr);
        EXPECT_EQ(std::tuple(key->type, key->ecdsa_nid, pub->type, pub->ecdsa_nid),
                  std::tuple(c.type, c.nid, c.type, c.nid));
        EXPECT_EQ(key_size(key.get()), c.bits);
        EXPECT_EQ(key_description(key.get()), c.description + user);
        EXPECT_NE(key_equal(key.get(), pub.get()), 0);
        BIGNUM *secret = nullptr;
        EXPECT_EQ(EVP_PKEY_get_bn_param(pub->pkey.get(), c.type == KEY_RSA ? OSSL_PKEY_PARAM_RSA_D : OSSL_PKEY_PARAM_PRIV_KEY,
                                        &secret), 0);
        BN_free(secret);
        size_t seed_len = 0;
        EXPECT_NE(EVP_PKEY_get_raw_private_key(pub->pkey.get(), nullptr, &seed_len), 1);
        EXPECT_EQ(key_equal(key.get(), key_generate(c.type, c.bits).get()), 0);
        // DSA: the 160-bit subgroup "ssh-dss" needs.
        EXPECT_TRUE(c.type != KEY_DSA || BN_num_bits(pkey_get_bn(key->pkey.get(), OSSL_PKEY_PARAM_FFC_Q).get()) == 160);
    }

    LogCapture log;
    EXPECT_TRUE(!key_generate(KEY_ECDSA, 300) && !key_generate(KEY_NULL, 256));
    EXPECT_TRUE(log.contains("key_generate: unknown type 7"));
}

TEST(Key, NamesAndTypes)
{
    LogCapture log;
    for (auto [name, type] : {std::pair{"SSH-RSA", KEY_RSA}, {"Rsa-Sha2-512", KEY_RSA}, {SSH_RSA_SHA256_VENDOR_ALIAS, KEY_RSA},
                              {"ssh-dss", KEY_DSA}, {"x509v3-ssh-rsa", KEY_X509_RSA}, {"x509v3-rsa2048-sha256", KEY_X509_RSA},
                              {"x509v3-sign-dss", KEY_X509_DSA}, {"ecdsa-sha2-nistp999", KEY_ECDSA},
                              {"x509v3-ecdsa-sha2-nistp384", KEY_X509_ECDSA}, {"SSH-ED25519", KEY_ED25519},
                              {"null", KEY_NULL}, {"ssh-foo", KEY_UNSPEC}})
        EXPECT_EQ(key_type_from_name(name), type) << name;
    EXPECT_TRUE(log.contains("key_type_from_name: unknown key type 'ssh-foo'"));

    // The algorithm name follows the chosen row and, for certificates, the
    // signature type setting; the blob name stays the key's own.
    KeyPtr rsa = key_new(KEY_RSA), x509 = key_new(KEY_X509_RSA);
    EXPECT_STREQ(key_ssh_name(rsa.get()), "ssh-rsa");
    for (auto [sigtype, name] : {std::pair{2, "x509v3-rsa2048-sha256"}, {3, "x509v3-sign-rsa"}}) {
        set_x509rsa_sigtype(sigtype);
        EXPECT_STREQ(key_ssh_name(x509.get()), name);
    }
    KeyPtr x509ec = key_new(KEY_X509_ECDSA);
    x509ec->ecdsa_nid = KEY_NID_P521;
    EXPECT_EQ(std::tuple(std::string(key_ssh_name(x509ec.get())), std::string(key_blob_type_name(x509ec.get()))),
              std::tuple("x509v3-ecdsa-sha2-nistp521", ""));

    // Curve names compare exactly; algorithm names in any letter case.
    EXPECT_EQ(std::tuple(key_curve_name_to_nid("nistp384"), key_curve_name_to_nid("NISTP384"),
                         key_ecdsa_name_to_nid("ECDSA-SHA2-NISTP256"), key_ecdsa_name_to_nid("x509v3-ecdsa-sha2-nistp521"),
                         key_ecdsa_bits_to_nid(300), key_ecdsa_nid_to_bits(1)),
              std::tuple(715, -1, 415, 716, -1, 0));

    // The signature name "ssh-rsa" belongs first to the plain row.
    const SignatureAlgorithm *rows = signature_algorithms();
    EXPECT_EQ(signature_algorithm_by_signature_name("SSH-RSA"), &rows[0]);
    EXPECT_EQ(signature_algorithm_by_name("ssh-ed448"), nullptr);
    EXPECT_TRUE(signature_algorithm_is_certificate(signature_algorithm_by_name("X509V3-SSH-RSA")));
    EXPECT_FALSE(signature_algorithm_is_certificate(signature_algorithm_by_name(SSH_RSA_SHA256_VENDOR_ALIAS)));

    Bytes blob = {0, 0, 0, 7, 's', 's', 'h', '-', 'r', 's', 'a', 0, 0, 0, 1, 3};
    EXPECT_EQ(key_blob_name(blob.data(), static_cast<uint32_t>(blob.size())), "ssh-rsa");
    EXPECT_EQ(key_blob_name(blob.data(), 10), "");  // cut inside the name
    Bytes der = {0x30, 0x82, 0x01, 0x0a};
    EXPECT_EQ(key_blob_name(der.data(), static_cast<uint32_t>(der.size())), "");
}
