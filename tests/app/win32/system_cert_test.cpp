// Certificate location 1 on Windows: RSA and DSA certificates in the user's
// "MY" store (as a PKCS#12 import puts them there) are found by hash and by
// common name, sign through CryptoAPI, and come back from the key store
// after tkeyagent.exe restarts. OpenSSL checks every signature against the
// certificate's public key.
#include <windows.h>
#include <wincrypt.h>

#include <openssl/pem.h>

#include "app/win32/system_cert_provider.h"
#include "app/win32/system_cert_store.h"
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

// Adds a certificate to one of the user's stores for the life of the
// object. Its key (unless null) goes as a Microsoft key blob into a
// container of its own, of the provider that a PKCS#12 import uses for its
// algorithm, recorded on the certificate as the import does on Windows
// (Wine 8 puts every import's key into one container named after the user).
class StoredCertificate {
public:
    StoredCertificate(const wchar_t *store, X509 *cert, EVP_PKEY *key)
        : store_(store), sha1_(sha1_bytes(cert)), container_(utf8_to_wide("tarnwell-test-" + hex(sha1_)))
    {
        add(cert, key);
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
        if (provider_)
            CryptAcquireContextW(&gone, container_.c_str(), provider_, type_, CRYPT_DELETEKEYSET);
    }

private:
    void add(X509 *cert, EVP_PKEY *key)
    {
        CertStorePtr target(CertOpenStore(CERT_STORE_PROV_SYSTEM_W, 0, 0, CERT_SYSTEM_STORE_CURRENT_USER, store_));
        ASSERT_TRUE(target);
        unsigned char *der = nullptr;
        int len = i2d_X509(cert, &der);
        CertContextPtr context(CertCreateCertificateContext(X509_ASN_ENCODING, der, static_cast<DWORD>(len)));
        OPENSSL_free(der);
        ASSERT_TRUE(context);
        if (key)
            import_into_container(context.get(), key);
        ASSERT_TRUE(CertAddCertificateContextToStore(target.get(), context.get(), CERT_STORE_ADD_REPLACE_EXISTING,
                                                     nullptr));
    }

    void import_into_container(const CERT_CONTEXT *context, EVP_PKEY *key)
    {
        BIO *bio = BIO_new(BIO_s_mem());
        ASSERT_GT(i2b_PrivateKey_bio(bio, key), 0);
        BUF_MEM *blob = nullptr;
        BIO_get_mem_ptr(bio, &blob);
        bool dsa = EVP_PKEY_get_base_id(key) == EVP_PKEY_DSA;
        provider_ = dsa ? MS_ENH_DSS_DH_PROV_W : MS_ENHANCED_PROV_W;
        type_ = dsa ? PROV_DSS_DH : PROV_RSA_FULL;
        HCRYPTPROV prov = 0;
        HCRYPTKEY imported = 0;
        ASSERT_TRUE(CryptAcquireContextW(&prov, container_.c_str(), provider_, type_, CRYPT_NEWKEYSET));
        EXPECT_TRUE(CryptImportKey(prov, reinterpret_cast<const BYTE *>(blob->data), static_cast<DWORD>(blob->length),
                                   0, 0, &imported));
        CryptDestroyKey(imported);
        CryptReleaseContext(prov, 0);
        BIO_free(bio);
        CRYPT_KEY_PROV_INFO info = {container_.data(), const_cast<wchar_t *>(provider_), type_, 0, 0, nullptr,
                                    static_cast<DWORD>(dsa ? AT_SIGNATURE : AT_KEYEXCHANGE)};
        ASSERT_TRUE(CertSetCertificateContextProperty(context, CERT_KEY_PROV_INFO_PROP_ID, 0, &info));
    }

    const wchar_t *store_;
    std::vector<uint8_t> sha1_;
    std::wstring container_;
    const wchar_t *provider_ = nullptr;
    DWORD type_ = 0;
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
// and Bob (RSA), a DSA one and one without a key, found by hash and by
// common name. The signature forms of each key type are the core's; here
// each key type signs through CryptoAPI. Once Bob's
// certificate has left the store, his reference is reported after a
// restart, stays listed (under the certificate's subject) and in the key
// store, and signs again once the certificate is back.
TEST(SystemStore, FindsSignsAndKeepsCertificateIdentitiesAcrossRestarts)
{
    cert_key_layer_install();
    PkeyPtr root_key(EVP_RSA_gen(2048)), alice_key(EVP_RSA_gen(2048)), bob_key(EVP_RSA_gen(2048));
    KeyPtr dsa_key = key_generate(KEY_DSA, 1024);
    X509Ptr root = make_certificate("Capi Test Root", root_key.get(), nullptr, nullptr);
    X509Ptr alice_cert = make_certificate("capi-alice", alice_key.get(), root.get(), root_key.get());
    X509Ptr bob_cert = make_certificate("capi-bob", bob_key.get(), root.get(), root_key.get());
    X509Ptr dsa_cert = make_certificate("capi-dsa", dsa_key->pkey.get(), root.get(), root_key.get());
    X509Ptr keyless_cert = make_certificate("capi-keyless", bob_key.get(), root.get(), root_key.get());
    StoredCertificate ca(L"CA", root.get(), nullptr), keyless(L"MY", keyless_cert.get(), nullptr),
        alice(L"MY", alice_cert.get(), alice_key.get()), dsa(L"MY", dsa_cert.get(), dsa_key->pkey.get());
    auto bob = std::make_unique<StoredCertificate>(L"MY", bob_cert.get(), bob_key.get());

    // In process: the issuers come from the "CA" store, and the DSA key
    // signs through CryptoAPI (r and s in whichever order Wine gives them).
    system_cert_provider_install();
    KeyPtr found = cert_identity_lookup(CERT_SOURCE_SYSTEM, "capi-alice");
    ASSERT_NE(found, nullptr);
    CertHandle *handle = cert_identity_handle(found.get());
    ASSERT_EQ(sk_X509_num(handle->issuers.get()), 1);
    EXPECT_EQ(X509_cmp(sk_X509_value(handle->issuers.get(), 0), root.get()), 0);
    KeyPtr dsa_identity = cert_identity_lookup(CERT_SOURCE_SYSTEM, "capi-dsa");
    ASSERT_NE(dsa_identity, nullptr);
    SecureBytes dsa_signature;
    const Bytes data = text_bytes(DATA);
    ASSERT_EQ(key_sign(nullptr, 0, dsa_identity.get(), &dsa_signature, data.data(), data.size(), nullptr, 0), 0);
    expect_verifies(dsa_signature, X509_get0_pubkey(dsa_cert.get()), "x509v3-sign-dss", "SHA1", "raw", data);
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
    const struct {
        const char *comment;
        X509 *cert;
        const char *signature_name, *md;
    } signers[] = {
        {"x509v3-sign-rsa - alice by hash", alice_cert.get(), "x509v3-sign-rsa", "SHA1"},
        {"x509v3-rsa2048-sha256 - alice by hash", alice_cert.get(), "rsa2048-sha256", "SHA256"},
        {"x509v3-sign-rsa - bob by name", bob_cert.get(), "x509v3-sign-rsa", "SHA1"},
    };
    // Each signs from the store, then again from the key store after a
    // restart: Bob's certificate has left the store meanwhile.
    auto sign_each = [&](bool with_bob) {
        auto all = identities(pipe.get());
        for (const auto &s : signers) {
            SCOPED_TRACE(s.comment);
            if (with_bob || s.cert != bob_cert.get())
                expect_verifies(sign(pipe.get(), all[s.comment]), X509_get0_pubkey(s.cert), s.signature_name, s.md,
                                "rsa", text_bytes(DATA));
        }
    };
    sign_each(true);
    bob.reset();
    pipe = WinHandle();
    ASSERT_EQ(agent.close(), 0);
    window = agent.start();
    ASSERT_NE(window, nullptr) << agent.log();
    pipe = agent_pipe_open(window);
    sign_each(false);
    const Bytes bob_blob = identities(pipe.get())["x509v3-sign-rsa - 2048-bit, X.509 name: \"/CN=capi-bob\""];
    ASSERT_FALSE(bob_blob.empty());
    EXPECT_TRUE(sign(pipe.get(), bob_blob).empty());
    std::string sha1 = hex(sha1_bytes(bob_cert.get()), "%02x");
    EXPECT_TRUE(agent.logged("the private key of certificate " + sha1 + " is not available"));
    EXPECT_TRUE(agent.logged("Certificate " + sha1 + " is not available in location 1 now"));
    StoredCertificate bob_again(L"MY", bob_cert.get(), bob_key.get());
    expect_verifies(sign(pipe.get(), bob_blob), X509_get0_pubkey(bob_cert.get()), "x509v3-sign-rsa", "SHA1", "rsa",
                    text_bytes(DATA));
}
