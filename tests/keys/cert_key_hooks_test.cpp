#include <gtest/gtest.h>

#include <string>

#include "keys/cert_key_blob.h"
#include "keys/cert_key_hooks.h"
#include "keys/key_blob.h"
#include "keys/public_key_format.h"
#include "log/log.h"
#include "pki/cert_key_layer.h"
#include "support/bytes.h"
#include "support/test_certificate.h"

namespace {

struct Seen {
    int calls = 0;
    std::string name;
    uint32_t source = 0;
    Bytes hash;
};
Seen seen;

int fake_blob(const Key *, SecureBytes *blob, uint32_t *len, const char *name)
{
    ++seen.calls;
    seen.name = name;
    blob->assign({1, 2, 3});
    *len = 3;
    return 3;
}

KeyPtr fake_lookup(uint32_t source, const uint8_t *hash, size_t len)
{
    ++seen.calls;
    seen.source = source;
    seen.hash.assign(hash, hash + len);
    return nullptr;
}

const CertKeyHooks fake = {fake_blob, fake_lookup};

// Bytes 1 to 20, base64.
const char *const reference_line = "x509v3-ecdsa-sha2-nistp256#CERT_PKCS11 AQIDBAUGBwgJCgsMDQ4PEBESExQ=";

class CertKeyHooksTest : public ::testing::Test {
protected:
    void SetUp() override { seen = Seen{}; }
    // Whatever a test installed, the rest of the program runs with the real layer.
    void TearDown() override { cert_key_layer_install(); }

    KeyPtr identity() { return x509key_from_certificate(self_signed_p256("hooks"), nullptr); }
};

TEST_F(CertKeyHooksTest, Rfc6187NamesAreWrittenThroughTheHook)
{
    cert_key_hooks_set(&fake);
    KeyPtr key = identity();
    ASSERT_TRUE(key);
    SecureBytes blob;
    EXPECT_EQ(key_to_blob(key.get(), &blob, nullptr, "x509v3-ecdsa-sha2-nistp256"), 3u);
    EXPECT_EQ(Bytes(blob.begin(), blob.end()), (Bytes{1, 2, 3}));
    EXPECT_EQ(seen.calls, 1);
    EXPECT_EQ(seen.name, "x509v3-ecdsa-sha2-nistp256");
}

TEST_F(CertKeyHooksTest, PlainCertificateBlobsNeedNoHook)
{
    cert_key_hooks_set(&fake);
    KeyPtr key = identity();
    ASSERT_TRUE(key);
    SecureBytes blob;
    uint32_t len = key_to_blob(key.get(), &blob, nullptr, "x509v3-sign-rsa");
    ASSERT_GT(len, 0u);
    EXPECT_EQ(blob[0], 0x30);  // the DER certificate alone
    EXPECT_EQ(seen.calls, 0);
    KeyPtr again = key_from_blob(blob.data(), len);
    ASSERT_TRUE(again);
    EXPECT_TRUE(key_equal(key.get(), again.get()));
}

TEST_F(CertKeyHooksTest, ReferenceLinesAreResolvedThroughTheHook)
{
    cert_key_hooks_set(&fake);
    KeyPtr key = key_new(KEY_UNSPEC);
    const char *cursor = reference_line;
    EXPECT_EQ(key_read(key.get(), &cursor), -1);  // the fake source holds nothing
    EXPECT_EQ(seen.calls, 1);
    EXPECT_EQ(seen.source, CERT_SOURCE_PKCS11);
    EXPECT_EQ(seen.hash, hex_bytes("0102030405060708090a0b0c0d0e0f1011121314"));
}

TEST_F(CertKeyHooksTest, WithoutTheLayerBothAreFatal)
{
    cert_key_hooks_set(nullptr);
    KeyPtr key = identity();
    ASSERT_TRUE(key);
    SecureBytes blob;
    EXPECT_THROW(key_to_blob(key.get(), &blob, nullptr, "x509v3-ecdsa-sha2-nistp256"), FatalError);
    KeyPtr read = key_new(KEY_UNSPEC);
    const char *cursor = reference_line;
    EXPECT_THROW(key_read(read.get(), &cursor), FatalError);
}

TEST_F(CertKeyHooksTest, PlainKeysNeverAskForTheLayer)
{
    cert_key_hooks_set(nullptr);
    KeyPtr key = key_generate(KEY_ECDSA, 256);
    ASSERT_TRUE(key);
    SecureBytes blob;
    uint32_t len = key_to_blob(key.get(), &blob, nullptr, key_ssh_name(key.get()));
    ASSERT_GT(len, 0u);
    KeyPtr again = key_from_blob(blob.data(), len);
    ASSERT_TRUE(again);
    EXPECT_TRUE(key_equal(key.get(), again.get()));
}

}  // namespace
