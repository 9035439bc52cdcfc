// Checking signatures made by X.509 RSA and DSA identities (X.509 ECDSA
// signatures are plain ECDSA signatures and are checked as such).
#pragma once

#include <cstddef>
#include <cstdint>

#include "keys/key.h"

// 1 correct, 0 incorrect, -1 for a malformed blob or an unusable key. RSA
// signatures that fail under the row's hash are tried again as MD5 and as
// SHA-1 ones, as older clients made them (never in FIPS mode). DSA
// signatures are taken in both forms: 40 raw bytes r||s or DER.
int cert_identity_verify(const Key *key, const uint8_t *signature, size_t signaturelen, const uint8_t *data,
                         size_t datalen);
