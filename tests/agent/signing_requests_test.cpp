#include <gtest/gtest.h>

#include "agent/forwarding_notice.h"
#include "crypto/signature_check.h"
#include "support/agent_state.h"
#include "support/dispatch_helper.h"
#include "support/identity_fixture.h"
#include "support/log_capture.h"

namespace {

const std::string data_to_sign = "\x01\x02\x03\x04\x05\x06\x07\x08 data to sign";

// The signature blob of a reply 14, or an empty one.
SecureBytes signature_of(const Bytes &reply)
{
    ReplyReader r(reply);
    return r.code == 14 ? buffer_get_string(&r.b) : SecureBytes();
}

void expect_signs(const Bytes &request, const Identity *identity, const char *name, const char *md,
                  const char *layout)
{
    SecureBytes sig = signature_of(dispatch_bytes(request).reply);
    expect_verifies(sig, identity->key->pkey.get(), name, md, layout, text_bytes(data_to_sign));
}

using SigningRequests = UnlockedAgentTest;

}  // namespace

// The flags choose the RSA algorithm; other keys ignore them (every key
// type's own signature is checked in the add tests).
TEST_F(SigningRequests, FlagsChooseTheRsaAlgorithm)
{
    LogCapture log;
    Identity *rsa = add_test_identity(key_generate(KEY_RSA, 2048), "rsa", "id_RSA_2048");
    Bytes blob = public_blob(rsa->key.get());
    for (auto [flags, name, md] : {std::tuple{0u, "ssh-rsa", "SHA1"}, {1u, "ssh-rsa", "SHA1"}, {2u, "rsa-sha2-256", "SHA256"},
                                   {4u, "rsa-sha2-512", "SHA512"}, {6u, "rsa-sha2-512", "SHA512"}})
        expect_signs(sign_request(blob, data_to_sign, flags), rsa, name, md, "rsa");
    EXPECT_TRUE(log.contains("keyagent: Signing using key id_RSA_2048 (as type: rsa-sha2-512,  hash: SHA512)"));
    EXPECT_TRUE(log.contains("keyagent: Signature for key: id_RSA_2048 - forward step(s) 0"));
    // A key blob read under "rsa-sha2-256" keeps that algorithm.
    expect_signs(sign_request(public_blob(rsa->key.get(), "rsa-sha2-256"), data_to_sign), rsa, "rsa-sha2-256", "SHA256",
                 "rsa");
    Identity *ec = add_test_identity(key_generate(KEY_ECDSA, 384), "ec", "id_ECDSA_384");
    expect_signs(sign_request(public_blob(ec->key.get()), data_to_sign, 6), ec, "ecdsa-sha2-nistp384", "SHA384", "mpint");

    // An unknown key fails with the one-byte failure.
    KeyPtr stranger = key_generate(KEY_ECDSA, 256);
    EXPECT_EQ(dispatch_bytes(sign_request(public_blob(stranger.get()), data_to_sign)).reply, hex_bytes("00000001 05"));
    EXPECT_TRUE(log.contains("keyagent: Key sign request failed"));
}

TEST_F(SigningRequests, VersionTwoOperations)
{
    Identity *ec = add_test_identity(key_generate(KEY_ECDSA, 256), "ec", "e");
    auto request = [&](const char *operation) {
        return request_of(205, [&](Buffer *b) {
            buffer_put_cstring(b, operation);
            put_bytes(b, public_blob(ec->key.get()));
            put_bytes(b, text_bytes(data_to_sign));
        });
    };
    EXPECT_EQ(dispatch_bytes(request("decrypt")).reply, hex_bytes("00000002 66 08"));
    ReplyReader reply(dispatch_bytes(request("ssh-hash-and-sign")).reply);
    ASSERT_EQ(reply.code, 105);
    // The bare signature: the mpints r and s, nothing in front.
    SecureBytes bare = buffer_get_string(&reply.b);
    Bytes wrapped = signature_blob("ecdsa-sha2-nistp256", Bytes(bare.begin(), bare.end()));
    expect_verifies(SecureBytes(wrapped.begin(), wrapped.end()), ec->key->pkey.get(), "ecdsa-sha2-nistp256", "SHA256",
                    "mpint", text_bytes(data_to_sign));
}

TEST_F(SigningRequests, CertificateKeysSignAsPlainKeysOnlyWhenCertsCountAsKeys)
{
    Identity *cert = add_test_identity(make_test_certificate_key(), "cert", "c");
    KeyPtr plain = key_from_private(cert->key.get());
    plain->type = KEY_RSA;
    plain->cert.reset();
    Bytes request = sign_request(public_blob(plain.get(), "ssh-rsa"), data_to_sign, 2);
    for (uint32_t mode : {0x02u, 0x13u}) {
        agent_enum_set(mode);
        expect_signs(request, cert, "rsa-sha2-256", "SHA256", "rsa");
        EXPECT_EQ(cert->key->type, KEY_X509_RSA);
    }
    agent_enum_set(0x01);
    EXPECT_EQ(dispatch_bytes(request).reply, hex_bytes("00000001 05"));
}

// With ConfirmKeyOp on, a forwarded request signs only when the user says
// yes; local requests are never asked about.
TEST_F(SigningRequests, ConfirmKeyOpAsksForRemoteRequestsOnly)
{
    LogCapture log;
    static bool answer = false;
    static int asked = 0;
    ShellServices shell;
    shell.confirm_key_operation = [](const char *) { return ++asked, answer; };
    shell_services_set(shell);
    Identity *ec = add_test_identity(key_generate(KEY_ECDSA, 256), "ec", "e");
    Bytes request = sign_request(public_blob(ec->key.get()), data_to_sign);
    for (auto [confirm, chain, yes, signs, asks] :
         {std::tuple{0u, 1, false, true, 0}, {1u, 0, false, true, 0}, {1u, 1, false, false, 1}, {1u, 2, true, true, 1}}) {
        set_confirm_key_op(confirm);
        answer = yes;
        asked = 0;
        EXPECT_EQ(!signature_of(dispatch_bytes(request, 1, chain).reply).empty(), signs) << confirm << chain;
        EXPECT_EQ(asked, asks) << confirm << chain;
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
        put_bytes(b, text_bytes(data_to_sign));
        for (uint32_t field : {0, 2, 1, 0x23})  // flags, RSA and DSA signature types, enumeration mode
            buffer_put_int(b, field);
        buffer_put_int64(b, 0x1234);
    });
    expect_signs(request, ec, "ecdsa-sha2-nistp256", "SHA256", "mpint");
    EXPECT_EQ(std::tuple(get_x509rsa_sigtype(), get_x509dsa_sigtype(), agent_enum_get(), agent_dialog_owner()),
              std::tuple(2, 1, 0x23u, uint64_t{0x1234}));
}
