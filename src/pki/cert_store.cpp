#include "pki/cert_store.h"

#include <cstring>

#include <openssl/pem.h>
#include <openssl/pkcs12.h>

#include "crypto/private_key_pem.h"
#include "keys/key_material.h"
#include "keys/kvl.h"
#include "keys/secure_file.h"
#include "log/log.h"
#include "pki/cert_providers.h"
#include "pki/x509_signer.h"
#include "platform/platform.h"

namespace {

struct StoreBinding {
    std::string folder;
    const char *(*passphrase)() = nullptr;
};

StoreBinding &binding()
{
    static StoreBinding bound;
    return bound;
}

std::string path_in(const std::string &folder, const std::string &name) { return folder + "/" + name; }

bool ends_with(const std::string &text, const char *tail)
{
    size_t n = strlen(tail);
    return text.size() > n && text.compare(text.size() - n, n, tail) == 0;
}

X509Ptr read_certificate(const std::string &path)
{
    bool ok = false;
    SecureBytes text = read_whole_file(path, &ok);
    if (!ok)
        return nullptr;
    BIO *bio = BIO_new_mem_buf(text.data(), static_cast<int>(text.size()));
    X509Ptr cert(bio ? PEM_read_bio_X509(bio, nullptr, nullptr, nullptr) : nullptr);
    BIO_free(bio);
    return cert;
}

bool write_certificate(const std::string &path, X509 *cert)
{
    BIO *bio = BIO_new(BIO_s_mem());
    char *data = nullptr;
    bool ok = bio && PEM_write_bio_X509(bio, cert);
    long len = ok ? BIO_get_mem_data(bio, &data) : 0;
    ok = ok && platform_write_private_file(path, data, static_cast<size_t>(len));
    BIO_free(bio);
    return ok;
}

// A plain key of the private key's type, for the PEM writer and reader.
KeyPtr plain_key(PkeyPtr pkey)
{
    int type = KEY_UNSPEC;
    switch (EVP_PKEY_get_base_id(pkey.get())) {
    case EVP_PKEY_RSA: type = KEY_RSA; break;
    case EVP_PKEY_DSA: type = KEY_DSA; break;
    case EVP_PKEY_EC: type = KEY_ECDSA; break;
    default: return nullptr;
    }
    KeyPtr key = key_new(type);
    key->pkey = std::move(pkey);
    return key;
}

PkeyPtr read_private_key(const std::string &path, const char *passphrase)
{
    bool ok = false;
    SecureBytes text = read_whole_file(path, &ok);
    size_t consumed = 0;
    KeyPtr key = ok && passphrase ? private_key_pem_read(reinterpret_cast<const char *>(text.data()), text.size(),
                                                         passphrase, &consumed)
                                  : nullptr;
    return key ? std::move(key->pkey) : nullptr;
}

bool write_private_key(const std::string &path, EVP_PKEY *pkey, const char *passphrase)
{
    PkeyPtr copy(pkey);
    EVP_PKEY_up_ref(pkey);
    KeyPtr key = plain_key(std::move(copy));
    SecretString pem;
    return key && private_key_pem_write(key.get(), passphrase, &pem) &&
           platform_write_private_file(path, pem.data(), pem.size());
}

// Every certificate of the store, identities and CA certificates alike: the
// candidates of every chain.
X509StackPtr all_certificates(const std::string &folder)
{
    X509StackPtr all(sk_X509_new_null());
    for (const std::string &name : platform_folder_files(folder)) {
        if (!ends_with(name, ".crt") && !ends_with(name, ".ca"))
            continue;
        X509Ptr cert = read_certificate(path_in(folder, name));
        if (cert && all && sk_X509_push(all.get(), cert.get()))
            cert.release();
    }
    return all;
}

// The identity certificates (those with a key file beside them).
std::vector<X509Ptr> identity_certificates(const std::string &folder)
{
    std::vector<X509Ptr> found;
    for (const std::string &name : platform_folder_files(folder))
        if (ends_with(name, ".crt"))
            if (X509Ptr cert = read_certificate(path_in(folder, name)))
                found.push_back(std::move(cert));
    return found;
}

bool store_attach(CertHandle *handle, X509 *cert)
{
    std::string folder = cert_store_folder();
    std::string sha1 = cert_sha1_hex(cert);
    if (folder.empty() || !platform_file_exists(path_in(folder, sha1 + ".crt")))
        return false;
    X509StackPtr candidates = all_certificates(folder);
    handle->issuers = cert_issuers_from(cert, candidates.get());
    PkeyPtr key = read_private_key(path_in(folder, sha1 + ".key"), binding().passphrase());
    if (!key) {
        error("cert_store: the key of certificate %s cannot be read under the agent passphrase", sha1.c_str());
        return false;
    }
    handle->sign = software_digest_signer(std::move(key));
    return true;
}

KeyPtr store_lookup(const std::string &identifier)
{
    std::string folder = cert_store_folder();
    for (X509Ptr &cert : identity_certificates(folder)) {
        if (!cert_matches_identifier(cert.get(), identifier))
            continue;
        auto handle = std::make_shared<CertHandle>();
        if (!store_attach(handle.get(), cert.get()))
            return nullptr;
        return cert_identity_make(cert.get(), CERT_SOURCE_TARNWELL, handle);
    }
    error("cert_store: no certificate in the agent's store matches \"%s\"", identifier.c_str());
    return nullptr;
}

KeyPtr store_by_public_key_hash(const uint8_t *hash, size_t len)
{
    KVL::Bytes wanted(hash, len);
    X509StackPtr candidates = all_certificates(cert_store_folder());
    for (X509Ptr &cert : identity_certificates(cert_store_folder())) {
        if (!(KVL::Cert(cert.get()).GetPubKeyHash() == wanted))
            continue;
        auto handle = std::make_shared<CertHandle>();
        handle->issuers = cert_issuers_from(cert.get(), candidates.get());
        return cert_identity_make(cert.get(), CERT_SOURCE_TARNWELL, handle);
    }
    return nullptr;
}

}  // namespace

void cert_store_bind(const std::string &folder, const char *(*passphrase)())
{
    binding().folder = folder;
    binding().passphrase = passphrase;
}

std::string cert_store_folder() { return binding().folder; }

bool cert_store_import_pkcs12(const std::string &folder, const uint8_t *p12, size_t len, const char *p12_password,
                              const char *agent_passphrase, std::string *sha1_hex, std::string *why)
{
    const uint8_t *in = p12;
    OsslPtr<PKCS12, PKCS12_free> parsed(d2i_PKCS12(nullptr, &in, static_cast<long>(len)));
    if (!parsed) {
        *why = "not a PKCS#12 file, or a damaged one";
        return false;
    }
    if (!PKCS12_mac_present(parsed.get()) || !PKCS12_verify_mac(parsed.get(), p12_password, -1)) {
        *why = "wrong PKCS#12 password, or a damaged file";
        return false;
    }
    EVP_PKEY *pkey_raw = nullptr;
    X509 *cert_raw = nullptr;
    STACK_OF(X509) *ca_raw = nullptr;
    if (!PKCS12_parse(parsed.get(), p12_password, &pkey_raw, &cert_raw, &ca_raw)) {
        *why = "the PKCS#12 contents cannot be read";
        return false;
    }
    PkeyPtr pkey(pkey_raw);
    X509Ptr cert(cert_raw);
    X509StackPtr cas(ca_raw);
    if (!pkey || !cert || !X509_check_private_key(cert.get(), pkey.get())) {
        *why = "the PKCS#12 file holds no certificate with its private key";
        return false;
    }
    if (!plain_key(pkey_public_copy(pkey.get()))) {
        *why = "the certificate's key is neither RSA, DSA nor ECDSA";
        return false;
    }
    if (!platform_make_private_folder(folder)) {
        *why = "cannot create " + folder;
        return false;
    }
    std::string sha1 = cert_sha1_hex(cert.get());
    if (!write_private_key(path_in(folder, sha1 + ".key"), pkey.get(), agent_passphrase) ||
        !write_certificate(path_in(folder, sha1 + ".crt"), cert.get())) {
        platform_remove_file(path_in(folder, sha1 + ".key"));
        *why = "cannot write into " + folder;
        return false;
    }
    for (int i = 0; i < sk_X509_num(cas.get()); ++i) {
        X509 *ca = sk_X509_value(cas.get(), i);
        if (!write_certificate(path_in(folder, cert_sha1_hex(ca) + ".ca"), ca)) {
            *why = "cannot write into " + folder;
            return false;
        }
    }
    *sha1_hex = sha1;
    return true;
}

std::vector<CertStoreEntry> cert_store_list(const std::string &folder)
{
    std::vector<CertStoreEntry> entries;
    for (bool ca : {false, true})
        for (const std::string &name : platform_folder_files(folder))
            if (ends_with(name, ca ? ".ca" : ".crt"))
                if (X509Ptr cert = read_certificate(path_in(folder, name)))
                    entries.push_back({cert_sha1_hex(cert.get()), cert_simple_name(cert.get()), ca});
    return entries;
}

int cert_store_remove(const std::string &folder, const std::string &identifier)
{
    int removed = 0;
    for (const CertStoreEntry &entry : cert_store_list(folder)) {
        X509Ptr cert = read_certificate(path_in(folder, entry.sha1_hex + (entry.ca ? ".ca" : ".crt")));
        if (!cert_matches_identifier(cert.get(), identifier))
            continue;
        if (!entry.ca)
            platform_destroy_file(path_in(folder, entry.sha1_hex + ".key"));
        platform_remove_file(path_in(folder, entry.sha1_hex + (entry.ca ? ".ca" : ".crt")));
        ++removed;
    }
    return removed;
}

bool cert_store_reencrypt(const std::string &folder, const char *old_passphrase, const char *new_passphrase)
{
    bool ok = true;
    for (const std::string &name : platform_folder_files(folder)) {
        if (!ends_with(name, ".key"))
            continue;
        std::string path = path_in(folder, name);
        PkeyPtr key = read_private_key(path, old_passphrase ? old_passphrase : "");
        if (!key) {
            error("cert_store: %s does not open under the old passphrase; left as it is", name.c_str());
            continue;
        }
        // Written beside and renamed over, so that a crash leaves one whole key.
        if (!write_private_key(path + ".new", key.get(), new_passphrase ? new_passphrase : "") ||
            !platform_replace_file_destroying(path + ".new", path)) {
            error("cert_store: cannot re-encrypt %s", name.c_str());
            ok = false;
        }
    }
    return ok;
}

const CertProvider &tarnwell_store_provider()
{
    static const CertProvider provider = {store_lookup, store_attach, store_by_public_key_hash};
    return provider;
}
