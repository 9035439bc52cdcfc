#include <gtest/gtest.h>

#include "agent/forwarding_notice.h"
#include "crypto/signature_check.h"
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

// The signature blob of a reply 14, or an empty one.
SecureBytes signature_of(const Bytes &reply)
{
    ReplyReader r(reply);
    return r.code == 14 ? buffer_get_string(&r.b) : SecureBytes();
}

using SigningRequests = UnlockedAgentTest;

bool confirm_answer = false;
int confirm_asked = 0;

}  // namespace

// The flags choose the RSA algorithm; other keys ignore them (every key
// type's own signature is checked in the add tests).
TEST_F(SigningRequests, FlagsChooseTheRsaAlgorithm)
{
    LogCapture log;
    Identity *rsa = add_test_identity(key_generate(KEY_RSA, 2048), "rsa", "id_RSA_2048");
    Bytes blob = public_blob(rsa->key.get());
    for (auto [flags, name, md] : {std::tuple{0u, "ssh-rsa", "SHA1"}, {1u, "ssh-rsa", "SHA1"}, {2u, "rsa-sha2-256", "SHA256"},
                                   {4u, "rsa-sha2-512", "SHA512"}, {6u, "rsa-sha2-512", "SHA512"}}) {
        SecureBytes sig = signature_of(dispatch_bytes(sign_request(13, blob, flags)).reply);
        expect_verifies(sig, rsa->key->pkey.get(), name, md, "rsa", data_to_sign);
    }
    EXPECT_TRUE(log.contains("keyagent: Signing using key id_RSA_2048 (as type: rsa-sha2-512,  hash: SHA512)"));
    EXPECT_TRUE(log.contains("keyagent: Signature for key: id_RSA_2048 - forward step(s) 0"));
    // A key blob read under "rsa-sha2-256" keeps that algorithm.
    SecureBytes by_name = signature_of(dispatch_bytes(sign_request(13, public_blob(rsa->key.get(), "rsa-sha2-256"), 0)).reply);
    expect_verifies(by_name, rsa->key->pkey.get(), "rsa-sha2-256", "SHA256", "rsa", data_to_sign);
    Identity *ec = add_test_identity(key_generate(KEY_ECDSA, 384), "ec", "id_ECDSA_384");
    SecureBytes ec_sig = signature_of(dispatch_bytes(sign_request(13, public_blob(ec->key.get()), 6)).reply);
    expect_verifies(ec_sig, ec->key->pkey.get(), "ecdsa-sha2-nistp384", "SHA384", "mpint", data_to_sign);

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
    // The bare signature: the mpints r and s, nothing in front.
    SecureBytes bare = buffer_get_string(&reply.b);
    Bytes wrapped = signature_blob("ecdsa-sha2-nistp256", Bytes(bare.begin(), bare.end()));
    expect_verifies(SecureBytes(wrapped.begin(), wrapped.end()), ec->key->pkey.get(), "ecdsa-sha2-nistp256", "SHA256",
                    "mpint", data_to_sign);
}

TEST_F(SigningRequests, CertificateKeysSignAsPlainKeysOnlyWhenCertsCountAsKeys)
{
    Identity *cert = add_test_identity(make_test_certificate_key(), "cert", "c");
    KeyPtr plain = key_from_private(cert->key.get());
    plain->type = KEY_RSA;
    plain->cert.reset();
    Bytes blob = public_blob(plain.get(), "ssh-rsa");
    for (uint32_t mode : {0x02u, 0x13u}) {
        agent_enum_set(mode);
        SecureBytes sig = signature_of(dispatch_bytes(sign_request(13, blob, 2)).reply);
        expect_verifies(sig, cert->key->pkey.get(), "rsa-sha2-256", "SHA256", "rsa", data_to_sign);
        EXPECT_EQ(cert->key->type, KEY_X509_RSA);
    }
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
        EXPECT_EQ(!signature_of(dispatch_bytes(request, 1, chain).reply).empty(), signs) << confirm << chain;
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
    SecureBytes sig = signature_of(dispatch_bytes(request).reply);
    expect_verifies(sig, ec->key->pkey.get(), "ecdsa-sha2-nistp256", "SHA256", "mpint", data_to_sign);
    EXPECT_EQ(get_x509rsa_sigtype(), 2);
    EXPECT_EQ(get_x509dsa_sigtype(), 1);
    EXPECT_EQ(agent_enum_get(), 0x23u);
    EXPECT_EQ(agent_dialog_owner(), 0x1234u);
}
