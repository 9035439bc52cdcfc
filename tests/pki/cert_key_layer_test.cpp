#include <gtest/gtest.h>

#include "keys/cert_key_hooks.h"
#include "keys/key_blob.h"
#include "pki/cert_key_layer.h"
#include "pki/x509_key_blob.h"
#include "support/cert_key_layer_environment.h"
#include "support/test_certificate.h"

namespace {

TEST(CertKeyLayer, InstalledForEveryTest)
{
    const CertKeyHooks &hooks = cert_key_hooks();
    EXPECT_NE(hooks.rfc6187_blob, nullptr);
    EXPECT_NE(hooks.by_public_key_hash, nullptr);
}

TEST(CertKeyLayer, Rfc6187BlobIsTheChainWritersAndReadsBack)
{
    cert_key_layer_install();
    KeyPtr key = x509key_from_certificate(self_signed_p256("layer"), nullptr);
    ASSERT_TRUE(key);
    const char *name = "x509v3-ecdsa-sha2-nistp256";
    SecureBytes direct;
    uint32_t direct_len = 0;
    ASSERT_GT(ssh_pki_x509key_to_rfc6187_pubkey_blob(key.get(), nullptr, &direct, &direct_len, name, nullptr), 0);
    SecureBytes blob;
    uint32_t len = key_to_blob(key.get(), &blob, nullptr, name);
    ASSERT_EQ(len, direct_len);
    EXPECT_EQ(blob, direct);
    KeyPtr again = key_from_blob(blob.data(), len);
    ASSERT_TRUE(again);
    EXPECT_EQ(again->type, KEY_X509_ECDSA);
    EXPECT_TRUE(key_equal(key.get(), again.get()));
}

TEST(CertKeyLayer, UnknownSourceFindsNothing)
{
    cert_key_layer_install();
    uint8_t hash[20] = {};
    EXPECT_EQ(cert_key_hooks().by_public_key_hash(99, hash, sizeof hash), nullptr);
}

}  // namespace
