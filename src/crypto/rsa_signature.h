// SSH RSA signatures (PKCS #1 v1.5) for plain RSA keys.
#pragma once

#include <cstddef>
#include <cstdint>

#include <openssl/evp.h>

#include "keys/key.h"
#include "keys/secure_memory.h"

// Verification refuses moduli below this many bits.
constexpr int SSH_RSA_MINIMUM_MODULUS_SIZE = 768;

// Signs `data` under the key's algorithm row: 0 with the blob (string
// signature name, string signature as long as the modulus) in *sigp when
// sigp is given, -1 on failure. `compat` does not change RSA signatures.
int ssh_rsa_sign(const Key *key, SecureBytes *sigp, const uint8_t *data, size_t datalen, int compat);

// 1 correct, 0 incorrect, -1 for a malformed blob or an unusable key.
int ssh_rsa_verify(const Key *key, const uint8_t *signature, size_t signaturelen, const uint8_t *data, size_t datalen,
                   int compat);

// Checks that `sigbuf` decodes under `rsa` to the DigestInfo of `hash`
// (SHA-1, SHA-256, SHA-512, or MD5 outside FIPS mode). 1 or 0.
int rsa_verify_digest_info(int hash_nid, const uint8_t *hash, size_t hashlen, const uint8_t *sigbuf, size_t siglen,
                           EVP_PKEY *rsa);
