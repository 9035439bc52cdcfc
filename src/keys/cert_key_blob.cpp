#include "keys/cert_key_blob.h"

#include "keys/key_material.h"
#include "keys/signature_algorithm.h"
#include "log/log.h"
#include "log/text_compare.h"

bool x509_name_is_rfc6187(const char *name)
{
    return name && (equals_ignore_case(name, "x509v3-rsa2048-sha256") || equals_ignore_case(name, "x509v3-ssh-rsa") ||
                    starts_with_ignore_case(name, "x509v3-ecdsa-sha2-"));
}

int x509_key_check(const Key *key, const char *caller)
{
    if (!key) {
        error("%.50s: no key", caller);
        return 0;
    }
    if (key->type != KEY_X509_RSA && key->type != KEY_X509_DSA && key->type != KEY_X509_ECDSA) {
        error("%.50s: cannot handle key type %d", caller, key->type);
        return 0;
    }
    if (!key->cert) {
        error("%.50s: no X509 key", caller);
        return 0;
    }
    return 1;
}

int ssh_pki_x509key_to_blob(const Key *key, Buffer *b)
{
    if (!x509_key_check(key, "ssh_pki_x509key_to_blob"))
        return 0;
    int len = i2d_X509(key->cert.get(), nullptr);
    if (len <= 0) {
        error("ssh_pki_x509key_to_blob: out of memory");
        return 0;
    }
    SecureBytes der(static_cast<size_t>(len));
    uint8_t *out = der.data();
    if (i2d_X509(key->cert.get(), &out) != len) {
        error("ssh_pki_x509key_to_blob: out of memory");
        return 0;
    }
    buffer_append(b, der.data(), static_cast<uint32_t>(len));
    return 1;
}

KeyPtr x509key_from_certificate(X509Ptr cert, const SignatureAlgorithm *row)
{
    if (!cert)
        return nullptr;
    PkeyPtr pkey(X509_get_pubkey(cert.get()));
    if (!pkey) {
        error("X509_get_pubkey failed");
        return nullptr;
    }
    KeyPtr key;
    switch (EVP_PKEY_get_base_id(pkey.get())) {
    case EVP_PKEY_RSA:
        key = key_new(KEY_X509_RSA);
        key->sigalg = row ? row : signature_algorithm_by_name("x509v3-sign-rsa");
        break;
    case EVP_PKEY_DSA:
        key = key_new(KEY_X509_DSA);
        key->sigalg = row ? row : signature_algorithm_by_name("x509v3-sign-dss");
        break;
    case EVP_PKEY_EC:
        key = key_new(KEY_X509_ECDSA);
        key->ecdsa_nid = pkey_ec_curve_nid(pkey.get());
        key->sigalg = row ? row : signature_algorithm_by_name(key_ssh_name(key.get()));
        break;
    default:
        debug3("ssh_pki_x509key_from_blob: unknown key");
        return nullptr;
    }
    key->cert = std::move(cert);
    key->pkey = std::move(pkey);
    return key;
}

KeyPtr ssh_pki_x509key_from_blob(const uint8_t *blob, uint32_t len)
{
    Buffer b;
    if (blob && len)
        buffer_append(&b, blob, len);
    std::string name = buffer_get_string_text(&b);
    if (!x509_name_is_rfc6187(name.c_str()))
        return nullptr;
    const SignatureAlgorithm *row = signature_algorithm_by_name(name.c_str());
    buffer_get_int(&b);  // certificate count: only the first is used
    uint32_t cert_len = buffer_get_int(&b);
    if (cert_len > buffer_len(&b))
        return nullptr;
    const uint8_t *der = buffer_ptr(&b);
    X509Ptr cert(d2i_X509(nullptr, &der, static_cast<long>(cert_len)));
    return x509key_from_certificate(std::move(cert), row);
}

KeyPtr x509key_from_any_blob(const uint8_t *blob, uint32_t len, const char *plain_name)
{
    if (!blob || len == 0)
        return nullptr;
    // A DER certificate begins with a SEQUENCE tag; a named blob with the
    // high byte of a string length, which is never 0x30 for a name.
    if (blob[0] == 0x30) {
        const uint8_t *der = blob;
        X509Ptr cert(d2i_X509(nullptr, &der, static_cast<long>(len)));
        if (!cert || der != blob + len)
            return nullptr;
        return x509key_from_certificate(std::move(cert), signature_algorithm_by_name(plain_name));
    }
    if (!x509_name_is_rfc6187(key_blob_name(blob, len).c_str()))
        return nullptr;
    return ssh_pki_x509key_from_blob(blob, len);
}
