// Certificate location 1 on Windows: RSA and DSA certificates in the user's
// "MY" store (as a PKCS#12 import puts them there) are found by hash and by
// common name, sign under each algorithm and hash the settings select, and
// come back from the key store after tkeyagent.exe restarts. OpenSSL checks
// every signature against the certificate's public key.
#include <windows.h>
#include <wincrypt.h>

#include <set>

#include <openssl/pkcs12.h>
#include <openssl/x509v3.h>

#include "agent/protocol.h"
#include "app/win32/system_cert_provider.h"
#include "app/win32/system_cert_store.h"
#include "crypto/signature_check.h"
#include "crypto/signature_types.h"
#include "keys/signature_algorithm.h"
#include "pki/cert_key_layer.h"
#include "pki/key_signer.h"
#include "win32/agent_channels.h"

namespace {

X509Ptr make_certificate(const char *cn, EVP_PKEY *key, X509 *issuer, EVP_PKEY *issuer_key)
{
    X509Ptr cert(X509_new());
    X509_set_version(cert.get(), 2);
    static long serial = static_cast<long>(GetTickCount() & 0xffffff);
    ASN1_INTEGER_set(X509_get_serialNumber(cert.get()), ++serial);
    X509_gmtime_adj(X509_getm_notBefore(cert.get()), -60);
    X509_gmtime_adj(X509_getm_notAfter(cert.get()), 86400);
    X509_set_pubkey(cert.get(), key);
    X509_NAME_add_entry_by_txt(X509_get_subject_name(cert.get()), "CN", MBSTRING_ASC,
                               reinterpret_cast<const unsigned char *>(cn), -1, -1, 0);
    X509_set_issuer_name(cert.get(), X509_get_subject_name(issuer ? issuer : cert.get()));
    EXPECT_GT(X509_sign(cert.get(), issuer_key ? issuer_key : key, EVP_sha256()), 0);
    return cert;
}

std::vector<uint8_t> sha1_bytes(X509 *cert)
{
    std::vector<uint8_t> digest(20);
    X509_digest(cert, EVP_sha1(), digest.data(), nullptr);
    return digest;
}

std::string hex(const std::vector<uint8_t> &bytes, const char *format = "%02X")
{
    std::string out;
    char two[3];
    for (uint8_t b : bytes)
        out += (snprintf(two, sizeof two, format, b), two);
    return out;
}

// How a certificate's key reaches the store. Wine 8 puts every PKCS#12
// import's key into one container named after the user, so only one
// certificate per test comes by PKCS#12, the others by CryptImportKey into
// a container of their own, as the import does on Windows.
enum class KeyImport { none, pkcs12, container };

// Adds a certificate to one of the user's stores for the life of the object.
class StoredCertificate {
public:
    StoredCertificate(const wchar_t *store, X509 *cert, EVP_PKEY *key, KeyImport how)
        : store_(store), sha1_(sha1_bytes(cert))
    {
        add(cert, key, how);
    }
    StoredCertificate(const StoredCertificate &) = delete;
    StoredCertificate &operator=(const StoredCertificate &) = delete;
    // Takes the certificate and its key container away.
    ~StoredCertificate()
    {
        CertStorePtr target(CertOpenStore(CERT_STORE_PROV_SYSTEM_W, 0, 0, CERT_SYSTEM_STORE_CURRENT_USER, store_));
        if (CertContextPtr context = target ? system_store_find_sha1(target.get(), sha1_) : nullptr)
            CertDeleteCertificateFromStore(context.release());  // frees the context
        // Wine 8 leaves the certificate's registry entry behind, where stores
        // opened later find it again.
        std::wstring entry = std::wstring(L"Software\\Microsoft\\SystemCertificates\\") + store_ + L"\\Certificates\\";
        RegDeleteTreeW(HKEY_CURRENT_USER, (entry + utf8_to_wide(hex(sha1_))).c_str());
        HCRYPTPROV gone = 0;
        if (auto *info = reinterpret_cast<const CRYPT_KEY_PROV_INFO *>(key_info_.empty() ? nullptr : key_info_.data()))
            CryptAcquireContextW(&gone, info->pwszContainerName, info->pwszProvName, info->dwProvType,
                                 CRYPT_DELETEKEYSET);
    }

private:
    void add(X509 *cert, EVP_PKEY *key, KeyImport how)
    {
        CertStorePtr target(CertOpenStore(CERT_STORE_PROV_SYSTEM_W, 0, 0, CERT_SYSTEM_STORE_CURRENT_USER, store_));
        ASSERT_TRUE(target);
        CertContextPtr context;
        unsigned char *der = nullptr;
        if (how == KeyImport::pkcs12) {
            PKCS12 *p12 = PKCS12_create("p12pass", nullptr, key, cert, nullptr, NID_pbe_WithSHA1And3_Key_TripleDES_CBC,
                                        NID_pbe_WithSHA1And3_Key_TripleDES_CBC, 2048, 1, 0);
            CRYPT_DATA_BLOB blob = {static_cast<DWORD>(i2d_PKCS12(p12, &der)), der};
            PKCS12_free(p12);
            CertStorePtr imported(PFXImportCertStore(&blob, L"p12pass", CRYPT_USER_KEYSET));
            ASSERT_TRUE(imported) << "PFXImportCertStore failed: " << GetLastError();
            context = system_store_find_sha1(imported.get(), sha1_);
        } else {
            int len = i2d_X509(cert, &der);
            context.reset(CertCreateCertificateContext(X509_ASN_ENCODING, der, static_cast<DWORD>(len)));
            if (how == KeyImport::container)
                import_into_container(context.get(), key);
        }
        OPENSSL_free(der);
        ASSERT_TRUE(context);
        ASSERT_TRUE(CertAddCertificateContextToStore(target.get(), context.get(), CERT_STORE_ADD_REPLACE_EXISTING,
                                                     nullptr));
        DWORD size = 0;
        if (CertGetCertificateContextProperty(context.get(), CERT_KEY_PROV_INFO_PROP_ID, nullptr, &size)) {
            key_info_.resize(size);
            CertGetCertificateContextProperty(context.get(), CERT_KEY_PROV_INFO_PROP_ID, key_info_.data(), &size);
        }
    }

    // The key as a Microsoft key blob into a container of the provider that
    // PKCS#12 imports use for its algorithm, recorded on the certificate.
    void import_into_container(const CERT_CONTEXT *context, EVP_PKEY *key)
    {
        container_ = utf8_to_wide("tarnwell-test-" + hex(sha1_));
        BIO *bio = BIO_new(BIO_s_mem());
        ASSERT_GT(i2b_PrivateKey_bio(bio, key), 0);
        BUF_MEM *blob = nullptr;
        BIO_get_mem_ptr(bio, &blob);
        bool dsa = EVP_PKEY_get_base_id(key) == EVP_PKEY_DSA;
        const wchar_t *provider = dsa ? MS_ENH_DSS_DH_PROV_W : MS_ENHANCED_PROV_W;
        DWORD type = dsa ? PROV_DSS_DH : PROV_RSA_FULL;
        HCRYPTPROV prov = 0;
        HCRYPTKEY imported = 0;
        ASSERT_TRUE(CryptAcquireContextW(&prov, container_.c_str(), provider, type, CRYPT_NEWKEYSET));
        EXPECT_TRUE(CryptImportKey(prov, reinterpret_cast<const BYTE *>(blob->data), static_cast<DWORD>(blob->length),
                                   0, 0, &imported));
        CryptDestroyKey(imported);
        CryptReleaseContext(prov, 0);
        BIO_free(bio);
        CRYPT_KEY_PROV_INFO info = {container_.data(), const_cast<wchar_t *>(provider), type, 0, 0, nullptr,
                                    static_cast<DWORD>(dsa ? AT_SIGNATURE : AT_KEYEXCHANGE)};
        ASSERT_TRUE(CertSetCertificateContextProperty(context, CERT_KEY_PROV_INFO_PROP_ID, 0, &info));
    }

    const wchar_t *store_;
    std::vector<uint8_t> sha1_;
    std::vector<BYTE> key_info_;
    std::wstring container_;
};

const std::string DATA = "session identifier and user auth request";

uint8_t add_certificate(HANDLE pipe, const std::string &identifier, const std::string &comment)
{
    Bytes reply = call(pipe, request_of(SSH2_AGENTC_ADD_IDENTITY, [&](Buffer *b) {
        buffer_put_cstring(b, "x509v3-sign-rsa");
        buffer_put_char(b, CERT_SOURCE_SYSTEM);
        buffer_put_cstring(b, identifier.c_str());
        buffer_put_cstring(b, comment.c_str());
    }));
    return reply.empty() ? 0 : reply[0];
}

// The signature of `key_blob` in the form it was listed in; empty on failure.
SecureBytes sign(HANDLE pipe, const Bytes &key_blob)
{
    return signature_of(call(pipe, sign_request(key_blob, DATA, 0)));
}

}  // namespace

// A root in the user's "CA" store and leaves issued by it in "MY": Alice
// (RSA, by PKCS#12), Bob (RSA), a DSA one and one without a key.
TEST(SystemStore, FindsSignsAndKeepsCertificateIdentitiesAcrossRestarts)
{
    cert_key_layer_install();
    system_cert_provider_install();
    PkeyPtr root_key(EVP_RSA_gen(2048)), alice_key(EVP_RSA_gen(2048)), bob_key(EVP_RSA_gen(2048));
    KeyPtr dsa_key = key_generate(KEY_DSA, 1024);
    X509Ptr root = make_certificate("Capi Test Root", root_key.get(), nullptr, nullptr);
    X509Ptr alice_cert = make_certificate("capi-alice", alice_key.get(), root.get(), root_key.get());
    X509Ptr bob_cert = make_certificate("capi-bob", bob_key.get(), root.get(), root_key.get());
    X509Ptr dsa_cert = make_certificate("capi-dsa", dsa_key->pkey.get(), root.get(), root_key.get());
    X509Ptr keyless_cert = make_certificate("capi-keyless", bob_key.get(), root.get(), root_key.get());
    StoredCertificate ca(L"CA", root.get(), nullptr, KeyImport::none),
        keyless(L"MY", keyless_cert.get(), nullptr, KeyImport::none),
        alice(L"MY", alice_cert.get(), alice_key.get(), KeyImport::pkcs12),
        dsa(L"MY", dsa_cert.get(), dsa_key->pkey.get(), KeyImport::container);
    auto bob = std::make_unique<StoredCertificate>(L"MY", bob_cert.get(), bob_key.get(), KeyImport::container);

    KeyPtr found = cert_identity_lookup(CERT_SOURCE_SYSTEM, "capi-alice");
    ASSERT_NE(found, nullptr);
    EXPECT_EQ(X509_cmp(found->cert.get(), alice_cert.get()), 0);
    CertHandle *handle = cert_identity_handle(found.get());
    ASSERT_EQ(sk_X509_num(handle->issuers.get()), 1) << "the root from the CA store";
    EXPECT_EQ(X509_cmp(sk_X509_value(handle->issuers.get(), 0), root.get()), 0);
    const struct {
        const char *algorithm;  // the row the request selects
        bool as_plain_key;      // the certificate offered as its plain key
        int sigtype;            // x509rsa or x509dsa sigtype
        const char *signature_name, *md, *form;
    } sign_cases[] = {
        {"x509v3-sign-rsa", false, 3, "x509v3-sign-rsa", "SHA1", "rsa"},
        {"x509v3-sign-rsa", false, 0, "x509v3-sign-rsa", "MD5", "rsa"},
        {"x509v3-ssh-rsa", false, 3, "ssh-rsa", "SHA1", "rsa"},
        {"x509v3-rsa2048-sha256", false, 3, "rsa2048-sha256", "SHA256", "rsa"},
        {"ssh-rsa", true, 3, "ssh-rsa", "SHA1", "rsa"},
        {"rsa-sha2-256", true, 3, "rsa-sha2-256", "SHA256", "rsa"},
        {"rsa-sha2-512", true, 3, "rsa-sha2-512", "SHA512", "rsa"},
        {"x509v3-sign-dss", false, 0, "x509v3-sign-dss", "SHA1", "raw"},
        {"x509v3-sign-dss", false, 1, "x509v3-sign-dss", "SHA1", "der"},
    };
    for (const auto &c : sign_cases) {
        SCOPED_TRACE(std::string(c.algorithm) + " sigtype " + std::to_string(c.sigtype));
        set_x509rsa_sigtype(c.sigtype);
        set_x509dsa_sigtype(c.sigtype);
        bool dsa_case = std::string(c.form) != "rsa";
        KeyPtr key = cert_identity_lookup(CERT_SOURCE_SYSTEM, dsa_case ? "capi-dsa" : "capi-alice");
        ASSERT_NE(key, nullptr);
        if (c.as_plain_key)
            key->type = KEY_RSA;
        key->sigalg = signature_algorithm_by_name(c.algorithm);
        SecureBytes blob;
        ASSERT_EQ(key_sign(nullptr, 0, key.get(), &blob, text_bytes(DATA).data(), DATA.size(), nullptr, 0), 0);
        expect_verifies(blob, X509_get0_pubkey(dsa_case ? dsa_cert.get() : alice_cert.get()), c.signature_name, c.md,
                        c.form, text_bytes(DATA));
    }
    set_x509rsa_sigtype(X509RSA_SIGTYPE_DEFAULT);
    set_x509dsa_sigtype(X509DSA_SIGTYPE_DEFAULT);
    cert_provider_set(CERT_SOURCE_SYSTEM, nullptr);

    WindowsAgent agent;
    agent.seed_passphrase("");
    HWND window = agent.start();
    ASSERT_NE(window, nullptr) << agent.log();
    WinHandle pipe = agent_pipe_open(window);
    EXPECT_EQ(add_certificate(pipe.get(), hex(sha1_bytes(alice_cert.get())), "alice by hash"), SSH_AGENT_SUCCESS);
    EXPECT_EQ(add_certificate(pipe.get(), "capi-bob", "bob by name"), SSH_AGENT_SUCCESS);
    for (std::string identifier : {"capi-nobody", "aaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaa", "capi-keyless"}) {
        EXPECT_EQ(add_certificate(pipe.get(), identifier, "nothing"), SSH_AGENT_FAILURE);
        EXPECT_TRUE(agent.logged("system store: no certificate with a private key matches \"" + identifier + "\""));
    }
    EXPECT_NE(read_file_text(agent.folder() / "tAgentKeys")
                  .find("#CERT_SYSTEM\nsha1=" + hex(sha1_bytes(alice_cert.get()), "%02x")),
              std::string::npos);

    // Both sign now and after a restart, from the key store. Then Bob's
    // certificate leaves the store: after a restart his reference is
    // reported, stays listed (under the certificate's subject) and in the
    // key store, and signs again once the certificate is back.
    for (int run = 0; run < 3; ++run) {
        SCOPED_TRACE(run);
        auto all = identities(pipe.get());
        const Bytes alice_blob = all["x509v3-sign-rsa - alice by hash"];
        expect_verifies(sign(pipe.get(), alice_blob), X509_get0_pubkey(alice_cert.get()), "x509v3-sign-rsa", "SHA1",
                        "rsa", text_bytes(DATA));
        expect_verifies(sign(pipe.get(), all["x509v3-rsa2048-sha256 - alice by hash"]),
                        X509_get0_pubkey(alice_cert.get()), "rsa2048-sha256", "SHA256", "rsa", text_bytes(DATA));
        if (run < 2) {
            std::set<std::string> names;
            for (const auto &[comment, blob] : all)
                names.insert(comment.substr(comment.find(" - ") + 1));
            EXPECT_EQ(names.size(), 2u) << agent.log();
            expect_verifies(sign(pipe.get(), all["x509v3-sign-rsa - bob by name"]), X509_get0_pubkey(bob_cert.get()),
                            "x509v3-sign-rsa", "SHA1", "rsa", text_bytes(DATA));
        } else {
            const Bytes bob_blob = all["x509v3-sign-rsa - 2048-bit, X.509 name: \"/CN=capi-bob\""];
            ASSERT_FALSE(bob_blob.empty());
            EXPECT_TRUE(sign(pipe.get(), bob_blob).empty());
            std::string sha1 = hex(sha1_bytes(bob_cert.get()), "%02x");
            EXPECT_TRUE(agent.logged("the private key of certificate " + sha1 + " is not available"));
            EXPECT_TRUE(agent.logged("Certificate " + sha1 + " is not available in location 1 now"));
            StoredCertificate bob_again(L"MY", bob_cert.get(), bob_key.get(), KeyImport::container);
            expect_verifies(sign(pipe.get(), bob_blob), X509_get0_pubkey(bob_cert.get()), "x509v3-sign-rsa", "SHA1",
                            "rsa", text_bytes(DATA));
            break;
        }
        if (run == 1)
            bob.reset();
        pipe = WinHandle();
        ASSERT_EQ(agent.close(), 0);
        window = agent.start();
        ASSERT_NE(window, nullptr) << agent.log();
        pipe = agent_pipe_open(window);
    }
}
