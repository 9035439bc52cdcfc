// One private key as a PEM block under a password: AES-256-CBC with the
// library's own key derivation, or no encryption for the empty password.
// This is how the private key store holds each key.
#pragma once

#include <cstddef>

#include <openssl/types.h>

#include "keys/key.h"
#include "keys/secure_memory.h"

// The longest password that the library reads a key back under: a longer
// one would encrypt keys that nothing could decrypt again.
constexpr size_t PRIVATE_KEY_PEM_PASSWORD_MAX = 1024;

// Writes the private half of an RSA, DSA, ECDSA or Ed25519 key to `pem`
// (replacing its contents). False, with an error line, when the key holds no private
// material or the library refuses it.
bool private_key_pem_write(const Key *key, const char *password, SecretString *pem);

// Reads the first PEM private key in `text` (lines before its BEGIN line are
// skipped). `*consumed` gets the length up to and including the END line's
// line feed, or all of `len` when the block has no END line; `*block_start`
// where its BEGIN line starts. Null when nothing readable of type RSA, DSA,
// ECDSA or Ed25519 was found (a wrong password included).
KeyPtr private_key_pem_read(const char *text, size_t len, const char *password, size_t *consumed,
                            size_t *block_start = nullptr);

// Reads many keys under one password, the same as private_key_pem_read but
// setting the library's decoder up once instead of once per key, which costs
// more than reading an unencrypted key.
class PemKeyReader {
public:
    explicit PemKeyReader(const char *password);
    ~PemKeyReader();
    PemKeyReader(const PemKeyReader &) = delete;
    PemKeyReader &operator=(const PemKeyReader &) = delete;

    KeyPtr read(const char *text, size_t len, size_t *consumed, size_t *block_start = nullptr);

private:
    SecretString password_;
    OSSL_DECODER_CTX *decoder_ = nullptr;
    EVP_PKEY *decoded_ = nullptr;  // where the decoder puts each key
};
