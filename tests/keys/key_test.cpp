#include <gtest/gtest.h>

#include <openssl/core_names.h>

#include "crypto/signature_types.h"
#include "keys/key.h"
#include "keys/key_fingerprint.h"
#include "support/bytes.h"
#include "support/log_capture.h"

TEST(KeyNames, TypeCodesFromNames)
{
    LogCapture log;
    EXPECT_EQ(key_type_from_name("SSH-RSA"), KEY_RSA);
    EXPECT_EQ(key_type_from_name("Rsa-Sha2-512"), KEY_RSA);
    EXPECT_EQ(key_type_from_name(SSH_RSA_SHA256_VENDOR_ALIAS), KEY_RSA);
    EXPECT_EQ(key_type_from_name("ssh-dss"), KEY_DSA);
    EXPECT_EQ(key_type_from_name("x509v3-ssh-rsa"), KEY_X509_RSA);
    EXPECT_EQ(key_type_from_name("x509v3-rsa2048-sha256"), KEY_X509_RSA);
    EXPECT_EQ(key_type_from_name("x509v3-sign-dss"), KEY_X509_DSA);
    EXPECT_EQ(key_type_from_name("ecdsa-sha2-nistp999"), KEY_ECDSA);
    EXPECT_EQ(key_type_from_name("x509v3-ecdsa-sha2-nistp384"), KEY_X509_ECDSA);
    EXPECT_EQ(key_type_from_name("SSH-ED25519"), KEY_ED25519);
    EXPECT_EQ(key_type_from_name("null"), KEY_NULL);
    EXPECT_EQ(key_type_from_name("ssh-foo"), KEY_UNSPEC);
    EXPECT_TRUE(log.contains("key_type_from_name: unknown key type 'ssh-foo'"));

    EXPECT_EQ(key_type_from_short_name("RSA"), KEY_RSA);
    EXPECT_EQ(key_type_from_short_name("dsa"), KEY_DSA);
    EXPECT_EQ(key_type_from_short_name("Ecdsa"), KEY_ECDSA);
    EXPECT_EQ(key_type_from_short_name("Ed25519"), KEY_ED25519);
    EXPECT_EQ(key_type_from_short_name("ssh-rsa"), KEY_UNSPEC);
}

TEST(KeyNames, AlgorithmNamesFollowRowAndSetting)
{
    KeyPtr rsa = key_new(KEY_RSA);
    EXPECT_STREQ(key_ssh_name(rsa.get()), "ssh-rsa");
    set_x509rsa_sigtype(2);
    EXPECT_STREQ(key_ssh_name(rsa.get()), "rsa-sha2-256");
    EXPECT_STREQ(key_ssh_name(key_new(KEY_X509_RSA).get()), "x509v3-rsa2048-sha256");
    set_x509rsa_sigtype(3);
    EXPECT_STREQ(key_ssh_name(key_new(KEY_X509_RSA).get()), "x509v3-sign-rsa");

    rsa->sigalg = signature_algorithm_by_name("rsa-sha2-512");
    EXPECT_STREQ(key_ssh_name(rsa.get()), "rsa-sha2-512");
    EXPECT_STREQ(key_blob_type_name(rsa.get()), "ssh-rsa");

    KeyPtr ec = key_new(KEY_ECDSA);
    EXPECT_STREQ(key_ssh_name(ec.get()), "ssh-unknown");
    EXPECT_STREQ(key_blob_type_name(ec.get()), "ssh-unknown");
    ec->ecdsa_nid = KEY_NID_P384;
    EXPECT_STREQ(key_ssh_name(ec.get()), "ecdsa-sha2-nistp384");
    EXPECT_STREQ(key_blob_type_name(ec.get()), "ecdsa-sha2-nistp384");
    KeyPtr x509ec = key_new(KEY_X509_ECDSA);
    x509ec->ecdsa_nid = KEY_NID_P521;
    EXPECT_STREQ(key_ssh_name(x509ec.get()), "x509v3-ecdsa-sha2-nistp521");
    EXPECT_STREQ(key_blob_type_name(x509ec.get()), "");
    EXPECT_STREQ(key_ssh_name(key_new(KEY_DSA).get()), "ssh-dss");
    EXPECT_STREQ(key_blob_type_name(nullptr), "ssh-unknown");
}

TEST(KeyNames, ShortTypeNamesAndCurveTables)
{
    KeyPtr cert = key_new(KEY_X509_RSA);
    EXPECT_STREQ(key_type(cert.get()), "X509(rsa)");
    cert->pkey = std::move(key_generate(KEY_RSA, 1024)->pkey);
    EXPECT_STREQ(key_type(cert.get()), "RSA+cert");
    EXPECT_STREQ(key_type(key_new(KEY_X509_DSA).get()), "X509(dsa)");
    EXPECT_STREQ(key_type(key_new(KEY_X509_ECDSA).get()), "X509(ecdsa)");
    EXPECT_STREQ(key_type(key_new(KEY_ECDSA).get()), "ECDSA");
    EXPECT_STREQ(key_type(key_new(KEY_ED25519).get()), "ED25519");
    EXPECT_STREQ(key_ssh_name(key_new(KEY_ED25519).get()), "ssh-ed25519");
    EXPECT_STREQ(key_blob_type_name(key_new(KEY_ED25519).get()), "ssh-ed25519");
    EXPECT_STREQ(key_type(key_new(KEY_UNSPEC).get()), "unknown");

    EXPECT_EQ(key_curve_name_to_nid("nistp384"), 715);
    EXPECT_EQ(key_curve_name_to_nid("NISTP384"), -1);  // curve names compare exactly
    EXPECT_STREQ(key_curve_nid_to_name(716), "nistp521");
    EXPECT_EQ(key_curve_nid_to_name(1), nullptr);
    EXPECT_EQ(key_ecdsa_name_to_nid("ECDSA-SHA2-NISTP256"), 415);
    EXPECT_EQ(key_ecdsa_name_to_nid("x509v3-ecdsa-sha2-nistp521"), 716);
    EXPECT_EQ(key_ecdsa_name_to_nid("ecdsa-sha2-nistp999"), -1);
    EXPECT_EQ(key_ecdsa_bits_to_nid(384), 715);
    EXPECT_EQ(key_ecdsa_bits_to_nid(300), -1);
    EXPECT_EQ(key_ecdsa_nid_to_bits(716), 521);
    EXPECT_EQ(key_ecdsa_nid_to_bits(1), 0);
}

TEST(KeyObject, CreationAndRefusals)
{
    LogCapture log;
    EXPECT_THROW(key_new(KEY_NULL), FatalError);
    EXPECT_TRUE(log.contains("key_new: bad key type 7"));
    KeyPtr unspec = key_new(KEY_UNSPEC);
    EXPECT_EQ(unspec->type, KEY_UNSPEC);
    EXPECT_EQ(unspec->pkey, nullptr);
    EXPECT_EQ(unspec->ecdsa_nid, -1);
    EXPECT_NE(key_new(KEY_X509_DSA)->cert, nullptr);
    EXPECT_EQ(key_new(KEY_X509_ECDSA)->cert, nullptr);

    log.clear();
    key_new_private(KEY_X509_RSA);
    key_new_private(KEY_X509_DSA);
    EXPECT_TRUE(log.contains("key_new_private: X509(rsa) MORE ...?"));
    EXPECT_TRUE(log.contains("key_new_private: X509(dsa) MORE ...?"));

    EXPECT_EQ(key_generate(KEY_ECDSA, 300), nullptr);
    EXPECT_TRUE(log.contains("ecdsa_generate_private_key: unknown nid"));
    EXPECT_EQ(key_generate(KEY_NULL, 256), nullptr);
    EXPECT_TRUE(log.contains("key_generate: unknown type 7"));

    EXPECT_EQ(key_from_private(nullptr), nullptr);
    EXPECT_TRUE(log.contains("key_from_private: failed to extract public key, type=7"));
    EXPECT_EQ(key_from_private(key_new(KEY_RSA).get()), nullptr);

    Key *bad = key_new(KEY_RSA).release();
    bad->type = 42;
    EXPECT_EQ(key_equal(bad, bad), 0);
    EXPECT_TRUE(log.contains("key_equal: bad key type 42"));
    key_free(bad);
    EXPECT_TRUE(log.contains("key_free: bad key type 42"));
    key_free(nullptr);
}

TEST(KeyObject, GeneratedKeysAndTheirPublicHalves)
{
    struct Case { int type; unsigned bits; int nid; };
    for (Case c : {Case{KEY_RSA, 2048, -1}, Case{KEY_DSA, 1024, -1}, Case{KEY_ECDSA, 256, 415},
                   Case{KEY_ECDSA, 384, 715}, Case{KEY_ECDSA, 521, 716}, Case{KEY_ED25519, 256, -1}}) {
        SCOPED_TRACE(c.bits);
        KeyPtr key = key_generate(c.type, c.bits);
        ASSERT_NE(key, nullptr);
        EXPECT_EQ(key->type, c.type);
        EXPECT_EQ(key->ecdsa_nid, c.nid);
        EXPECT_EQ(key_size(key.get()), c.bits);

        KeyPtr pub = key_from_private(key.get());
        ASSERT_NE(pub, nullptr);
        EXPECT_EQ(pub->type, c.type);
        EXPECT_EQ(pub->ecdsa_nid, c.nid);
        EXPECT_NE(key_equal(key.get(), pub.get()), 0);
        // Only the public half travels.
        BIGNUM *secret = nullptr;
        const char *param = c.type == KEY_RSA ? OSSL_PKEY_PARAM_RSA_D : OSSL_PKEY_PARAM_PRIV_KEY;
        EXPECT_EQ(EVP_PKEY_get_bn_param(pub->pkey.get(), param, &secret), 0);
        BN_free(secret);
        size_t seed_len = 0;
        EXPECT_NE(EVP_PKEY_get_raw_private_key(pub->pkey.get(), nullptr, &seed_len), 1);

        KeyPtr other = key_generate(c.type, c.bits);
        EXPECT_EQ(key_equal(key.get(), other.get()), 0);
    }
    EXPECT_EQ(key_equal(key_generate(KEY_RSA, 1024).get(), nullptr), 0);
}

TEST(KeyObject, BlobNameIsTheFirstString)
{
    Bytes blob = {0, 0, 0, 7, 's', 's', 'h', '-', 'r', 's', 'a', 0, 0, 0, 1, 3};
    EXPECT_EQ(key_blob_name(blob.data(), static_cast<uint32_t>(blob.size())), "ssh-rsa");
    EXPECT_EQ(key_blob_name(nullptr, 0), "");
    Bytes der = {0x30, 0x82, 0x01, 0x0a};
    EXPECT_EQ(key_blob_name(der.data(), static_cast<uint32_t>(der.size())), "");
}
