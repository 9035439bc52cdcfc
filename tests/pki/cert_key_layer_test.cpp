#include <gtest/gtest.h>

#include "keys/cert_key_hooks.h"
#include "keys/key_blob.h"
#include "keys/public_key_format.h"
#include "log/log.h"
#include "pki/cert_key_layer.h"
#include "pki/cert_provider.h"
#include "pki/x509_key_blob.h"
#include "support/cert_key_layer_environment.h"
#include "support/test_certificate.h"

namespace {

// The key code writes and reads certificate identities through the
// certificate layer; plain keys and plain certificate blobs need no layer.
// (The blob layouts themselves are compared in the X.509 blob tests.)
struct CertKeyLayer : ::testing::Test {
    void TearDown() override { cert_key_layer_install(); }
};

TEST_F(CertKeyLayer, CertificateBlobsGoThroughTheLayer)
{
    KeyPtr key = x509key_from_certificate(self_signed_p256("layer"), nullptr);
    ASSERT_TRUE(key);
    const char *name = "x509v3-ecdsa-sha2-nistp256";
    SecureBytes blob;
    uint32_t len = key_to_blob(key.get(), &blob, nullptr, name);
    KeyPtr again = key_from_blob(blob.data(), len);
    ASSERT_TRUE(again);
    EXPECT_EQ(again->type, KEY_X509_ECDSA);
    EXPECT_TRUE(key_equal(key.get(), again.get()));

    // Without the layer, only what needs it fails.
    cert_key_hooks_set(nullptr);
    EXPECT_THROW(key_to_blob(key.get(), &blob, nullptr, name), FatalError);
    KeyPtr read = key_new(KEY_UNSPEC);
    const char *cursor = "x509v3-ecdsa-sha2-nistp256#CERT_PKCS11 AQIDBAUGBwgJCgsMDQ4PEBESExQ=";
    EXPECT_THROW(key_read(read.get(), &cursor), FatalError);
    len = key_to_blob(key.get(), &blob, nullptr, "x509v3-sign-rsa");
    ASSERT_GT(len, 0u);
    EXPECT_EQ(blob[0], 0x30);  // the DER certificate alone
    EXPECT_TRUE(key_equal(key_from_blob(blob.data(), len).get(), key.get()));
    KeyPtr plain = key_generate(KEY_ECDSA, 256);
    len = key_to_blob(plain.get(), &blob, nullptr, key_ssh_name(plain.get()));
    EXPECT_TRUE(key_equal(key_from_blob(blob.data(), len).get(), plain.get()));
}

// A provider installed for a location (the Windows store goes in as 1)
// answers its lookups; unknown locations have none.
TEST_F(CertKeyLayer, InstalledProvidersAnswerTheirLocations)
{
    static const CertProvider provider = {[](const std::string &identifier) {
                                              KeyPtr key = key_generate(KEY_ED25519, 0);
                                              key->name = identifier;
                                              return key;
                                          },
                                          nullptr, nullptr};
    for (uint32_t location : {1u, 2u, 3u}) {
        cert_provider_set(location, &provider);
        KeyPtr found = cert_identity_lookup(location, "from the provider");
        ASSERT_TRUE(found) << location;
        EXPECT_EQ(found->name, "from the provider");
        cert_provider_set(location, nullptr);
        EXPECT_NE(cert_provider_for(location), &provider);
    }
    cert_provider_set(4, &provider);
    EXPECT_EQ(cert_provider_for(4), nullptr);
    EXPECT_EQ(cert_provider_for(0), nullptr);
}

}  // namespace
