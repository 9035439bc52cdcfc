// The key object through which the program handles a public key, a private
// key or a certificate identity, its type codes, and the name tables.
#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "keys/ossl_ptr.h"
#include "keys/secure_memory.h"
#include "keys/signature_algorithm.h"

enum KeyType : int32_t {
    KEY_RSA = 1,
    KEY_DSA = 2,
    KEY_X509_RSA = 3,
    KEY_X509_DSA = 4,
    KEY_ECDSA = 5,
    KEY_X509_ECDSA = 6,
    KEY_NULL = 7,
    KEY_UNSPEC = 8,
    // Added after the original codes, which stay as they are.
    KEY_ED25519 = 9,
};

// Where a certificate identity comes from.
enum CertSource : uint32_t {
    CERT_SOURCE_NONE = 0,
    CERT_SOURCE_SYSTEM = 1,    // "#CERT_SYSTEM"
    CERT_SOURCE_PKCS11 = 2,    // "#CERT_PKCS11"
    CERT_SOURCE_TARNWELL = 3,  // "#CERT_TARNWELL"
};

// Curve identifiers (OpenSSL nids).
constexpr int KEY_NID_P256 = 415;
constexpr int KEY_NID_P384 = 715;
constexpr int KEY_NID_P521 = 716;

// A key is heap-allocated and has one holder; key_free (through KeyPtr)
// releases it and everything it owns. Key material that has not been given
// yet is an empty `pkey`.
struct Key {
    int32_t type = KEY_UNSPEC;
    uint32_t flags = 0;
    uint32_t cert_source = CERT_SOURCE_NONE;
    PkeyPtr pkey;
    int32_t ecdsa_nid = -1;
    X509Ptr cert;                     // certificate of types 3, 4, 6
    std::shared_ptr<void> cert_extra;  // a further object of the certificate layer
    std::string cert_reference;       // how the certificate layer finds it again
    std::string name;                 // short key name used in logs and the key store
    const SignatureAlgorithm *sigalg = nullptr;  // chosen when read by name; not owned
};

void key_free(Key *key);

struct KeyFree {
    void operator()(Key *key) const { key_free(key); }
};
using KeyPtr = std::unique_ptr<Key, KeyFree>;

// Types 1 to 6, 8 and 9; any other type is fatal. Types 3 and 4 get an empty
// certificate.
KeyPtr key_new(int type);
KeyPtr key_new_private(int type);

// Non-zero when both keys are of one type and hold the same public key (for
// certificate identities: the same certificate public-key hash).
int key_equal(const Key *a, const Key *b);

// "RSA", "DSA", "ECDSA", "ED25519", "X509(rsa)" / "RSA+cert", ... , "unknown".
const char *key_type(const Key *key);
// The key's algorithm name: its own row's, else one by type.
const char *key_ssh_name(const Key *key);
// The base key-blob name of the key's row; "" for certificate rows and
// "ssh-unknown" when there is no row.
const char *key_blob_type_name(const Key *key);

int key_type_from_name(const char *name);
int key_type_from_short_name(const char *name);

// A new key holding only the public half of `key`'s material.
KeyPtr key_from_private(const Key *key);

// A new private key: RSA or DSA of `bits`, ECDSA of 256, 384 or 521 bits,
// Ed25519 (bits ignored).
KeyPtr key_generate(int type, unsigned bits);

// Curve tables: -1, null or 0 for anything not listed.
int key_curve_name_to_nid(const char *name);
const char *key_curve_nid_to_name(int nid);
int key_ecdsa_name_to_nid(const char *name);
int key_ecdsa_bits_to_nid(int bits);
int key_ecdsa_nid_to_bits(int nid);
// The OpenSSL group name ("P-256", ...) of a curve nid; null if not listed.
const char *key_curve_nid_to_group(int nid);

// Size of an Ed25519 public key, private seed and signature.
constexpr size_t ED25519_KEY_BYTES = 32;
constexpr size_t ED25519_SIGNATURE_BYTES = 64;

// The first string of a key blob; empty when the blob is null or empty.
std::string key_blob_name(const uint8_t *blob, uint32_t len);

// Logs the crypto library's latest error text at debug level 3, when there
// is one, ahead of an error line of the key code.
void key_log_crypto_error();
