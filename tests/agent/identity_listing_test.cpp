#include <gtest/gtest.h>

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

TEST_F(IdentityListing, RsaEntriesFollowTheServerKind)
{
    LogCapture log;
    add_test_identity(key_generate(KEY_RSA, 2048), "laptop key", "id_RSA_2048");
    EXPECT_EQ(list("0b"), (Names{"rsa-sha2-256", "rsa-sha2-512", "ssh-rsa"}));
    EXPECT_TRUE(log.contains("keyagent: Identity list request (remote) : returned 3 key/certs(s)"));
    EXPECT_TRUE(log.contains("Added key rsa-sha2-256 - id_RSA_2048 (type 1) to message for host/server."));
    EXPECT_EQ(list_for_server(0x100, AGENT_ENUM_INITIAL),
              (Names{"rsa-sha2-256", SSH_RSA_SHA256_VENDOR_ALIAS, "rsa-sha2-512", "ssh-rsa"}));
    EXPECT_EQ(list_for_server(0x400, AGENT_ENUM_INITIAL), (Names{"ssh-rsa"}));
    // The vendor's own list: one entry with comment and key name apart.
    EXPECT_EQ(list("9b"), (Names{"ssh-rsa|laptop key|id_RSA_2048"}));
    // Version 2 numbering answers 104; protocol 1 lists are empty.
    EXPECT_EQ(list("cc", 1, 104).size(), 3u);
    EXPECT_TRUE(list("01", 1, 2).empty());
}

TEST_F(IdentityListing, Sha1OnlyAndFipsFiltering)
{
    LogCapture log;
    add_test_identity(key_generate(KEY_RSA, 1024), "rsa", "r");
    add_test_identity(key_generate(KEY_ECDSA, 256), "ec", "e");
    add_test_identity(key_generate(KEY_ED25519, 0), "ed", "d");
    EXPECT_EQ(list("0b").back(), "ssh-ed25519");
    const Names local = {"ssh-rsa|rsa|r", "ecdsa-sha2-nistp256|ec|e", "ssh-ed25519|ed|d"};
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

TEST_F(IdentityListing, CertificatesFollowTheEnumerationModeAndTheServer)
{
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
}
