// Certificate identities on a PKCS#11 token (SoftHSM2) and, through NSS's
// own PKCS#11 module, in an NSS database: lookup, signing checked by
// OpenSSL, the PIN through the prompt, token absence and a restart.
#include <gtest/gtest.h>

#include <dlfcn.h>
#include <p11-kit-1/p11-kit/pkcs11.h>

#include "agent/identity_table.h"
#include "agent/key_store.h"
#include "pki/cert_provider.h"
#include "crypto/signature_check.h"
#include "pki/key_signer.h"
#include "pki/pkcs11_token.h"
#include "support/agent_state.h"
#include "support/log_capture.h"
#include "support/softhsm_token.h"
#include "support/test_pki.h"
#include "pki/cert_identity_helpers.h"

namespace {

TestPki *pki = nullptr;
SoftHsmToken *token = nullptr;

// The scripted answers of the PIN prompt, and how often it was asked.
std::vector<std::string> pin_answers;
int pin_asked = 0;
bool scripted_pin(const char *, SecretString *answer)
{
    ++pin_asked;
    answer->assign(pin_answers.empty() ? TOKEN_PIN : pin_answers.front().c_str());
    if (!pin_answers.empty())
        pin_answers.erase(pin_answers.begin());
    return true;
}

const Bytes DATA = text_bytes("data a server asks the token to sign");

struct Pkcs11Test : AgentStateTest {
    static void SetUpTestSuite()
    {
        pki = new TestPki;
        pki->leaf("tok-rsa", "RSA:2048");
        pki->leaf("tok-ec", "EC:P-384");
        pki->leaf("nss-user", "EC:P-256");
        token = new SoftHsmToken;
        token->put(pki->path("tok-rsa"), "01");
        token->put(pki->path("tok-ec"), "02");
        setenv("TARNWELL_PKCS11_MODULE", SOFTHSM_MODULE, 1);
    }
    static void TearDownTestSuite()
    {
        pkcs11_modules_reset();
        unsetenv("TARNWELL_PKCS11_MODULE");
        delete token;
        delete pki;
    }
    void SetUp() override
    {
        AgentStateTest::SetUp();
        set_agent_passphrase("agent pass", 0);
        pkcs11_modules_reset();  // a fresh process: no session, nobody logged in
        pin_answers.clear();
        pin_asked = 0;
    }

    static int sign(Key *key, const char *algorithm, SecureBytes *blob)
    {
        key->sigalg = signature_algorithm_by_name(algorithm);
        int ret = key_sign(nullptr, 0, key, blob, DATA.data(), DATA.size(), scripted_pin, 0);
        key->sigalg = nullptr;
        return ret;
    }
};

}  // namespace

TEST_F(Pkcs11Test, TokenAndNssDatabaseSignAskThePinAndSurviveARestartWithoutTheToken)
{
    for (auto [identifier, algorithm, as_plain_key, signature_name, md, form] :
         {std::tuple{"tok-rsa", "x509v3-sign-rsa", false, "x509v3-sign-rsa", "SHA1", "rsa"},
          {"tok-rsa", "x509v3-rsa2048-sha256", false, "rsa2048-sha256", "SHA256", "rsa"},
          {"tok-rsa", "rsa-sha2-512", true, "rsa-sha2-512", "SHA512", "rsa"},
          {"tok-ec", "x509v3-ecdsa-sha2-nistp384", false, "ecdsa-sha2-nistp384", "SHA384", "mpint"}}) {
        SCOPED_TRACE(std::string(identifier) + " " + algorithm);
        // By simple name, and by hash with the module named in the identifier.
        KeyPtr key = cert_identity_lookup(CERT_SOURCE_PKCS11, identifier);
        KeyPtr by_hash = cert_identity_lookup(
            CERT_SOURCE_PKCS11, std::string(SOFTHSM_MODULE) + ":" + pki->sha1(pki->path(std::string(identifier) + ".crt")));
        ASSERT_TRUE(key && by_hash);
        EXPECT_TRUE(key_equal(key.get(), by_hash.get()));
        if (as_plain_key)
            key->type = KEY_RSA;
        SecureBytes blob;
        ASSERT_EQ(sign(key.get(), algorithm, &blob), 0);
        expect_verifies(blob, X509_get0_pubkey(key->cert.get()), signature_name, md, form, DATA);
    }
    EXPECT_EQ(pin_asked, 1);

    // In a new process, a wrong PIN fails cleanly and is asked again. The
    // token's sessions end under the agent (as when it is pulled out and put
    // back): the next signature opens a new one and logs in again.
    pkcs11_modules_reset();
    pin_asked = 0;
    KeyPtr key = cert_identity_lookup(CERT_SOURCE_PKCS11, "tok-ec");
    ASSERT_NE(key, nullptr);
    pin_answers = {"0000"};
    LogCapture log;
    SecureBytes blob;
    EXPECT_EQ(sign(key.get(), "x509v3-ecdsa-sha2-nistp384", &blob), -1);
    EXPECT_TRUE(log.contains("pkcs11: wrong PIN for token \"agent test\""));
    EXPECT_EQ(sign(key.get(), "x509v3-ecdsa-sha2-nistp384", &blob), 0);
    EXPECT_EQ(pin_asked, 2);
    EXPECT_EQ(cert_identity_lookup(CERT_SOURCE_PKCS11, "nobody"), nullptr);
    EXPECT_TRUE(log.contains("pkcs11: no certificate with a key id matches \"nobody\""));

    void *module = dlopen(SOFTHSM_MODULE, RTLD_NOW | RTLD_NOLOAD);
    ASSERT_NE(module, nullptr);
    CK_FUNCTION_LIST *f = nullptr;
    reinterpret_cast<CK_C_GetFunctionList>(dlsym(module, "C_GetFunctionList"))(&f);
    CK_SLOT_ID slots[8];
    CK_ULONG count = 8;
    ASSERT_EQ(f->C_GetSlotList(CK_TRUE, slots, &count), CKR_OK);
    for (CK_ULONG i = 0; i < count; ++i)
        f->C_CloseAllSessions(slots[i]);
    dlclose(module);
    EXPECT_EQ(sign(key.get(), "x509v3-ecdsa-sha2-nistp384", &blob), 0);
    EXPECT_EQ(pin_asked, 3);

    // An identity added from the token, an agent restart with the token
    // absent, and the token back.
    EXPECT_EQ(dispatch_bytes(certificate_add(CERT_SOURCE_PKCS11, "tok-rsa", "token certificate")).reply,
              hex_bytes("0000000106"));
    EXPECT_NE(file_text(KEY_STORE_PRIVATE_FILE).find("#CERT_PKCS11\nsha1="), std::string::npos);
    EXPECT_NE(file_text(KEY_STORE_PRIVATE_FILE).find(std::string(";module=") + SOFTHSM_MODULE + ";token=agent test"),
              std::string::npos);

    auto restart = [] {
        pkcs11_modules_reset();
        restart_agent();
    };
    auto signs = [] {
        IdentityTable *table = identity_table_for_version(2);
        SecureBytes blob;
        return table->nentries == 1 && sign(table->identities.front()->key.get(), "x509v3-sign-rsa", &blob) == 0;
    };
    token->take_out();
    restart();
    token->put_back();
    ASSERT_EQ(identity_table_for_version(2)->nentries, 1);
    EXPECT_TRUE(log.contains("is not available in location 2 now; kept, it signs once it is back"));
    pkcs11_modules_reset();  // the module sees the token again
    EXPECT_TRUE(signs());

    // A key that vanishes from the token fails its own signature only.
    restart();
    token->delete_private_key("01");
    pkcs11_modules_reset();
    EXPECT_FALSE(signs());
    EXPECT_TRUE(log.contains("pkcs11: token \"agent test\" holds no private key for the certificate"));
    token->put(pki->path("tok-rsa"), "01");

    // The system store is an NSS database through NSS's own module; under a
    // password, the signature logs in with it as a PIN.
    TempFolder nssdb;
    std::ofstream(nssdb.path("pw")) << TOKEN_PIN << "\n";
    ToolResult made = run_tool("certutil -N -d sql:" + nssdb.path() + " -f " + nssdb.path("pw") + " && pk12util -i " +
                               pki->path("nss-user.p12") + " -d sql:" + nssdb.path() + " -k " + nssdb.path("pw") +
                               " -W p12pass");
    ASSERT_EQ(made.status, 0) << made.output;
    setenv("TARNWELL_NSS_DB", nssdb.path().c_str(), 1);
    pin_asked = 0;
    key = cert_identity_lookup(CERT_SOURCE_SYSTEM, "nss-user");
    ASSERT_NE(key, nullptr);
    EXPECT_EQ(key->cert_source, CERT_SOURCE_SYSTEM);
    ASSERT_EQ(sign(key.get(), "x509v3-ecdsa-sha2-nistp256", &blob), 0);
    expect_verifies(blob, X509_get0_pubkey(key->cert.get()), "ecdsa-sha2-nistp256", "SHA256", "mpint", DATA);
    EXPECT_EQ(pin_asked, 1);
    EXPECT_EQ(cert_identity_lookup(CERT_SOURCE_SYSTEM, pki->sha1(pki->path("nss-user.crt")))->cert_source,
              CERT_SOURCE_SYSTEM);
    pkcs11_modules_reset();
    unsetenv("TARNWELL_NSS_DB");
}
