#include <gtest/gtest.h>

#include "crypto/signature_check.h"
#include "keys/key_blob.h"
#include "support/agent_state.h"
#include "support/dispatch_helper.h"
#include "support/identity_fixture.h"
#include "support/log_capture.h"

namespace {

using Names = std::vector<std::string>;

// The entries of a list reply on `connection`: each offered name (a remote
// entry's comment begins with it; a plain certificate blob has no name of
// its own), or for the vendor's local list "blob name|comment|key name".
Names list(const char *body_hex, uint64_t connection = 1, uint8_t code = 12)
{
    ReplyReader reply(dispatch_bytes(request_hex(body_hex), connection).reply);
    EXPECT_EQ(reply.code, code);
    Names entries(reply.code == code ? buffer_get_int(&reply.b) : 0);
    for (std::string &entry : entries) {
        uint32_t len = 0;
        SecureBytes blob = buffer_get_string(&reply.b, &len);
        entry = buffer_get_string_text(&reply.b);
        if (std::string(body_hex) == "9b")
            entry = key_blob_name(blob.data(), len) + "|" + entry + "|" + buffer_get_string_text(&reply.b);
        else
            entry = entry.substr(0, entry.find(" - "));
    }
    EXPECT_EQ(buffer_len(&reply.b), 0u) << "the count must match the entries";
    return entries;
}

// The entries for a server that sent a vendor forwarding notice with
// enumeration setting `setting` on its own connection.
Names list_for_server(uint32_t setting, uint32_t enum_mode)
{
    dispatch_bytes(vendor_notice("host", setting), 7);
    agent_enum_set(enum_mode);
    Names names = list("0b", 7);
    forwarding_notice_connection_closed(7);
    return names;
}

using IdentityListing = UnlockedAgentTest;

}  // namespace

TEST_F(IdentityListing, EntriesFollowTheEnumerationModeTheServerKindSha1OnlyAndFips)
{
    LogCapture log;
    add_test_identity(make_test_certificate_key("RSA", 1024), "rsa", "r");
    const Names as_keys = {"rsa-sha2-256", "rsa-sha2-512", "ssh-rsa"};
    agent_enum_set(0x13);  // both, certificates first
    EXPECT_EQ(list("0b"), (Names{"x509v3-ssh-rsa", "x509v3-sign-rsa", as_keys[0], as_keys[1], as_keys[2]}));
    agent_enum_set(0x01);  // certificates as certificates; 1024 bits: no rsa2048
    EXPECT_EQ(list("0b"), (Names{"x509v3-ssh-rsa", "x509v3-sign-rsa"}));
    agent_enum_set(0x02);  // as keys only
    EXPECT_EQ(list("0b"), as_keys);
    // Keys first; an OpenSSH server gets no certificates, SunSSH neither
    // certificates nor ECDSA keys.
    EXPECT_EQ(list_for_server(0x200, 0x23), as_keys);
    EXPECT_EQ(list_for_server(0x400, 0x13), (Names{"ssh-rsa"}));

    // Servers that take plain certificates only: PKIX gets the ECDSA one as
    // plain DER, OpenVMS none; both get RSA as x509v3-sign-rsa alone.
    add_test_identity(make_test_certificate_key("EC"), "ec", "e");
    EXPECT_EQ(list_for_server(0x300, 0x01), (Names{"x509v3-sign-rsa", "x509v3-ecdsa-sha2-nistp256"}));
    EXPECT_EQ(list_for_server(0x500, 0x01), (Names{"x509v3-sign-rsa"}));

    // From 2048 bits on, the SHA-256 certificate form comes first.
    identity_tables_init();
    add_test_identity(make_test_certificate_key("RSA", 2048), "big", "b");
    agent_enum_set(0x01);
    EXPECT_EQ(list("0b"), (Names{"x509v3-rsa2048-sha256", "x509v3-ssh-rsa", "x509v3-sign-rsa"}));

    // Plain keys: RSA under three names (and the vendor's alias for its own
    // servers); SunSSH gets ssh-rsa alone.
    identity_tables_init();
    add_test_identity(key_generate(KEY_RSA, 2048), "laptop key", "id_RSA_2048");
    add_test_identity(key_generate(KEY_ECDSA, 256), "ec", "e");
    add_test_identity(key_generate(KEY_ED25519, 0), "ed", "d");
    const Names all = {"rsa-sha2-256", "rsa-sha2-512", "ssh-rsa", "ecdsa-sha2-nistp256", "ssh-ed25519"};
    EXPECT_EQ(list("0b"), all);
    EXPECT_TRUE(log.contains("keyagent: Identity list request (remote) : returned 5 key/certs(s)"));
    EXPECT_EQ(list_for_server(0x100, AGENT_ENUM_INITIAL),
              (Names{"rsa-sha2-256", SSH_RSA_SHA256_VENDOR_ALIAS, "rsa-sha2-512", "ssh-rsa", all[3], all[4]}));
    EXPECT_EQ(list_for_server(0x400, AGENT_ENUM_INITIAL), (Names{"ssh-rsa"}));
    // The vendor's own list: one entry per key with comment and key name
    // apart. Version 2 numbering answers 104.
    const Names local = {"ssh-rsa|laptop key|id_RSA_2048", "ecdsa-sha2-nistp256|ec|e", "ssh-ed25519|ed|d"};
    EXPECT_EQ(list("9b"), local);
    EXPECT_EQ(list("cc", 1, 104).size(), 5u);

    // UseOnlySha1 and FIPS mode filter what a server is offered.
    set_use_only_sha1(1);
    EXPECT_EQ(list("0b"), (Names{"ssh-rsa"}));
    EXPECT_EQ(list("9b"), local);
    set_use_only_sha1(0);

    set_environment("TARNWELL_FIPS", "1");
    EXPECT_EQ(list("0b"), (Names{"rsa-sha2-256", "rsa-sha2-512", "ecdsa-sha2-nistp256"}));
    EXPECT_TRUE(log.contains("Not listing ssh-rsa, MD5 and SHA1 signatures not allowed in FIPS mode."));
    // This library's FIPS implementation has no Ed25519: it is left out. A
    // local list still offers ssh-rsa.
    EXPECT_TRUE(log.contains("Not listing ssh-ed25519, Ed25519 signatures not allowed in FIPS mode."));
    EXPECT_EQ(list("9b"), (Names{local[0], local[1]}));

    // A module whose FIPS implementation provides Ed25519 lists it.
    CryptoApi api = *crypto_module_get();
    api.fips_provides_signature = [](const char *name) { return std::string(name) == "ED25519" ? 1 : 0; };
    crypto_module_replace_api(&api);
    EXPECT_EQ(list("0b").back(), "ssh-ed25519");
}

// Sign requests.
namespace {

const std::string data_to_sign = "\x01\x02\x03\x04\x05\x06\x07\x08 data to sign";

// The request is answered with a signature (reply 14) of `name` that the
// identity's key verifies.
void expect_signs(const Bytes &request, const Identity *identity, const char *name, const char *md,
                  const char *layout)
{
    ReplyReader reply(dispatch_bytes(request).reply);
    ASSERT_EQ(reply.code, 14);
    expect_verifies(buffer_get_string(&reply.b), identity->key->pkey.get(), name, md, layout, text_bytes(data_to_sign));
}

using SigningRequests = UnlockedAgentTest;

}  // namespace

// The flags choose the RSA algorithm; other keys ignore them (every key
// type's own signature is checked end to end with OpenSSH's tools).
TEST_F(SigningRequests, FlagsCertificateKeysVersionTwoAndVendorRequests)
{
    LogCapture log;
    Identity *rsa = add_test_identity(key_generate(KEY_RSA, 2048), "rsa", "id_RSA_2048");
    Bytes blob = public_blob(rsa->key.get());
    for (auto [flags, name, md] : {std::tuple{1u, "ssh-rsa", "SHA1"}, {2u, "rsa-sha2-256", "SHA256"},
                                   {6u, "rsa-sha2-512", "SHA512"}})
        expect_signs(sign_request(blob, data_to_sign, flags), rsa, name, md, "rsa");
    // A key blob read under "rsa-sha2-256" keeps that algorithm.
    expect_signs(sign_request(public_blob(rsa->key.get(), "rsa-sha2-256"), data_to_sign), rsa, "rsa-sha2-256", "SHA256",
                 "rsa");
    Identity *ec = add_test_identity(key_generate(KEY_ECDSA, 384), "ec", "id_ECDSA_384");
    expect_signs(sign_request(public_blob(ec->key.get()), data_to_sign, 6), ec, "ecdsa-sha2-nistp384", "SHA384", "mpint");

    // An unknown key fails with the one-byte failure.
    KeyPtr stranger = key_generate(KEY_ECDSA, 256);
    EXPECT_EQ(dispatch_bytes(sign_request(public_blob(stranger.get()), data_to_sign)).reply, hex_bytes("00000001 05"));
    EXPECT_TRUE(log.contains("keyagent: Key sign request failed"));

    // A certificate key signs as its plain key only when certificates count
    // as keys.
    Identity *cert = add_test_identity(make_test_certificate_key(), "cert", "c");
    KeyPtr plain = key_from_private(cert->key.get());
    plain->type = KEY_RSA;
    plain->cert.reset();
    Bytes as_plain = sign_request(public_blob(plain.get(), "ssh-rsa"), data_to_sign, 2);
    agent_enum_set(0x13);
    expect_signs(as_plain, cert, "rsa-sha2-256", "SHA256", "rsa");
    EXPECT_EQ(cert->key->type, KEY_X509_RSA);
    agent_enum_set(0x01);
    EXPECT_EQ(dispatch_bytes(as_plain).reply, hex_bytes("00000001 05"));

    // Version 2 operations: only hash-and-sign is served.
    Identity *ec256 = add_test_identity(key_generate(KEY_ECDSA, 256), "ec", "e");
    auto request = [&](const char *operation) {
        return request_of(205, [&](Buffer *b) {
            buffer_put_cstring(b, operation);
            put_bytes(b, public_blob(ec256->key.get()));
            put_bytes(b, text_bytes(data_to_sign));
        });
    };
    EXPECT_EQ(dispatch_bytes(request("decrypt")).reply, hex_bytes("00000002 66 08"));
    ReplyReader reply(dispatch_bytes(request("ssh-hash-and-sign")).reply);
    ASSERT_EQ(reply.code, 105);
    // The bare signature: the mpints r and s, nothing in front.
    SecureBytes bare = buffer_get_string(&reply.b);
    Bytes wrapped = signature_blob("ecdsa-sha2-nistp256", Bytes(bare.begin(), bare.end()));
    expect_verifies(SecureBytes(wrapped.begin(), wrapped.end()), ec256->key->pkey.get(), "ecdsa-sha2-nistp256",
                    "SHA256", "mpint", text_bytes(data_to_sign));

    // The vendor sign request carries the signature types, the enumeration
    // mode and the owner window, which stay in force afterwards.
    Bytes vendor = request_of(160, [&](Buffer *b) {
        put_bytes(b, public_blob(ec256->key.get()));
        put_bytes(b, text_bytes(data_to_sign));
        for (uint32_t field : {0, 2, 1, 0x23})  // flags, RSA and DSA signature types, enumeration mode
            buffer_put_int(b, field);
        buffer_put_int64(b, 0x1234);
    });
    expect_signs(vendor, ec256, "ecdsa-sha2-nistp256", "SHA256", "mpint");
    EXPECT_EQ(std::tuple(get_x509rsa_sigtype(), get_x509dsa_sigtype(), agent_enum_get(), agent_dialog_owner()),
              std::tuple(2, 1, 0x23u, uint64_t{0x1234}));
}

