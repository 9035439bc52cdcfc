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
#include "support/dispatch_helper.h"
#include "support/fips_environment.h"
#include "support/log_capture.h"
#include "support/test_pki.h"

namespace {

TestPki *pki = nullptr;

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
};

const Bytes DATA = text_bytes("session identifier and user auth request");

struct SignCase {
    const char *leaf;
    const char *algorithm;  // the row the request selects
    bool as_plain_key;      // certificate offered as a plain key
    int rsa_sigtype, dsa_sigtype;
    const char *signature_name, *md, *form;
};

const SignCase SIGN_CASES[] = {
    {"alice", "x509v3-sign-rsa", false, 3, 0, "x509v3-sign-rsa", "SHA1", "rsa"},
    {"alice", "x509v3-sign-rsa", false, 2, 0, "x509v3-sign-rsa", "SHA1", "rsa"},
    {"alice", "x509v3-sign-rsa", false, 1, 0, "x509v3-sign-rsa", "SHA1", "rsa"},
    {"alice", "x509v3-sign-rsa", false, 0, 0, "x509v3-sign-rsa", "MD5", "rsa"},
    {"alice", "x509v3-ssh-rsa", false, 3, 0, "ssh-rsa", "SHA1", "rsa"},
    {"alice", "x509v3-ssh-rsa", false, 0, 0, "ssh-rsa", "MD5", "rsa"},
    {"alice", "x509v3-rsa2048-sha256", false, 3, 0, "rsa2048-sha256", "SHA256", "rsa"},
    {"alice", "x509v3-rsa2048-sha256", false, 0, 0, "rsa2048-sha256", "SHA256", "rsa"},
    {"alice", "ssh-rsa", true, 3, 0, "ssh-rsa", "SHA1", "rsa"},
    {"alice", "rsa-sha2-256", true, 3, 0, "rsa-sha2-256", "SHA256", "rsa"},
    {"alice", "rsa-sha2-512", true, 0, 0, "rsa-sha2-512", "MD5", "rsa"},
    {"bob", "x509v3-sign-dss", false, 3, 0, "x509v3-sign-dss", "SHA1", "raw"},
    {"bob", "x509v3-sign-dss", false, 3, 1, "x509v3-sign-dss", "SHA1", "der"},
    {"bob", "ssh-dss", true, 3, 1, "ssh-dss", "SHA1", "raw"},
    {"p256", "x509v3-ecdsa-sha2-nistp256", false, 3, 0, "ecdsa-sha2-nistp256", "SHA256", "mpint"},
    {"p384", "x509v3-ecdsa-sha2-nistp384", false, 3, 0, "ecdsa-sha2-nistp384", "SHA384", "mpint"},
    {"p521", "x509v3-ecdsa-sha2-nistp521", false, 3, 0, "ecdsa-sha2-nistp521", "SHA512", "mpint"},
    {"p384", "ecdsa-sha2-nistp384", true, 3, 0, "ecdsa-sha2-nistp384", "SHA384", "mpint"},
};

int plain_type(int type) { return type == KEY_X509_RSA ? KEY_RSA : type == KEY_X509_DSA ? KEY_DSA : KEY_ECDSA; }

}  // namespace

TEST_F(CertStoreTest, SignsUnderEveryAlgorithmName)
{
    for (const char *leaf : {"alice", "bob", "p256", "p384", "p521"})
        ASSERT_EQ(import(leaf), pki->sha1(pki->path(std::string(leaf) + ".crt")));
    for (const SignCase &c : SIGN_CASES) {
        SCOPED_TRACE(std::string(c.leaf) + " " + c.algorithm + " rsa sigtype " + std::to_string(c.rsa_sigtype));
        set_x509rsa_sigtype(c.rsa_sigtype);
        set_x509dsa_sigtype(c.dsa_sigtype);
        KeyPtr key = cert_identity_lookup(CERT_SOURCE_TARNWELL, c.leaf);  // by simple name
        ASSERT_NE(key, nullptr);
        if (c.as_plain_key)
            key->type = plain_type(key->type);
        key->sigalg = signature_algorithm_by_name(c.algorithm);
        SecureBytes blob;
        ASSERT_EQ(key_sign(nullptr, 0, key.get(), &blob, DATA.data(), DATA.size(), nullptr, 0), 0);
        expect_verifies(blob, X509_get0_pubkey(key->cert.get()), c.signature_name, c.md, c.form, DATA);
        // The agent's own verifier agrees (it has no MD5 override for plain
        // keys: those signatures are left to OpenSSL), and refuses other data.
        if (!(c.as_plain_key && c.rsa_sigtype == 0)) {
            EXPECT_EQ(key_verify(key.get(), blob.data(), blob.size(), DATA.data(), DATA.size()), 1);
        }
        EXPECT_EQ(key_verify(key.get(), blob.data(), blob.size(), DATA.data(), DATA.size() - 1), 0);
    }
}

TEST_F(CertStoreTest, FipsRulesApplyToCertificates)
{
    import("alice");
    import("bob");
    KeyPtr rsa = cert_identity_lookup(CERT_SOURCE_TARNWELL, "alice"), dsa = cert_identity_lookup(CERT_SOURCE_TARNWELL, "bob");
    FipsEnvironment fips;
    LogCapture log;
    EXPECT_EQ(cert_identity_lookup(CERT_SOURCE_TARNWELL, "bob"), nullptr);
    EXPECT_TRUE(log.contains("In FIPS mode, DSA keys are not supported."));
    SecureBytes blob;
    rsa->sigalg = signature_algorithm_by_name("x509v3-sign-rsa");
    EXPECT_EQ(key_sign(nullptr, 0, rsa.get(), &blob, DATA.data(), DATA.size(), nullptr, 0), -1);
    EXPECT_TRUE(log.contains("FIPS: MD5 and SHA1 signatures not allowed."));
    rsa->sigalg = signature_algorithm_by_name("x509v3-rsa2048-sha256");
    EXPECT_EQ(key_sign(nullptr, 0, rsa.get(), &blob, DATA.data(), DATA.size(), nullptr, 0), 0);
    expect_verifies(blob, X509_get0_pubkey(rsa->cert.get()), "rsa2048-sha256", "SHA256", "rsa", DATA);
    blob.clear();
    dsa->sigalg = signature_algorithm_by_name("x509v3-sign-dss");
    EXPECT_EQ(key_sign(nullptr, 0, dsa.get(), &blob, DATA.data(), DATA.size(), nullptr, 0), 0);
    EXPECT_TRUE(blob.empty());
    EXPECT_TRUE(log.contains("ssh_DSA_do_sign: FIPS does not allow DSA keys"));
}

TEST_F(CertStoreTest, LookupAndBadInput)
{
    std::string sha1 = import("alice");
    LogCapture log;
    std::string upper = sha1;
    for (char &ch : upper)
        ch = static_cast<char>(toupper(ch));
    EXPECT_NE(cert_identity_lookup(CERT_SOURCE_TARNWELL, upper), nullptr);
    EXPECT_EQ(cert_identity_lookup(CERT_SOURCE_TARNWELL, "nobody"), nullptr);
    EXPECT_TRUE(log.contains("no certificate in the agent's store matches \"nobody\""));
    EXPECT_EQ(cert_identity_lookup(9, "alice"), nullptr);

    EXPECT_EQ(import("alice", "wrong"), "error: wrong PKCS#12 password, or a damaged file");
    std::string p12 = read_file_text(pki->path("alice.p12")), sha1_out, why;
    for (size_t cut : {size_t(0), size_t(10), p12.size() / 2}) {
        EXPECT_FALSE(cert_store_import_pkcs12(cert_store_folder(), reinterpret_cast<const uint8_t *>(p12.data()), cut,
                                              "p12pass", "agent pass", &sha1_out, &why));
        EXPECT_FALSE(why.empty());
    }
}

TEST_F(CertStoreTest, ListRemoveAndChainInRfc6187Blob)
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
    size_t pos = 0;
    take_string(in, &pos);
    ASSERT_EQ(in[pos + 3], 3);  // leaf, intermediate, root
    pos += 4;
    std::vector<std::string> names;
    for (int i = 0; i < 3; ++i) {
        Bytes der = take_string(in, &pos);
        const uint8_t *p = der.data();
        X509Ptr cert(d2i_X509(nullptr, &p, static_cast<long>(der.size())));
        names.push_back(cert_simple_name(cert.get()));
    }
    EXPECT_EQ(names, (std::vector<std::string>{"p256", "Test Intermediate", "Test Root"}));

    EXPECT_EQ(cert_store_remove(cert_store_folder(), "p256"), 1);
    EXPECT_EQ(cert_store_list(cert_store_folder()).size(), 2u);
    EXPECT_EQ(cert_identity_lookup(CERT_SOURCE_TARNWELL, sha1), nullptr);
}

TEST_F(CertStoreTest, PassphraseChangeReencryptsKeys)
{
    import("p384");
    ASSERT_EQ(change_agent_passphrase("agent pass", "new pass", 0), 1);
    std::string key_text = read_file_text(cert_store_folder() + "/" + pki->sha1(pki->path("p384.crt")) + ".key");
    EXPECT_NE(key_text.find("ENCRYPTED"), std::string::npos);
    KeyPtr key = cert_identity_lookup(CERT_SOURCE_TARNWELL, "p384");
    ASSERT_NE(key, nullptr);
    key->sigalg = signature_algorithm_by_name("x509v3-ecdsa-sha2-nistp384");
    SecureBytes blob;
    EXPECT_EQ(key_sign(nullptr, 0, key.get(), &blob, DATA.data(), DATA.size(), nullptr, 0), 0);
}

// The certificate add (location byte and identifier), the key store's
// reference records, and a restart with the certificate gone and back.
TEST_F(CertStoreTest, AddSurvivesRestartAndAbsence)
{
    std::string sha1 = import("alice");
    Buffer add;
    buffer_put_char(&add, 17);  // SSH2_AGENTC_ADD_IDENTITY
    buffer_put_cstring(&add, "x509v3-sign-rsa");
    buffer_put_char(&add, CERT_SOURCE_TARNWELL);
    buffer_put_cstring(&add, sha1.c_str());
    buffer_put_cstring(&add, "alice's certificate");
    EXPECT_EQ(dispatch_bytes(frame(buffer_bytes(add))).reply, hex_bytes("0000000106"));
    ASSERT_EQ(identity_table_for_version(2)->nentries, 1);
    std::string private_text = file_text(KEY_STORE_PRIVATE_FILE);
    EXPECT_NE(private_text.find("#CERT_TARNWELL\nsha1=" + sha1 + ";cert="), std::string::npos);
    EXPECT_NE(file_text(KEY_STORE_PUBLIC_FILE).find("x509v3-sign-rsa#CERT_TARNWELL "), std::string::npos);

    auto restart = [&] {
        identity_tables_init();
        forget_agent_passphrase();
        load_public_key_store();
        verify_agent_passphrase("agent pass");  // loads the private file
    };
    auto signs = [&] {
        Identity *identity = identity_table_for_version(2)->identities.front().get();
        identity->key->sigalg = signature_algorithm_by_name("x509v3-sign-rsa");
        SecureBytes blob;
        int ret = key_sign(nullptr, 0, identity->key.get(), &blob, DATA.data(), DATA.size(), nullptr, 0);
        identity->key->sigalg = nullptr;
        return ret == 0;
    };
    restart();
    ASSERT_EQ(identity_table_for_version(2)->nentries, 1);
    EXPECT_EQ(*identity_table_for_version(2)->identities.front()->comment, "alice's certificate");
    EXPECT_TRUE(signs());

    // Gone: kept, one log line, no signature; back: signs again.
    cert_store_remove(cert_store_folder(), sha1);
    LogCapture log;
    restart();
    ASSERT_EQ(identity_table_for_version(2)->nentries, 1);
    EXPECT_TRUE(log.contains("Certificate " + sha1 + " is not available in location 3 now"));
    EXPECT_FALSE(signs());
    save_key_store();
    EXPECT_NE(file_text(KEY_STORE_PRIVATE_FILE).find("#CERT_TARNWELL\nsha1=" + sha1), std::string::npos);
    import("alice");
    EXPECT_TRUE(signs());
}

TEST_F(CertStoreTest, GarbageReferenceLinesFailAlone)
{
    LogCapture log;
    std::string store = "one#CERT_TARNWELL\nnot a reference\n\ntwo#CERT_PKCS11\nsha1=12;cert=AAAA\n\n"
                        "three#CERT_SYSTEM\nsha1=" + std::string(40, 'a') + ";cert=!!!!\n\n";
    read_private_key_store(store.data(), store.size(), "agent pass", agent_passphrase_generation());
    EXPECT_EQ(identity_table_for_version(2)->nentries, 0);
    EXPECT_TRUE(log.contains("bad certificate reference in location 3: field without '='"));
    EXPECT_TRUE(log.contains("bad certificate reference in location 2: no sha1"));
    EXPECT_TRUE(log.contains("the reference carries no matching certificate"));
}
