#include "keys/key.h"

#include <cstring>

#include <openssl/err.h>

#include "keys/buffer.h"
#include "keys/key_material.h"
#include "keys/kvl.h"
#include "keys/signature_type_values.h"
#include "log/log.h"
#include "log/text_compare.h"

void key_log_crypto_error()
{
    unsigned long code = ERR_peek_last_error();
    if (!code)
        return;
    char text[256];
    ERR_error_string_n(code, text, sizeof text);
    debug3("(Crypto) %s", text);
}

KeyPtr key_new(int type)
{
    KeyPtr key(new Key);
    key->type = type;
    switch (type) {
    case KEY_X509_RSA:
    case KEY_X509_DSA:
        // Certificate identities of these types are filled in field by
        // field; ECDSA certificates always arrive whole.
        key->cert.reset(X509_new());
        if (!key->cert)
            fatal("key_new: X509_new failed");
        break;
    case KEY_RSA:
    case KEY_DSA:
    case KEY_ECDSA:
    case KEY_X509_ECDSA:
    case KEY_ED25519:
    case KEY_UNSPEC:
        break;
    default:
        key->type = KEY_UNSPEC;
        fatal("key_new: bad key type %d", type);
    }
    return key;
}

KeyPtr key_new_private(int type)
{
    KeyPtr key = key_new(type);
    if (type == KEY_X509_RSA)
        debug3("key_new_private: X509(rsa) MORE ...?");
    else if (type == KEY_X509_DSA)
        debug3("key_new_private: X509(dsa) MORE ...?");
    return key;
}

void key_free(Key *key)
{
    if (!key)
        return;
    if (key->type < KEY_RSA || (key->type > KEY_X509_ECDSA && key->type != KEY_UNSPEC && key->type != KEY_ED25519))
        error("key_free: bad key type %d", key->type);
    delete key;
}

int key_equal(const Key *a, const Key *b)
{
    if (!a || !b || a->type != b->type)
        return 0;
    switch (a->type) {
    case KEY_RSA:
    case KEY_DSA:
    case KEY_ECDSA:
    case KEY_ED25519:
        return a->pkey && b->pkey && EVP_PKEY_eq(a->pkey.get(), b->pkey.get()) == 1;
    case KEY_X509_RSA:
    case KEY_X509_DSA:
    case KEY_X509_ECDSA: {
        if (!a->cert || !b->cert)
            return 0;
        KVL::Bytes ha = KVL::Cert(a->cert.get()).GetPubKeyHash();
        KVL::Bytes hb = KVL::Cert(b->cert.get()).GetPubKeyHash();
        return !ha.empty() && ha == hb;
    }
    default:
        error("key_equal: bad key type %d", a->type);
        return 0;
    }
}

const char *key_type(const Key *key)
{
    if (!key)
        return "unknown";
    bool material = key->pkey != nullptr;
    switch (key->type) {
    case KEY_RSA: return "RSA";
    case KEY_DSA: return "DSA";
    case KEY_X509_RSA: return material ? "RSA+cert" : "X509(rsa)";
    case KEY_X509_DSA: return material ? "DSA+cert" : "X509(dsa)";
    case KEY_ECDSA: return "ECDSA";
    case KEY_X509_ECDSA: return material ? "ECDSA+cert" : "X509(ecdsa)";
    case KEY_ED25519: return "ED25519";
    default: return "unknown";
    }
}

const char *key_ssh_name(const Key *key)
{
    if (!key)
        return "ssh-unknown";
    if (key->sigalg)
        return key->sigalg->name;
    switch (key->type) {
    case KEY_RSA: return get_x509rsa_sigtype() == 2 ? "rsa-sha2-256" : "ssh-rsa";
    case KEY_DSA: return "ssh-dss";
    case KEY_X509_RSA: return get_x509rsa_sigtype() == 2 ? "x509v3-rsa2048-sha256" : "x509v3-sign-rsa";
    case KEY_X509_DSA: return "x509v3-sign-dss";
    case KEY_ECDSA:
        switch (key->ecdsa_nid) {
        case KEY_NID_P256: return "ecdsa-sha2-nistp256";
        case KEY_NID_P384: return "ecdsa-sha2-nistp384";
        case KEY_NID_P521: return "ecdsa-sha2-nistp521";
        default: return "ssh-unknown";
        }
    case KEY_X509_ECDSA:
        switch (key->ecdsa_nid) {
        case KEY_NID_P256: return "x509v3-ecdsa-sha2-nistp256";
        case KEY_NID_P384: return "x509v3-ecdsa-sha2-nistp384";
        case KEY_NID_P521: return "x509v3-ecdsa-sha2-nistp521";
        default: return "ssh-unknown";
        }
    case KEY_ED25519: return "ssh-ed25519";
    default: return "ssh-unknown";
    }
}

const char *key_blob_type_name(const Key *key)
{
    if (!key)
        return "ssh-unknown";
    const SignatureAlgorithm *row = key->sigalg ? key->sigalg : signature_algorithm_by_name(key_ssh_name(key));
    return row ? row->base_name : "ssh-unknown";
}

int key_type_from_name(const char *name)
{
    if (name) {
        for (const char *rsa : {"rsa", "rsa-sha2-256", "rsa-sha2-512", SSH_RSA_SHA256_VENDOR_ALIAS})
            if (equals_ignore_case(name, rsa))
                return KEY_RSA;
        if (equals_ignore_case(name, "dsa"))
            return KEY_DSA;
        if (equals_ignore_case(name, "ssh-rsa"))
            return KEY_RSA;
        if (equals_ignore_case(name, "ssh-dss"))
            return KEY_DSA;
        for (const char *x509rsa : {"x509v3-ssh-rsa", "x509v3-sign-rsa", "x509v3-rsa2048-sha256"})
            if (equals_ignore_case(name, x509rsa))
                return KEY_X509_RSA;
        if (equals_ignore_case(name, "x509v3-sign-dss"))
            return KEY_X509_DSA;
        // Prefix tests only: the curve is checked against the blob later.
        if (starts_with_ignore_case(name, "ecdsa-sha2-"))
            return KEY_ECDSA;
        if (starts_with_ignore_case(name, "x509v3-ecdsa-sha2-"))
            return KEY_X509_ECDSA;
        if (equals_ignore_case(name, "ssh-ed25519"))
            return KEY_ED25519;
        if (equals_ignore_case(name, "null"))
            return KEY_NULL;
    }
    debug2("key_type_from_name: unknown key type '%s'", name ? name : "(null)");
    return KEY_UNSPEC;
}

int key_type_from_short_name(const char *name)
{
    if (name && equals_ignore_case(name, "rsa"))
        return KEY_RSA;
    if (name && equals_ignore_case(name, "dsa"))
        return KEY_DSA;
    if (name && equals_ignore_case(name, "ecdsa"))
        return KEY_ECDSA;
    if (name && equals_ignore_case(name, "ed25519"))
        return KEY_ED25519;
    return KEY_UNSPEC;
}

KeyPtr key_from_private(const Key *key)
{
    int material = key && key->pkey ? EVP_PKEY_get_base_id(key->pkey.get()) : EVP_PKEY_NONE;
    if (material != EVP_PKEY_RSA && material != EVP_PKEY_DSA && material != EVP_PKEY_EC &&
        material != EVP_PKEY_ED25519) {
        error("key_from_private: failed to extract public key, type=%d", key ? key->type : KEY_NULL);
        return nullptr;
    }
    PkeyPtr pub = pkey_public_copy(key->pkey.get());
    if (!pub) {
        key_log_crypto_error();
        error("key_from_private: failed to extract public key, type=%d", key->type);
        return nullptr;
    }
    KeyPtr copy = key_new(key->type);
    copy->pkey = std::move(pub);
    copy->ecdsa_nid = key->ecdsa_nid;
    return copy;
}

std::string key_blob_name(const uint8_t *blob, uint32_t len)
{
    // The length is tested here rather than by the buffer, whose over-long
    // strings are fatal: a certificate blob begins with DER, not a string.
    if (!blob || len < 4)
        return {};
    uint32_t n = get_u32(blob);
    if (n > len - 4)
        return {};
    return std::string(reinterpret_cast<const char *>(blob) + 4, n);
}
