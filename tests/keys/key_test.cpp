#include <gtest/gtest.h>

#include <cstring>

#include <openssl/core_names.h>
#include <openssl/obj_mac.h>

#include "crypto/signature_types.h"
#include "keys/key.h"
#include "keys/key_fingerprint.h"
#include "keys/key_material.h"
#include "platform/platform.h"
#include "support/bytes.h"
#include "support/log_capture.h"

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
        EXPECT_EQ(EVP_PKEY_get_bits(key->pkey.get()), static_cast<int>(c.bits));
        EXPECT_EQ(key_description(key.get()), c.description + user);
        EXPECT_NE(key_equal(key.get(), pub.get()), 0);
        BIGNUM *secret = nullptr;
        EXPECT_EQ(EVP_PKEY_get_bn_param(pub->pkey.get(), c.type == KEY_RSA ? OSSL_PKEY_PARAM_RSA_D : OSSL_PKEY_PARAM_PRIV_KEY,
                                        &secret), 0);
        BN_free(secret);
        size_t seed_len = 0;
        EXPECT_NE(EVP_PKEY_get_raw_private_key(pub->pkey.get(), nullptr, &seed_len), 1);
        EXPECT_EQ(key_equal(key.get(), key_generate(c.type, c.bits).get()), 0);
    }
    // A DSA key up to 1024 bits has the 160-bit subgroup "ssh-dss" needs.
    KeyPtr dsa = key_generate(KEY_DSA, 1024);
    EXPECT_EQ(BN_num_bits(pkey_get_bn(dsa->pkey.get(), OSSL_PKEY_PARAM_FFC_Q).get()), 160);

    LogCapture log;
    EXPECT_TRUE(!key_generate(KEY_ECDSA, 300) && !key_generate(KEY_NULL, 256));
    EXPECT_TRUE(log.contains("key_generate: unknown type 7"));
    EXPECT_TRUE(!key_from_private(nullptr) && !key_from_private(key_new(KEY_RSA).get()));
    EXPECT_EQ(key_equal(key_generate(KEY_RSA, 1024).get(), nullptr), 0);
    EXPECT_EQ(key_description(key_new(KEY_UNSPEC).get()), "");
    EXPECT_EQ(key_size(key_new(KEY_RSA).get()), 0u);
    EXPECT_THROW(key_new(KEY_NULL), FatalError);
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
    for (auto [name, type] : {std::pair{"RSA", KEY_RSA}, {"dsa", KEY_DSA}, {"Ecdsa", KEY_ECDSA}, {"Ed25519", KEY_ED25519},
                              {"ssh-rsa", KEY_UNSPEC}})
        EXPECT_EQ(key_type_from_short_name(name), type) << name;

    // The algorithm name follows the chosen row and, for certificates, the
    // signature type setting; the blob name stays the key's own.
    KeyPtr rsa = key_new(KEY_RSA), x509 = key_new(KEY_X509_RSA);
    EXPECT_STREQ(key_ssh_name(rsa.get()), "ssh-rsa");
    for (auto [sigtype, name] : {std::pair{2, "x509v3-rsa2048-sha256"}, {3, "x509v3-sign-rsa"}}) {
        set_x509rsa_sigtype(sigtype);
        EXPECT_STREQ(key_ssh_name(x509.get()), name);
    }
    rsa->sigalg = signature_algorithm_by_name("RSA-SHA2-512");
    EXPECT_STREQ(key_ssh_name(rsa.get()), "rsa-sha2-512");
    EXPECT_STREQ(key_blob_type_name(rsa.get()), "ssh-rsa");
    KeyPtr ec = key_new(KEY_ECDSA), x509ec = key_new(KEY_X509_ECDSA);
    EXPECT_STREQ(key_ssh_name(ec.get()), "ssh-unknown");
    ec->ecdsa_nid = KEY_NID_P384;
    x509ec->ecdsa_nid = KEY_NID_P521;
    EXPECT_EQ(std::tuple(std::string(key_blob_type_name(ec.get())), std::string(key_ssh_name(x509ec.get())),
                         std::string(key_blob_type_name(x509ec.get()))),
              std::tuple("ecdsa-sha2-nistp384", "x509v3-ecdsa-sha2-nistp521", ""));
    for (auto [type, text] : {std::pair{KEY_X509_RSA, "X509(rsa)"}, {KEY_X509_DSA, "X509(dsa)"}, {KEY_X509_ECDSA, "X509(ecdsa)"},
                              {KEY_ECDSA, "ECDSA"}, {KEY_ED25519, "ED25519"}, {KEY_UNSPEC, "unknown"}})
        EXPECT_STREQ(key_type(key_new(type).get()), text);
    x509->pkey = std::move(key_generate(KEY_RSA, 1024)->pkey);
    EXPECT_STREQ(key_type(x509.get()), "RSA+cert");

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
    EXPECT_STREQ(digest_text_name(NID_sha384), "SHA384");
    EXPECT_STREQ(digest_text_name(NID_sha224), "UNDEF");

    Bytes blob = {0, 0, 0, 7, 's', 's', 'h', '-', 'r', 's', 'a', 0, 0, 0, 1, 3};
    EXPECT_EQ(key_blob_name(blob.data(), static_cast<uint32_t>(blob.size())), "ssh-rsa");
    EXPECT_EQ(key_blob_name(blob.data(), 10), "");  // cut inside the name
    EXPECT_EQ(key_blob_name(nullptr, 0), "");
    Bytes der = {0x30, 0x82, 0x01, 0x0a};
    EXPECT_EQ(key_blob_name(der.data(), static_cast<uint32_t>(der.size())), "");
}

// The renderings, checked against the published examples (ssh-keygen's own
// output is compared in the OpenSSH tests).
TEST(Key, FingerprintRenderings)
{
    auto babble = [](const char *text) {
        return fingerprint_bubblebabble(reinterpret_cast<const uint8_t *>(text), strlen(text));
    };
    EXPECT_EQ(fingerprint_bubblebabble(nullptr, 0), "xexax");
    EXPECT_EQ(babble("1234567890"), "xesef-disof-gytuf-katof-movif-baxux");
    EXPECT_EQ(babble("Pineapple"), "xigak-nyryk-humil-bosek-sonax");
    const uint8_t abc[3] = {'a', 'b', 'c'};
    // No base64 padding, as OpenSSH shows it.
    EXPECT_EQ(std::tuple(fingerprint_base64(abc, 3), fingerprint_base64(abc, 2), fingerprint_base64(abc, 1),
                         fingerprint_hex(abc, 3)),
              std::tuple("YWJj", "YWI", "YQ", "61:62:63"));

    LogCapture log;
    KeyPtr key = key_generate(KEY_ECDSA, 256);
    for (auto [digest, size] : {std::pair{SSH_FP_SHA1, 20u}, {SSH_FP_MD5, 16u}, {SSH_FP_SHA256, 32u}})
        EXPECT_EQ(key_fingerprint_raw(key.get(), digest).size(), size);
    EXPECT_THROW(key_fingerprint_raw(key.get(), 3), FatalError);
    EXPECT_THROW(key_fingerprint(key.get(), SSH_FP_SHA1, 3), FatalError);
    EXPECT_TRUE(key_fingerprint_raw(key_new(KEY_UNSPEC).get(), SSH_FP_SHA1).empty());
    EXPECT_THROW(key_fingerprint(key_new(KEY_UNSPEC).get(), SSH_FP_SHA1, SSH_FP_HEX), FatalError);

    // A key chosen as rsa-sha2-512 still hashes as ssh-rsa.
    KeyPtr rsa = key_generate(KEY_RSA, 1024);
    std::string plain = key_fingerprint(rsa.get(), SSH_FP_SHA256, SSH_FP_BASE64);
    rsa->sigalg = signature_algorithm_by_name("rsa-sha2-512");
    EXPECT_EQ(key_fingerprint(rsa.get(), SSH_FP_SHA256, SSH_FP_BASE64), plain);
}
