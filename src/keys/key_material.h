// Small accessors for OpenSSL key material, shared by the key, blob and
// certificate code.
#pragma once

#include "keys/ossl_ptr.h"
#include "keys/secure_memory.h"

// A key of `type_name` ("RSA", "DSA", "EC") from built parameters;
// `selection` as for EVP_PKEY_fromdata. Null on failure.
PkeyPtr pkey_from_params(const char *type_name, OSSL_PARAM_BLD *builder, int selection);

// A new key holding only the public half (and the domain parameters).
PkeyPtr pkey_public_copy(const EVP_PKEY *pkey);

// One big-number parameter (OSSL_PKEY_PARAM_RSA_N ...); null if absent.
BnPtr pkey_get_bn(const EVP_PKEY *pkey, const char *param);

// The curve nid of an EC key; -1 for other keys or curves without a nid.
int pkey_ec_curve_nid(const EVP_PKEY *pkey);

// The encoded public point of an EC key, as the key holds it; empty if none.
SecureBytes pkey_ec_public_octets(const EVP_PKEY *pkey);

// The raw 32-byte public key of an Ed25519 key; empty for other keys.
SecureBytes pkey_ed25519_public_bytes(const EVP_PKEY *pkey);

// An Ed25519 public key from its raw bytes; null unless `len` is 32.
PkeyPtr pkey_ed25519_from_public(const uint8_t *bytes, size_t len);
