// Location 2, PKCS#11 tokens, and on POSIX location 1, the user's NSS
// database through NSS's own PKCS#11 module: one code, two configurations.
#include <cstdlib>

#include "log/log.h"
#include "pki/cert_providers.h"
#include "pki/pkcs11_token.h"

namespace {

std::string env_or(const char *name, const std::string &fallback)
{
    const char *value = getenv(name);
    return value && *value ? value : fallback;
}

Pkcs11ModuleSpec token_module(const std::string &path)
{
    return {path.empty() ? env_or("TARNWELL_PKCS11_MODULE", "p11-kit-proxy.so") : path, ""};
}

Pkcs11ModuleSpec nss_module()
{
    std::string db = env_or("TARNWELL_NSS_DB", env_or("HOME", "") + "/.pki/nssdb");
    return {env_or("TARNWELL_NSS_MODULE", "libsoftokn3.so"),
            "configdir='sql:" + db + "' certPrefix='' keyPrefix='' secmod='secmod.db' flags=readOnly"};
}

// An identifier that begins with '/' names its module first:
// "/usr/lib/softhsm/libsofthsm2.so:alice".
std::string split_module(const std::string &identifier, std::string *module)
{
    size_t colon = identifier.find(':');
    if (identifier.empty() || identifier[0] != '/' || colon == std::string::npos)
        return identifier;
    *module = identifier.substr(0, colon);
    return identifier.substr(colon + 1);
}

// The token certificates that issued `cert`, nearest first.
X509StackPtr token_issuers(X509 *cert, std::vector<Pkcs11Certificate> &all)
{
    X509StackPtr candidates(sk_X509_new_null());
    for (auto &c : all)
        if (candidates && sk_X509_push(candidates.get(), c.cert.get()))
            X509_up_ref(c.cert.get());
    return cert_issuers_from(cert, candidates.get());
}

void attach_signer(CertHandle *handle, const Pkcs11ModuleSpec &spec, const Pkcs11Certificate &found)
{
    handle->reference.token = found.token_label;
    int key_type = EVP_PKEY_get_base_id(X509_get0_pubkey(found.cert.get()));
    handle->sign = [spec, label = found.token_label, id = found.id, key_type](
                       int hash_nid, const uint8_t *digest, size_t len, SignPromptCallback prompt, SecureBytes *raw) {
        return pkcs11_sign_digest(spec, label, id, key_type, hash_nid, digest, len, prompt, raw);
    };
}

KeyPtr lookup_in(const Pkcs11ModuleSpec &spec, const std::string &identifier, uint32_t location, bool keep_module)
{
    std::vector<Pkcs11Certificate> all = pkcs11_certificates(spec);
    for (Pkcs11Certificate &found : all) {
        if (found.id.empty() || !cert_matches_identifier(found.cert.get(), identifier))
            continue;
        auto handle = std::make_shared<CertHandle>();
        if (keep_module)
            handle->reference.module = spec.path;
        handle->issuers = token_issuers(found.cert.get(), all);
        attach_signer(handle.get(), spec, found);
        return cert_identity_make(found.cert.get(), location, handle);
    }
    error("pkcs11: no certificate with a key id matches \"%s\" in %s", identifier.c_str(), spec.path.c_str());
    return nullptr;
}

bool attach_in(const Pkcs11ModuleSpec &spec, CertHandle *handle, X509 *cert)
{
    std::vector<Pkcs11Certificate> all = pkcs11_certificates(spec);
    std::string sha1 = cert_sha1_hex(cert);
    for (Pkcs11Certificate &found : all) {
        if (found.id.empty() || cert_sha1_hex(found.cert.get()) != sha1)
            continue;
        handle->issuers = token_issuers(cert, all);
        attach_signer(handle, spec, found);
        return true;
    }
    return false;
}

KeyPtr token_lookup(const std::string &identifier)
{
    std::string module;
    std::string rest = split_module(identifier, &module);
    return lookup_in(token_module(module), rest, CERT_SOURCE_PKCS11, true);
}

bool token_attach(CertHandle *handle, X509 *cert) { return attach_in(token_module(handle->reference.module), handle, cert); }

KeyPtr nss_lookup(const std::string &identifier) { return lookup_in(nss_module(), identifier, CERT_SOURCE_SYSTEM, false); }

bool nss_attach(CertHandle *handle, X509 *cert) { return attach_in(nss_module(), handle, cert); }

}  // namespace

const CertProvider &pkcs11_provider()
{
    // Tokens are not searched by public-key hash before unlock: loading a
    // module at start-up could wait on hardware. The private store brings
    // the identities back after unlock.
    static const CertProvider provider = {token_lookup, token_attach, nullptr};
    return provider;
}

const CertProvider &system_store_provider()
{
    static const CertProvider provider = {nss_lookup, nss_attach, nullptr};
    return provider;
}
