// The agent's own certificate store (location 3) through the certificate
// provider interface: PKCS#12 import, lookup, signing under every algorithm
// name with OpenSSL as the referee, chains, and the key store across a
// restart.
#include <gtest/gtest.h>

#include <filesystem>

#include "agent/identity_table.h"
#include "agent/key_store.h"
#include "crypto/signature_types.h"
#include "keys/buffer.h"
#include "keys/key_blob.h"
#include "pki/cert_provider.h"
#include "crypto/signature_check.h"
#include "pki/cert_store.h"
#include "pki/key_signer.h"
#include "pki/x509_key_blob.h"
#include "support/agent_state.h"
#include "support/fips_environment.h"
#include "support/log_capture.h"
#include "support/test_pki.h"
#include "pki/cert_identity_helpers.h"

namespace {

TestPki *pki = nullptr;
const Bytes DATA = text_bytes("session identifier and user auth request");

struct CertStoreTest : AgentStateTest {
    static void SetUpTestSuite()
    {
        pki = new TestPki;
        for (auto [name, opt] : {std::pair{"alice", "RSA:2048"}, {"bob", "DSA"}, {"p256", "EC:P-256"},
                                 {"p384", "EC:P-384"}, {"p521", "EC:P-521"}})
            pki->leaf(name, opt);
    }
    static void TearDownTestSuite() { delete pki; }

    void SetUp() override
    {
        AgentStateTest::SetUp();
        set_agent_passphrase("agent pass", 0);
    }

    std::string import(const std::string &leaf, const char *password = "p12pass")
    {
        std::string p12 = read_file_text(pki->path(leaf + ".p12")), sha1, why;
        bool ok = cert_store_import_pkcs12(cert_store_folder(), reinterpret_cast<const uint8_t *>(p12.data()),
                                           p12.size(), password, agent_passphrase_text(), &sha1, &why);
        return ok ? sha1 : "error: " + why;
    }
    static int sign(Key *key, const char *algorithm, SecureBytes *blob)
    {
        key->sigalg = signature_algorithm_by_name(algorithm);
        return key_sign(nullptr, 0, key, blob, DATA.data(), DATA.size(), nullptr, 0);
    }
};

}  // namespace

// Every algorithm name signs, checked by OpenSSL; lookup by name or hash in
// any letter case; bad imports; under FIPS rules, no DSA and no SHA-1.
TEST_F(CertStoreTest, SignsUnderEveryAlgorithmNameAndFollowsFipsRules)
{
    for (const char *leaf : {"alice", "bob", "p256", "p384", "p521"})
        ASSERT_EQ(import(leaf), pki->sha1(pki->path(std::string(leaf) + ".crt")));
    // The row a request selects, whether the certificate is offered as a plain
    // key, the signature type settings, and the signature OpenSSL checks.
    for (auto [leaf, algorithm, as_plain_key, rsa_sigtype, dsa_sigtype, signature_name, md, form] :
         {std::tuple{"alice", "x509v3-sign-rsa", false, 3, 0, "x509v3-sign-rsa", "SHA1", "rsa"},
          {"alice", "x509v3-sign-rsa", false, 1, 0, "x509v3-sign-rsa", "SHA1", "rsa"},
          {"alice", "x509v3-sign-rsa", false, 0, 0, "x509v3-sign-rsa", "MD5", "rsa"},
          {"alice", "x509v3-ssh-rsa", false, 0, 0, "ssh-rsa", "MD5", "rsa"},
          {"alice", "x509v3-rsa2048-sha256", false, 3, 0, "rsa2048-sha256", "SHA256", "rsa"},
          {"alice", "x509v3-rsa2048-sha256", false, 0, 0, "rsa2048-sha256", "SHA256", "rsa"},
          {"alice", "ssh-rsa", true, 3, 0, "ssh-rsa", "SHA1", "rsa"},
          {"alice", "rsa-sha2-512", true, 0, 0, "rsa-sha2-512", "MD5", "rsa"},
          {"bob", "x509v3-sign-dss", false, 3, 0, "x509v3-sign-dss", "SHA1", "raw"},
          {"bob", "x509v3-sign-dss", false, 3, 1, "x509v3-sign-dss", "SHA1", "der"},
          {"bob", "ssh-dss", true, 3, 1, "ssh-dss", "SHA1", "raw"},
          {"p256", "x509v3-ecdsa-sha2-nistp256", false, 3, 0, "ecdsa-sha2-nistp256", "SHA256", "mpint"},
          {"p384", "x509v3-ecdsa-sha2-nistp384", false, 3, 0, "ecdsa-sha2-nistp384", "SHA384", "mpint"},
          {"p521", "x509v3-ecdsa-sha2-nistp521", false, 3, 0, "ecdsa-sha2-nistp521", "SHA512", "mpint"},
          {"p384", "ecdsa-sha2-nistp384", true, 3, 0, "ecdsa-sha2-nistp384", "SHA384", "mpint"}}) {
        SCOPED_TRACE(std::string(leaf) + " " + algorithm + " rsa sigtype " + std::to_string(rsa_sigtype));
        set_x509rsa_sigtype(rsa_sigtype);
        set_x509dsa_sigtype(dsa_sigtype);
        KeyPtr key = cert_identity_lookup(CERT_SOURCE_TARNWELL, leaf);  // by simple name
        ASSERT_NE(key, nullptr);
        if (as_plain_key)
            key->type = key->type == KEY_X509_RSA ? KEY_RSA : key->type == KEY_X509_DSA ? KEY_DSA : KEY_ECDSA;
        SecureBytes blob;
        ASSERT_EQ(sign(key.get(), algorithm, &blob), 0);
        expect_verifies(blob, X509_get0_pubkey(key->cert.get()), signature_name, md, form, DATA);
        // The agent's own verifier agrees (it has no MD5 override for plain
        // keys: those signatures are left to OpenSSL), and refuses other data.
        if (!(as_plain_key && rsa_sigtype == 0)) {
            EXPECT_EQ(key_verify(key.get(), blob.data(), blob.size(), DATA.data(), DATA.size()), 1);
        }
        EXPECT_EQ(key_verify(key.get(), blob.data(), blob.size(), DATA.data(), DATA.size() - 1), 0);
    }
    set_x509rsa_sigtype(3);
    set_x509dsa_sigtype(0);

    LogCapture log;
    std::string upper = pki->sha1(pki->path("alice.crt"));
    for (char &ch : upper)
        ch = static_cast<char>(toupper(ch));
    EXPECT_NE(cert_identity_lookup(CERT_SOURCE_TARNWELL, upper), nullptr);
    EXPECT_EQ(cert_identity_lookup(CERT_SOURCE_TARNWELL, "nobody"), nullptr);
    EXPECT_TRUE(log.contains("no certificate in the agent's store matches \"nobody\""));
    // A provider installed for a location answers its lookups until it is
    // taken away again; locations 0 and 4 have none.
    static const CertProvider provider = {[](const std::string &) { return key_generate(KEY_ED25519, 0); }, nullptr,
                                          nullptr};
    for (uint32_t location : {1u, 2u, 3u}) {
        cert_provider_set(location, &provider);
        KeyPtr found = cert_identity_lookup(location, "alice");
        EXPECT_TRUE(found && found->type == KEY_ED25519) << location;
        cert_provider_set(location, nullptr);
    }
    KeyPtr stored = cert_identity_lookup(CERT_SOURCE_TARNWELL, "alice");
    EXPECT_TRUE(stored && stored->type == KEY_X509_RSA);
    for (uint32_t location : {0u, 4u})
        EXPECT_EQ(cert_identity_lookup(location, "alice"), nullptr) << location;
    EXPECT_EQ(import("alice", "wrong"), "error: wrong PKCS#12 password, or a damaged file");
    std::string p12 = read_file_text(pki->path("alice.p12")), sha1_out, why;
    for (size_t cut : {size_t(0), size_t(10), p12.size() / 2}) {
        EXPECT_FALSE(cert_store_import_pkcs12(cert_store_folder(), reinterpret_cast<const uint8_t *>(p12.data()), cut,
                                              "p12pass", "agent pass", &sha1_out, &why));
        EXPECT_FALSE(why.empty());
    }

    KeyPtr rsa = cert_identity_lookup(CERT_SOURCE_TARNWELL, "alice"), dsa = cert_identity_lookup(CERT_SOURCE_TARNWELL, "bob");
    FipsEnvironment fips;
    EXPECT_EQ(cert_identity_lookup(CERT_SOURCE_TARNWELL, "bob"), nullptr);
    EXPECT_TRUE(log.contains("In FIPS mode, DSA keys are not supported."));
    SecureBytes blob, none;
    EXPECT_EQ(sign(rsa.get(), "x509v3-sign-rsa", &blob), -1);
    EXPECT_TRUE(log.contains("FIPS: MD5 and SHA1 signatures not allowed."));
    EXPECT_EQ(sign(rsa.get(), "x509v3-rsa2048-sha256", &blob), 0);
    expect_verifies(blob, X509_get0_pubkey(rsa->cert.get()), "rsa2048-sha256", "SHA256", "rsa", DATA);
    EXPECT_EQ(sign(dsa.get(), "x509v3-sign-dss", &none), 0);
    EXPECT_TRUE(none.empty());
    EXPECT_TRUE(log.contains("ssh_DSA_do_sign: FIPS does not allow DSA keys"));
}

TEST_F(CertStoreTest, ListChainRemoveAddRestartAndPassphraseChange)
{
    std::string sha1 = import("p256");
    auto entries = cert_store_list(cert_store_folder());
    ASSERT_EQ(entries.size(), 3u);
    EXPECT_EQ(entries[0].name, "p256");
    EXPECT_FALSE(entries[0].ca);
    EXPECT_TRUE(entries[1].ca && entries[2].ca);
    EXPECT_EQ(std::filesystem::status(cert_store_folder()).permissions() & std::filesystem::perms::all,
              std::filesystem::perms::owner_all);

    KeyPtr key = cert_identity_lookup(CERT_SOURCE_TARNWELL, sha1);
    SecureBytes blob;
    ASSERT_GT(ssh_pki_x509key_to_rfc6187_pubkey_blob(key.get(), nullptr, &blob, nullptr, "x509v3-ecdsa-sha2-nistp256",
                                                      nullptr), 0);
    Bytes in(blob.begin(), blob.end());
    ASSERT_EQ(get_u32(in.data() + 30), 3u);  // leaf, intermediate, root
    std::vector<std::string> names;
    for (const Bytes &der : strings_of(Bytes(in.begin() + 34, in.end() - 4))) {
        const uint8_t *p = der.data();
        names.push_back(cert_simple_name(X509Ptr(d2i_X509(nullptr, &p, static_cast<long>(der.size()))).get()));
    }
    EXPECT_EQ(names, (std::vector<std::string>{"p256", "Test Intermediate", "Test Root"}));

    EXPECT_EQ(cert_store_remove(cert_store_folder(), "p256"), 1);
    EXPECT_EQ(cert_store_list(cert_store_folder()).size(), 2u);
    EXPECT_EQ(cert_identity_lookup(CERT_SOURCE_TARNWELL, sha1), nullptr);

    // The certificate add (location byte and identifier), the key store's
    // reference records, a restart with the certificate gone and back, and
    // damaged reference records.
    sha1 = import("alice");
    EXPECT_EQ(dispatch_bytes(certificate_add(CERT_SOURCE_TARNWELL, sha1, "alice's certificate")).reply,
              hex_bytes("0000000106"));
    ASSERT_EQ(identity_table_for_version(2)->nentries, 1);
    std::string private_text = file_text(KEY_STORE_PRIVATE_FILE);
    EXPECT_NE(private_text.find("#CERT_TARNWELL\nsha1=" + sha1 + ";cert="), std::string::npos);
    EXPECT_NE(file_text(KEY_STORE_PUBLIC_FILE).find("x509v3-sign-rsa#CERT_TARNWELL "), std::string::npos);

    auto signs = [&] {
        Key *key = identity_table_for_version(2)->identities.front()->key.get();
        SecureBytes blob;
        int ret = sign(key, "x509v3-sign-rsa", &blob);
        key->sigalg = nullptr;
        return ret == 0;
    };
    restart_agent();
    ASSERT_EQ(identity_table_for_version(2)->nentries, 1);
    EXPECT_EQ(*identity_table_for_version(2)->identities.front()->comment, "alice's certificate");
    EXPECT_TRUE(signs());

    // Gone: kept, one log line, no signature; back: signs again.
    cert_store_remove(cert_store_folder(), sha1);
    LogCapture log;
    restart_agent();
    ASSERT_EQ(identity_table_for_version(2)->nentries, 1);
    EXPECT_TRUE(log.contains("Certificate " + sha1 + " is not available in location 3 now"));
    EXPECT_FALSE(signs());
    save_key_store();
    EXPECT_NE(file_text(KEY_STORE_PRIVATE_FILE).find("#CERT_TARNWELL\nsha1=" + sha1), std::string::npos);
    import("alice");
    EXPECT_TRUE(signs());

    // Damaged reference records fail alone.
    std::string store = "one#CERT_TARNWELL\nnot a reference\n\ntwo#CERT_PKCS11\nsha1=12;cert=AAAA\n\n"
                        "three#CERT_SYSTEM\nsha1=" + std::string(40, 'a') + ";cert=!!!!\n\n";
    identity_tables_init();
    read_private_key_store(store.data(), store.size(), "agent pass", agent_passphrase_generation());
    EXPECT_EQ(identity_table_for_version(2)->nentries, 0);
    EXPECT_TRUE(log.contains("bad certificate reference in location 3: field without '='"));
    EXPECT_TRUE(log.contains("bad certificate reference in location 2: no sha1"));
    EXPECT_TRUE(log.contains("the reference carries no matching certificate"));

    // A new agent passphrase encrypts the stored key again.
    ASSERT_EQ(change_agent_passphrase("agent pass", "new pass", 0), 1);
    EXPECT_NE(read_file_text(cert_store_folder() + "/" + sha1 + ".key").find("ENCRYPTED"), std::string::npos);
    key = cert_identity_lookup(CERT_SOURCE_TARNWELL, "alice");
    ASSERT_NE(key, nullptr);
    EXPECT_EQ(sign(key.get(), "x509v3-sign-rsa", &blob), 0);
}
