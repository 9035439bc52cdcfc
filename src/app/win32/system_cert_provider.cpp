#include "app/win32/system_cert_provider.h"

#include <openssl/evp.h>

#include "app/win32/system_cert_signer.h"
#include "app/win32/system_cert_store.h"
#include "keys/kvl.h"
#include "log/log.h"

namespace {

std::vector<uint8_t> sha1_of(X509 *cert)
{
    uint8_t digest[EVP_MAX_MD_SIZE];
    unsigned len = 0;
    if (!X509_digest(cert, EVP_sha1(), digest, &len))
        return {};
    return std::vector<uint8_t>(digest, digest + len);
}

// The issuers and the signer of `cert`, whose context holds a private key.
void fill_handle(CertHandle *handle, X509 *cert)
{
    X509StackPtr candidates = system_store_chain_candidates();
    handle->issuers = cert_issuers_from(cert, candidates.get());
    debug("system store: certificate %s: %d issuers among %d certificates of the user's stores",
          cert_simple_name(cert).c_str(), sk_X509_num(handle->issuers.get()), sk_X509_num(candidates.get()));
    SystemCertKey key{sha1_of(cert), cert_sha1_hex(cert), cert_simple_name(cert),
                      EVP_PKEY_get_base_id(X509_get0_pubkey(cert)),
                      std::shared_ptr<EVP_PKEY>(X509_get_pubkey(cert), EVP_PKEY_free)};
    handle->sign = [key](int hash_nid, const uint8_t *digest, size_t len, SignPromptCallback prompt,
                         SecureBytes *raw) {
        return system_cert_sign_digest(key, hash_nid, digest, len, prompt, raw);
    };
}

// Calls `match` on each certificate of "MY" that has a private key until it
// returns true; that certificate is returned.
template <class Match>
X509Ptr find_with_key(Match match)
{
    CertStorePtr store = system_store_open(L"MY");
    if (!store) {
        error("system store: cannot open the user's \"MY\" certificate store (error %lu)",
              static_cast<unsigned long>(GetLastError()));
        return nullptr;
    }
    const CERT_CONTEXT *context = nullptr;
    while ((context = CertEnumCertificatesInStore(store.get(), context))) {
        X509Ptr cert = system_store_x509(context);
        if (cert && system_store_has_private_key(context) && match(cert.get())) {
            CertFreeCertificateContext(context);
            return cert;
        }
    }
    return nullptr;
}

KeyPtr system_lookup(const std::string &identifier)
{
    X509Ptr cert = find_with_key([&](X509 *c) { return cert_matches_identifier(c, identifier); });
    if (!cert) {
        error("system store: no certificate with a private key matches \"%s\" in the user's \"MY\" store",
              identifier.c_str());
        return nullptr;
    }
    auto handle = std::make_shared<CertHandle>();
    fill_handle(handle.get(), cert.get());
    return cert_identity_make(cert.get(), CERT_SOURCE_SYSTEM, handle);
}

bool system_attach(CertHandle *handle, X509 *cert)
{
    std::vector<uint8_t> sha1 = sha1_of(cert);
    CertStorePtr store = system_store_open(L"MY");
    CertContextPtr context = store && !sha1.empty() ? system_store_find_sha1(store.get(), sha1) : nullptr;
    if (!context || !system_store_has_private_key(context.get()))
        return false;
    fill_handle(handle, cert);
    return true;
}

// The store is readable without the agent passphrase, so the public key
// store's certificate lines are resolved before unlock too.
KeyPtr system_by_public_key_hash(const uint8_t *hash, size_t len)
{
    KVL::Bytes wanted(hash, len);
    X509Ptr cert = find_with_key([&](X509 *c) { return KVL::Cert(c).GetPubKeyHash() == wanted; });
    if (!cert)
        return nullptr;
    auto handle = std::make_shared<CertHandle>();
    X509StackPtr candidates = system_store_chain_candidates();
    handle->issuers = cert_issuers_from(cert.get(), candidates.get());
    return cert_identity_make(cert.get(), CERT_SOURCE_SYSTEM, handle);
}

}  // namespace

const CertProvider &windows_system_store_provider()
{
    static const CertProvider provider = {system_lookup, system_attach, system_by_public_key_hash};
    return provider;
}

void system_cert_provider_install() { cert_provider_set(CERT_SOURCE_SYSTEM, &windows_system_store_provider()); }
