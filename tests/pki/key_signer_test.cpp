#include <gtest/gtest.h>

#include "crypto/crypto_module.h"
#include "crypto/signature_check.h"
#include "pki/key_signer.h"
#include "support/fips_environment.h"
#include "support/log_capture.h"

namespace {

const Bytes DATA = text_bytes("challenge");

int sign(const Key *key, SecureBytes *blob)
{
    return key_sign(nullptr, 0, key, blob, DATA.data(), DATA.size(), nullptr, 0);
}

int verify(const Key *key, const SecureBytes &blob, const Bytes &data = DATA)
{
    return key_verify(key, blob.data(), blob.size(), data.data(), data.size());
}

}  // namespace

TEST(KeySigner, DispatchesByKeyType)
{
    KeyPtr identity = key_new(KEY_X509_ECDSA);
    identity->pkey = std::move(signing_key(KEY_ECDSA, 521)->pkey);
    identity->ecdsa_nid = KEY_NID_P521;
    const std::pair<KeyPtr, const char *> keys[] = {
        {signing_key(KEY_RSA, 2048, "rsa-sha2-512"), "rsa-sha2-512"},
        {signing_key(KEY_DSA, 1024), "ssh-dss"},
        {signing_key(KEY_ECDSA, 256), "ecdsa-sha2-nistp256"},
        {std::move(identity), "ecdsa-sha2-nistp521"},
        {signing_key(KEY_ED25519, 0), "ssh-ed25519"},
    };
    for (const auto &[key, name] : keys) {
        SCOPED_TRACE(name);
        SecureBytes blob;
        ASSERT_EQ(sign(key.get(), &blob), 0);
        EXPECT_EQ(parse_blob(blob).name, name);
        EXPECT_EQ(verify(key.get(), blob), 1);
        EXPECT_EQ(verify(key.get(), blob, text_bytes("changed")), 0);
    }
}

TEST(KeySigner, RefusalsAndErrors)
{
    LogCapture log;
    KeyPtr ec = signing_key(KEY_ECDSA, 256);
    SecureBytes blob;
    ASSERT_EQ(sign(ec.get(), &blob), 0);
    EXPECT_EQ(key_verify(ec.get(), blob.data(), 0, DATA.data(), DATA.size()), -1);
    blob.push_back(0);  // the ECDSA code's own error code becomes -1 here
    EXPECT_EQ(verify(ec.get(), blob), -1);

    KeyPtr unknown = key_new(KEY_UNSPEC);
    EXPECT_EQ(verify(unknown.get(), blob), -1);
    EXPECT_TRUE(log.contains("key_verify: illegal key type 8"));
    EXPECT_NE(sign(unknown.get(), &blob), 0);

    // Certificate identities of these types are the certificate layer's.
    KeyPtr cert = key_new(KEY_X509_RSA);
    cert->pkey = std::move(signing_key(KEY_RSA, 1024)->pkey);
    SecureBytes none;
    EXPECT_NE(sign(cert.get(), &none), 0);
    EXPECT_TRUE(none.empty());
    EXPECT_TRUE(log.contains("key_sign: certificate signatures are not supported for key type 3"));
    EXPECT_EQ(verify(cert.get(), blob), -1);

    KeyPtr dsa = signing_key(KEY_DSA, 1024);
    KeyPtr ed = signing_key(KEY_ED25519, 0);
    SecureBytes ed_blob;
    ASSERT_EQ(sign(ed.get(), &ed_blob), 0);
    FipsEnvironment fips;
    EXPECT_EQ(sign(dsa.get(), &none), 0);
    EXPECT_TRUE(none.empty());
    // Ed25519 is used under the FIPS rules only when the module's FIPS
    // implementation provides it (this library's has none); verifying stays.
    EXPECT_EQ(sign(ed.get(), &none), -1);
    EXPECT_TRUE(log.contains("ssh_ed25519_sign: FIPS does not allow Ed25519 keys"));
    EXPECT_EQ(verify(ed.get(), ed_blob), 1);
    CryptoApi api = *crypto_module_get();
    api.fips_provides_signature = [](const char *) { return 1; };
    crypto_module_replace_api(&api);
    EXPECT_EQ(sign(ed.get(), &none), 0);
    crypto_module_replace_api(nullptr);
}
