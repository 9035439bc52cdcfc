#include "keys/kvl.h"

#include <openssl/x509.h>

namespace KVL {

Cert::Cert(X509 *cert) : cert_(x509_ref(cert)) {}

Bytes Cert::GetPubKeyHash() const
{
    if (!cert_ || !X509_get0_pubkey(cert_.get()))
        return {};
    MdPtr sha1(EVP_MD_fetch(nullptr, "SHA1", nullptr));
    uint8_t digest[EVP_MAX_MD_SIZE];
    unsigned len = 0;
    if (!sha1 || !X509_pubkey_digest(cert_.get(), sha1.get(), digest, &len))
        return {};
    Bytes hash(digest, len);
    wipe_memory(digest, sizeof digest);
    return hash;
}

Bytes Cert::GetEncoded() const
{
    if (!cert_)
        return {};
    int len = i2d_X509(cert_.get(), nullptr);
    if (len <= 0)
        return {};
    SecureBytes der(static_cast<size_t>(len));
    uint8_t *out = der.data();
    if (i2d_X509(cert_.get(), &out) != len)
        return {};
    return Bytes(der.data(), der.size());
}

}  // namespace KVL
