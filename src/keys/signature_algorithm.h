// The constant table of signature algorithms: for each algorithm name the
// name written into signature blobs, the base key-blob name and the hash.
#pragma once

#include <cstddef>

struct SignatureAlgorithm {
    const char *name;            // algorithm name of a key blob or request
    const char *signature_name;  // name inside a signature blob
    const char *base_name;       // base key-blob name; empty for certificate rows
    int hash_nid;                // OpenSSL digest identifier
};

// The product's own alias of rsa-sha2-256.
#define SSH_RSA_SHA256_VENDOR_ALIAS "ssh-rsa-sha2-256@tarnwell.com"

constexpr size_t SIGNATURE_ALGORITHM_COUNT = 16;

// All rows, in lookup order.
const SignatureAlgorithm *signature_algorithms();

// First row whose algorithm name matches, ignoring letter case; null if none.
const SignatureAlgorithm *signature_algorithm_by_name(const char *name);
// First row whose signature name matches, ignoring letter case; null if none.
const SignatureAlgorithm *signature_algorithm_by_signature_name(const char *name);

// "MD5", "SHA1", "SHA256", "SHA384", "SHA512", else "UNDEF"; for log lines.
const char *digest_text_name(int nid);

// True for a row of a certificate identity (empty base name).
bool signature_algorithm_is_certificate(const SignatureAlgorithm *row);
