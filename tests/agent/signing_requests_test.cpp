#include <gtest/gtest.h>

#include <openssl/evp.h>

#include "agent/forwarding_notice.h"
#include "agent/handlers.h"
#include "keys/key_blob.h"
#include "pki/agent_enum.h"
#include "support/agent_state.h"
#include "support/dispatch_helper.h"
#include "support/identity_fixture.h"
#include "support/log_capture.h"

namespace {

const Bytes data_to_sign = hex_bytes("0102030405060708090a0b0c0d0e0f10 1112131415161718");

Bytes sign_request(uint8_t number, const Bytes &blob, uint32_t flags)
{
    return request_of(number, [&](Buffer *b) {
        put_bytes(b, blob);
        put_bytes(b, data_to_sign);
        buffer_put_int(b, flags);
    });
}

struct Signature {
    std::string name;
    Bytes bytes;
};

// The signature blob of a reply 14, or nothing.
std::optional<Signature> signature_of(const Bytes &reply)
{
    ReplyReader r(reply);
    if (r.code != 14)
        return std::nullopt;
    uint32_t len = 0;
    SecureBytes blob = buffer_get_string(&r.b, &len);
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

using SigningRequests = UnlockedAgentTest;

bool confirm_answer = false;
int confirm_asked = 0;

}  // namespace

TEST_F(SigningRequests, FlagsChooseTheRsaAlgorithmAndEverySignatureVerifies)
{
    LogCapture log;
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

TEST_F(SigningRequests, VersionTwoOperations)
{
    Identity *ec = add_test_identity(key_generate(KEY_ECDSA, 256), "ec", "e");
    Bytes blob = public_blob(ec->key.get());
    auto request = [&](const char *operation) {
        return request_of(205, [&](Buffer *b) {
            buffer_put_cstring(b, operation);
            put_bytes(b, blob);
            put_bytes(b, data_to_sign);
        });
    };
    EXPECT_EQ(dispatch_bytes(request("decrypt")).reply, hex_bytes("00000002 66 08"));

    ReplyReader reply(dispatch_bytes(request("ssh-hash-and-sign")).reply);
    ASSERT_EQ(reply.code, 105);
    SecureBytes bare = buffer_get_string(&reply.b);
    // The bare signature: the mpints r and s, nothing in front.
    EXPECT_TRUE(ecdsa_verifies(ec->key->pkey.get(), EVP_sha256(), Bytes(bare.begin(), bare.end())));
}

TEST_F(SigningRequests, CertificateKeysSignAsPlainKeysOnlyWhenCertsCountAsKeys)
{
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
}

// With ConfirmKeyOp on, a forwarded request signs only when the user says
// yes; local requests are never asked about.
TEST_F(SigningRequests, ConfirmKeyOpAsksForRemoteRequestsOnly)
{
    LogCapture log;
    ShellServices shell;
    shell.confirm_key_operation = [](const char *) { return ++confirm_asked, confirm_answer; };
    shell_services_set(shell);
    Identity *ec = add_test_identity(key_generate(KEY_ECDSA, 256), "ec", "e");
    Bytes request = sign_request(13, public_blob(ec->key.get()), 0);
    confirm_asked = 0;
    for (auto [confirm, chain, answer, signs, asked] :
         {std::tuple{0u, 1, false, true, 0}, {1u, 0, false, true, 0}, {1u, 1, false, false, 1}, {1u, 2, true, true, 1}}) {
        set_confirm_key_op(confirm);
        confirm_answer = answer;
        int before = confirm_asked;
        EXPECT_EQ(signature_of(dispatch_bytes(request, 1, chain).reply).has_value(), signs) << confirm << chain;
        EXPECT_EQ(confirm_asked - before, asked) << confirm << chain;
    }
    EXPECT_TRUE(log.contains("keyagent: User rejected a request from a remote server to issue a signature"));
}

// The vendor sign request carries the signature types, the enumeration
// mode and the owner window, which stay in force afterwards.
TEST_F(SigningRequests, VendorSignRequestSetsItsFields)
{
    Identity *ec = add_test_identity(key_generate(KEY_ECDSA, 256), "ec", "e");
    Bytes request = request_of(160, [&](Buffer *b) {
        put_bytes(b, public_blob(ec->key.get()));
        put_bytes(b, data_to_sign);
        buffer_put_int(b, 0);
        buffer_put_int(b, 2);
        buffer_put_int(b, 1);
        buffer_put_int(b, 0x23);
        buffer_put_int64(b, 0x1234);
    });
    auto sig = signature_of(dispatch_bytes(request).reply);
    ASSERT_TRUE(sig);
    EXPECT_TRUE(ecdsa_verifies(ec->key->pkey.get(), EVP_sha256(), sig->bytes));
    EXPECT_EQ(get_x509rsa_sigtype(), 2);
    EXPECT_EQ(get_x509dsa_sigtype(), 1);
    EXPECT_EQ(agent_enum_get(), 0x23u);
    EXPECT_EQ(agent_dialog_owner(), 0x1234u);
}
