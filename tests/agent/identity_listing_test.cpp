#include <gtest/gtest.h>

#include "keys/key_blob.h"
#include "support/agent_state.h"
#include "support/dispatch_helper.h"
#include "support/identity_fixture.h"
#include "support/log_capture.h"

namespace {

struct ListEntry {
    std::string blob_name;
    std::string comment;
    std::string key_name;  // local lists only
};

// Sends a list request on `connection` and parses the entries.
std::vector<ListEntry> list(const char *body_hex, uint64_t connection = 1, bool local = false,
                            uint8_t *code = nullptr)
{
    ReplyReader reply(dispatch_bytes(request_hex(body_hex), connection).reply);
    Buffer &b = reply.b;
    if (code)
        *code = reply.code;
    uint32_t count = buffer_get_int(&b);
    std::vector<ListEntry> entries;
    for (uint32_t i = 0; i < count; ++i) {
        uint32_t len = 0;
        SecureBytes blob = buffer_get_string(&b, &len);
        ListEntry e;
        e.blob_name = key_blob_name(blob.data(), len);
        e.comment = buffer_get_string_text(&b);
        if (local) {
            e.key_name = buffer_get_string_text(&b);
            if (e.blob_name.rfind("x509v3", 0) == 0 || e.blob_name.empty())
                buffer_get_int(&b);
        }
        entries.push_back(e);
    }
    EXPECT_EQ(buffer_len(&b), 0u) << "the count must match the entries";
    return entries;
}

// The offered names: a remote entry's comment begins with it (a plain
// certificate blob is DER alone and has no name of its own).
std::vector<std::string> names(const std::vector<ListEntry> &entries)
{
    std::vector<std::string> out;
    for (const auto &e : entries)
        out.push_back(e.key_name.empty() ? e.comment.substr(0, e.comment.find(" - ")) : e.blob_name);
    return out;
}

// A vendor forwarding notice with enumeration setting `setting` on `connection`.
void notice_on(uint64_t connection, uint32_t setting) { dispatch_bytes(vendor_notice("host", setting), connection); }

using IdentityListing = UnlockedAgentTest;

}  // namespace

TEST_F(IdentityListing, RsaEntriesFollowTheServerKind)
{
    LogCapture log;
    add_test_identity(key_generate(KEY_RSA, 2048), "laptop key", "id_RSA_2048");

    std::vector<ListEntry> plain = list("0b", 1);
    EXPECT_EQ(names(plain), (std::vector<std::string>{"rsa-sha2-256", "rsa-sha2-512", "ssh-rsa"}));
    EXPECT_EQ(plain[0].comment, "rsa-sha2-256 - laptop key");
    EXPECT_TRUE(log.contains("keyagent: Identity list request (remote) : returned 3 key/certs(s)"));

    notice_on(2, 0x100);
    EXPECT_EQ(names(list("0b", 2)), (std::vector<std::string>{"rsa-sha2-256", SSH_RSA_SHA256_VENDOR_ALIAS,
                                                               "rsa-sha2-512", "ssh-rsa"}));
    notice_on(3, 0x400);
    EXPECT_EQ(names(list("0b", 3)), (std::vector<std::string>{"ssh-rsa"}));
    forwarding_notice_connection_closed(2);
    forwarding_notice_connection_closed(3);

    // The vendor's own list: one entry with comment and key name apart.
    std::vector<ListEntry> local = list("9b", 1, true);
    ASSERT_EQ(local.size(), 1u);
    EXPECT_EQ(local[0].blob_name, "ssh-rsa");
    EXPECT_EQ(local[0].comment, "laptop key");
    EXPECT_EQ(local[0].key_name, "id_RSA_2048");

    // Version 2 numbering answers 104; protocol 1 lists are empty.
    uint8_t code = 0;
    list("cc", 1, false, &code);
    EXPECT_EQ(code, 104);
    EXPECT_TRUE(list("01", 1, false, &code).empty());
    EXPECT_EQ(code, 2);
}

TEST_F(IdentityListing, Sha1OnlyAndFipsFiltering)
{
    LogCapture log;
    add_test_identity(key_generate(KEY_RSA, 2048), "rsa", "r");
    add_test_identity(key_generate(KEY_ECDSA, 256), "ec", "e");
    add_test_identity(key_generate(KEY_ED25519, 0), "ed", "d");
    EXPECT_EQ(names(list("0b")).back(), "ssh-ed25519");

    set_use_only_sha1(1);
    EXPECT_EQ(names(list("0b")), (std::vector<std::string>{"ssh-rsa"}));
    EXPECT_EQ(names(list("9b", 1, true)), (std::vector<std::string>{"ssh-rsa", "ecdsa-sha2-nistp256", "ssh-ed25519"}));
    set_use_only_sha1(0);

    set_environment("TARNWELL_FIPS", "1");
    EXPECT_EQ(names(list("0b")), (std::vector<std::string>{"rsa-sha2-256", "rsa-sha2-512", "ecdsa-sha2-nistp256"}));
    EXPECT_TRUE(log.contains("Not listing ssh-rsa, MD5 and SHA1 signatures not allowed in FIPS mode."));
    // This library's FIPS implementation has no Ed25519: it is left out.
    EXPECT_TRUE(log.contains("Not listing ssh-ed25519, Ed25519 signatures not allowed in FIPS mode."));
    // A local list still offers ssh-rsa.
    EXPECT_EQ(names(list("9b", 1, true)), (std::vector<std::string>{"ssh-rsa", "ecdsa-sha2-nistp256"}));

    // A module whose FIPS implementation provides Ed25519 lists it.
    CryptoApi api = *crypto_module_get();
    api.fips_provides_signature = [](const char *name) { return std::string(name) == "ED25519" ? 1 : 0; };
    crypto_module_replace_api(&api);
    EXPECT_EQ(names(list("0b")).back(), "ssh-ed25519");
}

TEST_F(IdentityListing, CertificatesFollowTheEnumerationMode)
{
    add_test_identity(make_test_certificate_key("RSA", 1024), "cert", "c");

    agent_enum_set(0x13);  // both, certificates first
    EXPECT_EQ(names(list("0b")), (std::vector<std::string>{"x509v3-ssh-rsa", "x509v3-sign-rsa", "rsa-sha2-256",
                                                            "rsa-sha2-512", "ssh-rsa"}));
    agent_enum_set(0x01);  // certificates as certificates; 1024 bits: no rsa2048
    EXPECT_EQ(names(list("0b")), (std::vector<std::string>{"x509v3-ssh-rsa", "x509v3-sign-rsa"}));
    agent_enum_set(0x02);  // as keys only
    EXPECT_EQ(names(list("0b")), (std::vector<std::string>{"rsa-sha2-256", "rsa-sha2-512", "ssh-rsa"}));
    agent_enum_set(0x23);  // keys first; an OpenSSH server gets no certificates
    notice_on(5, 0x200);
    agent_enum_set(0x23);
    EXPECT_EQ(names(list("0b", 5)), (std::vector<std::string>{"rsa-sha2-256", "rsa-sha2-512", "ssh-rsa"}));
    notice_on(6, 0x400);  // SunSSH: neither certificates nor ECDSA keys
    agent_enum_set(0x13);
    EXPECT_EQ(names(list("0b", 6)), (std::vector<std::string>{"ssh-rsa"}));
    forwarding_notice_connection_closed(5);
    forwarding_notice_connection_closed(6);

    // From 2048 bits on, the SHA-256 certificate form comes first.
    add_test_identity(make_test_certificate_key("RSA", 2048), "big", "b");
    agent_enum_set(0x01);
    std::vector<std::string> both = names(list("0b"));
    ASSERT_EQ(both.size(), 5u);
    EXPECT_EQ(both[2], "x509v3-rsa2048-sha256");
}

// Servers that take plain certificates only: PKIX gets the ECDSA one as
// plain DER, OpenVMS none; both get RSA as x509v3-sign-rsa alone.
TEST_F(IdentityListing, PlainCertificatesForPkixAndOpenVms)
{
    add_test_identity(make_test_certificate_key("RSA", 1024), "rsa", "r");
    add_test_identity(make_test_certificate_key("EC"), "ec", "e");
    using Names = std::vector<std::string>;
    for (auto [setting, expected] : {std::pair{0x300u, Names{"x509v3-sign-rsa", "x509v3-ecdsa-sha2-nistp256"}},
                                     {0x500u, Names{"x509v3-sign-rsa"}}}) {
        notice_on(7, setting);
        agent_enum_set(0x01);
        EXPECT_EQ(names(list("0b", 7)), expected) << setting;
        forwarding_notice_connection_closed(7);
    }
}
