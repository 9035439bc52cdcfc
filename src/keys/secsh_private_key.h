// The binary private key format that starts with the magic number
// 0x3f6ff9eb (the body of "---- BEGIN SSH2 ENCRYPTED PRIVATE KEY ----"
// files). Only unencrypted keys (cipher "none") are decoded.
#pragma once

#include <cstddef>
#include <cstdint>

#include <openssl/evp.h>

constexpr uint32_t SECSH_PRIVATE_KEY_MAGIC = 0x3f6ff9eb;

struct SecshPrivateKey {
    EVP_PKEY *pkey = nullptr;  // owned by the caller once returned
    int type = 0;              // 1 RSA, 2 DSA, 5 ECDSA
    int ecdsa_nid = -1;
};

// Decodes `blob`; false (with a log line saying why) for anything else than
// an unencrypted RSA, DSA or ECDSA key.
bool secsh_private_key_decode(const uint8_t *blob, size_t len, SecshPrivateKey *out);
