// Pieces shared by the RSA, DSA and ECDSA signature code: the key's
// algorithm row, the one-pass digest, public-key sign and verify of a digest,
// and the signature blob's outer layer.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

#include <openssl/evp.h>

#include "keys/key.h"
#include "keys/secure_memory.h"
#include "keys/signature_algorithm.h"

// The row a key signs under: its selected row, else the row of its
// algorithm name. Null when neither names a row.
const SignatureAlgorithm *key_signature_row(const Key *key);

// Overwrites memory with `value` in a way the compiler cannot drop.
void overwrite_memory(void *data, size_t size, uint8_t value);

// A digest of the data to be signed. The buffer always has room for the
// largest digest and is overwritten with 'd' when released, so a digest
// never outlives the operation on any path.
struct SignatureDigest {
    uint8_t bytes[EVP_MAX_MD_SIZE] = {};
    unsigned len = 0;

    SignatureDigest() = default;
    SignatureDigest(const SignatureDigest &) = delete;
    SignatureDigest &operator=(const SignatureDigest &) = delete;
    ~SignatureDigest() { overwrite_memory(bytes, sizeof bytes, 0x64); }
};

// Hashes `data` in one pass; false on any failure of the library.
bool signature_digest(const EVP_MD *md, const uint8_t *data, size_t datalen, SignatureDigest *digest);

// The text of the library's oldest queued error; the queue is emptied so
// that the next failure reports its own cause.
std::string crypto_error_text();

// Signs a digest with the private key. `rsa_padding` is the RSA padding mode,
// or 0 for key types without one. `*siglen` holds the room in `sig` and
// receives the signature's length. False when any step fails; the error
// stays queued for crypto_error_text.
bool pkey_sign_digest(EVP_PKEY *pkey, const EVP_MD *md, int rsa_padding, const SignatureDigest &digest, uint8_t *sig,
                      size_t *siglen);

// Checks a DER signature (DSA or ECDSA) over a digest with the public key:
// 1 when every step succeeds, else 0.
int pkey_verify_digest(EVP_PKEY *pkey, const EVP_MD *md, const SignatureDigest &digest, const uint8_t *sig,
                       size_t siglen);

// A signature blob: string name, string signature.
void signature_blob_make(const char *name, const uint8_t *sig, size_t siglen, SecureBytes *blob);

// The two strings of a signature blob as far as they are present, and the
// count of bytes after them. A string that is cut short is left unread.
struct SignatureBlob {
    bool has_type = false;
    bool has_signature = false;
    std::string type;
    SecureBytes signature;
    uint32_t remaining = 0;
};

SignatureBlob signature_blob_parse(const uint8_t *blob, size_t len);
