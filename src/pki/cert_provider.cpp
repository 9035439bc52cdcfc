#include "pki/cert_provider.h"

#include <openssl/evp.h>

#include "crypto/fips_policy.h"
#include "log/log.h"
#include "pki/cert_providers.h"

namespace {

const CertProvider *installed[4] = {};

const CertProvider *default_provider(uint32_t location)
{
    switch (location) {
    case CERT_SOURCE_SYSTEM: return &system_store_provider();
    case CERT_SOURCE_PKCS11: return &pkcs11_provider();
    case CERT_SOURCE_TARNWELL: return &tarnwell_store_provider();
    default: return nullptr;
    }
}

X509Ptr certificate_from_base64(const std::string &text)
{
    SecureBytes der(text.size() / 4 * 3 + 3);
    int len = text.empty() || text.size() % 4 ? -1
              : EVP_DecodeBlock(der.data(), reinterpret_cast<const unsigned char *>(text.data()),
                                static_cast<int>(text.size()));
    if (len <= 0)
        return nullptr;
    // EVP_DecodeBlock counts the padding as zero bytes; DER knows its length.
    const uint8_t *in = der.data();
    return X509Ptr(d2i_X509(nullptr, &in, len));
}

}  // namespace

void cert_provider_set(uint32_t location, const CertProvider *provider)
{
    if (location >= 1 && location <= 3)
        installed[location] = provider;
}

const CertProvider *cert_provider_for(uint32_t location)
{
    if (location >= 1 && location <= 3 && installed[location])
        return installed[location];
    return default_provider(location);
}

// The FIPS key check of certificate identities (no legacy lengths).
bool fips_acceptable(const Key *key)
{
    if (!crypto_fips_enabled())
        return true;
    int bits = EVP_PKEY_get_bits(key->pkey.get());
    if (key->type == KEY_X509_DSA) {
        error("In FIPS mode, DSA keys are not supported.");
        return false;
    }
    if (key->type == KEY_X509_RSA && bits != 2048 && bits != 3072 && bits != 4096 && bits != 8192) {
        error("Invalid key length %lu. In FIPS mode, RSA key length must be %s2048, 3072, 4096 or 8192.",
              static_cast<unsigned long>(bits), "");
        return false;
    }
    return true;
}

KeyPtr cert_identity_lookup(uint32_t location, const std::string &identifier)
{
    const CertProvider *provider = cert_provider_for(location);
    if (!provider) {
        error("cert_identity_lookup: unknown certificate location %u", location);
        return nullptr;
    }
    KeyPtr key = provider->lookup(identifier);
    return key && fips_acceptable(key.get()) ? std::move(key) : nullptr;
}

KeyPtr cert_identity_from_reference(uint32_t location, const std::string &line)
{
    const CertProvider *provider = cert_provider_for(location);
    CertReference reference;
    std::string why;
    if (!provider || !cert_reference_parse(line, &reference, &why)) {
        error("cert_identity_from_reference: bad certificate reference in location %u: %s", location,
              provider ? why.c_str() : "unknown location");
        return nullptr;
    }
    X509Ptr cert = certificate_from_base64(reference.cert_base64);
    if (!cert || cert_sha1_hex(cert.get()) != reference.sha1_hex) {
        error("cert_identity_from_reference: certificate %s: the reference carries no matching certificate",
              reference.sha1_hex.c_str());
        return nullptr;
    }
    auto handle = std::make_shared<CertHandle>();
    handle->reference = reference;
    handle->location = location;
    if (!provider->attach(handle.get(), cert.get()))
        logit("Certificate %s is not available in location %u now; kept, it signs once it is back",
              reference.sha1_hex.c_str(), location);
    KeyPtr key = cert_identity_make(cert.get(), location, handle);
    if (key)
        key->cert_reference = line;  // kept as stored, whatever it holds beyond what is used
    return key;
}

KeyPtr cert_identity_by_public_key_hash(uint32_t location, const uint8_t *hash, size_t len)
{
    const CertProvider *provider = cert_provider_for(location);
    return provider && provider->by_public_key_hash ? provider->by_public_key_hash(hash, len) : nullptr;
}
