#include <gtest/gtest.h>

#include <openssl/evp.h>

#include "agent/handlers.h"
#include "keys/key_blob.h"
#include "pki/agent_enum.h"
#include "support/dispatch_helper.h"
#include "support/identity_fixture.h"
#include "support/log_capture.h"

namespace {

const Bytes data_to_sign = hex_bytes("0102030405060708090a0b0c0d0e0f10 1112131415161718");

Bytes public_blob(const Key *key, const char *name = nullptr)
{
    SecureBytes blob;
    uint32_t len = key_to_blob(key, &blob, nullptr, name ? name : key_blob_type_name(key));
    return Bytes(blob.begin(), blob.begin() + len);
}

Bytes sign_request(uint8_t number, const Bytes &blob, uint32_t flags)
{
    Buffer body;
    buffer_put_char(&body, number);
    buffer_put_string(&body, blob.data(), static_cast<uint32_t>(blob.size()));
    buffer_put_string(&body, data_to_sign.data(), static_cast<uint32_t>(data_to_sign.size()));
    buffer_put_int(&body, flags);
    return frame(buffer_bytes(body));
}

struct Signature {
    std::string name;
    Bytes bytes;
};

// The signature blob of a reply 14, or nothing.
std::optional<Signature> signature_of(const Bytes &reply)
{
    Buffer b;
    buffer_append(&b, reply.data(), static_cast<uint32_t>(reply.size()));
    buffer_get_int(&b);
    if (buffer_get_char(&b) != 14)
        return std::nullopt;
    uint32_t len = 0;
    SecureBytes blob = buffer_get_string(&b, &len);
    Buffer sig;
    buffer_append(&sig, blob.data(), len);
    Signature s;
    s.name = buffer_get_string_text(&sig);
    SecureBytes raw = buffer_get_string(&sig);
    s.bytes.assign(raw.begin(), raw.end());
    return s;
}

// Checks an RSA (or, with no digest, Ed25519) signature with OpenSSL alone.
bool rsa_verifies(EVP_PKEY *key, const EVP_MD *md, const Bytes &signature)
{
    EVP_MD_CTX *ctx = EVP_MD_CTX_new();
    bool ok = EVP_DigestVerifyInit(ctx, nullptr, md, nullptr, key) == 1 &&
              EVP_DigestVerify(ctx, signature.data(), signature.size(), data_to_sign.data(), data_to_sign.size()) == 1;
    EVP_MD_CTX_free(ctx);
    return ok;
}

// Checks an SSH ECDSA signature (mpint r, mpint s) with OpenSSL alone.
bool ecdsa_verifies(EVP_PKEY *key, const EVP_MD *md, const Bytes &inner)
{
    Buffer b;
    buffer_append(&b, inner.data(), static_cast<uint32_t>(inner.size()));
    BIGNUM *r = BN_new(), *s = BN_new();
    buffer_get_bignum2(&b, r);
    buffer_get_bignum2(&b, s);
    ECDSA_SIG *sig = ECDSA_SIG_new();
    ECDSA_SIG_set0(sig, r, s);
    unsigned char *der = nullptr;
    int der_len = i2d_ECDSA_SIG(sig, &der);
    ECDSA_SIG_free(sig);
    bool ok = rsa_verifies(key, md, Bytes(der, der + der_len));
    OPENSSL_free(der);
    return ok;
}

struct Unlocked {
    Unlocked() { agent_set_locked(false); identity_tables_init(); }
    ~Unlocked() { agent_set_locked(true); identity_tables_init(); }
};

}  // namespace

TEST(SigningRequests, FlagsChooseTheRsaAlgorithmAndEverySignatureVerifies)
{
    LogCapture log;
    Unlocked unlocked;
    Identity *rsa = add_test_identity(key_generate(KEY_RSA, 2048), "rsa", "id_RSA_2048");
    Bytes blob = public_blob(rsa->key.get());
    struct { uint32_t flags; const char *name; const EVP_MD *md; } cases[] = {
        {0, "ssh-rsa", EVP_sha1()}, {2, "rsa-sha2-256", EVP_sha256()},
        {4, "rsa-sha2-512", EVP_sha512()}, {6, "rsa-sha2-512", EVP_sha512()}};
    for (const auto &c : cases) {
        auto sig = signature_of(dispatch_bytes(sign_request(13, blob, c.flags)).reply);
        ASSERT_TRUE(sig) << c.flags;
        EXPECT_EQ(sig->name, c.name);
        EXPECT_EQ(sig->bytes.size(), 256u);
        EXPECT_TRUE(rsa_verifies(rsa->key->pkey.get(), c.md, sig->bytes)) << c.name;
    }
    EXPECT_TRUE(log.contains("keyagent: Signing using key id_RSA_2048 (as type: rsa-sha2-512,  hash: SHA512)"));
    EXPECT_TRUE(log.contains("keyagent: Signature for key: id_RSA_2048 - forward step(s) 0"));

    // A key blob read under "rsa-sha2-256" keeps that algorithm.
    auto by_name = signature_of(dispatch_bytes(sign_request(13, public_blob(rsa->key.get(), "rsa-sha2-256"), 0)).reply);
    ASSERT_TRUE(by_name);
    EXPECT_EQ(by_name->name, "rsa-sha2-256");

    // Flags on an ECDSA key change nothing.
    Identity *ec = add_test_identity(key_generate(KEY_ECDSA, 384), "ec", "id_ECDSA_384");
    auto ec_sig = signature_of(dispatch_bytes(sign_request(13, public_blob(ec->key.get()), 6)).reply);
    ASSERT_TRUE(ec_sig);
    EXPECT_EQ(ec_sig->name, "ecdsa-sha2-nistp384");
    EXPECT_TRUE(ecdsa_verifies(ec->key->pkey.get(), EVP_sha384(), ec_sig->bytes));

    // Ed25519 signs the data whole (PureEdDSA).
    Identity *ed = add_test_identity(key_generate(KEY_ED25519, 0), "ed", "id_ED25519_256");
    auto ed_sig = signature_of(dispatch_bytes(sign_request(13, public_blob(ed->key.get()), 6)).reply);
    ASSERT_TRUE(ed_sig);
    EXPECT_EQ(ed_sig->name, "ssh-ed25519");
    EXPECT_EQ(ed_sig->bytes.size(), 64u);
    EXPECT_TRUE(rsa_verifies(ed->key->pkey.get(), nullptr, ed_sig->bytes));

    // An unknown key fails with the one-byte failure.
    KeyPtr stranger = key_generate(KEY_ECDSA, 256);
    EXPECT_EQ(dispatch_bytes(sign_request(13, public_blob(stranger.get()), 0)).reply, hex_bytes("00000001 05"));
    EXPECT_TRUE(log.contains("keyagent: Key sign request failed"));
}

TEST(SigningRequests, VersionTwoOperations)
{
    Unlocked unlocked;
    Identity *ec = add_test_identity(key_generate(KEY_ECDSA, 256), "ec", "e");
    Bytes blob = public_blob(ec->key.get());
    auto request = [&](const char *operation) {
        Buffer body;
        buffer_put_char(&body, 205);
        buffer_put_cstring(&body, operation);
        buffer_put_string(&body, blob.data(), static_cast<uint32_t>(blob.size()));
        buffer_put_string(&body, data_to_sign.data(), static_cast<uint32_t>(data_to_sign.size()));
        return frame(buffer_bytes(body));
    };
    EXPECT_EQ(dispatch_bytes(request("decrypt")).reply, hex_bytes("00000002 66 08"));

    Bytes reply = dispatch_bytes(request("ssh-hash-and-sign")).reply;
    Buffer b;
    buffer_append(&b, reply.data(), static_cast<uint32_t>(reply.size()));
    buffer_get_int(&b);
    ASSERT_EQ(buffer_get_char(&b), 105);
    SecureBytes bare = buffer_get_string(&b);
    // The bare signature: the mpints r and s, nothing in front.
    EXPECT_TRUE(ecdsa_verifies(ec->key->pkey.get(), EVP_sha256(), Bytes(bare.begin(), bare.end())));
}

TEST(SigningRequests, CertificateKeysSignAsPlainKeysOnlyWhenCertsCountAsKeys)
{
    Unlocked unlocked;
    Identity *cert = add_test_identity(make_test_certificate_key(), "cert", "c");
    KeyPtr plain = key_from_private(cert->key.get());
    plain->type = KEY_RSA;
    plain->cert.reset();
    Bytes blob = public_blob(plain.get(), "ssh-rsa");

    agent_enum_set(0x02);
    auto sig = signature_of(dispatch_bytes(sign_request(13, blob, 2)).reply);
    ASSERT_TRUE(sig);
    EXPECT_EQ(sig->name, "rsa-sha2-256");
    EXPECT_TRUE(rsa_verifies(cert->key->pkey.get(), EVP_sha256(), sig->bytes));
    EXPECT_EQ(cert->key->type, KEY_X509_RSA);

    agent_enum_set(0x01);
    EXPECT_EQ(dispatch_bytes(sign_request(13, blob, 2)).reply, hex_bytes("00000001 05"));
    agent_enum_set(0x13);
}
