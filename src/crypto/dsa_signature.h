// SSH DSA signatures ("ssh-dss"): SHA-1, r and s as 20 bytes each.
#pragma once

#include <cstddef>
#include <cstdint>

#include "keys/key.h"
#include "keys/secure_memory.h"

// Length of the r||s signature inside an "ssh-dss" blob.
constexpr size_t SIGBLOB_LEN = 40;

// 0 with the blob in *sigp (when given), -1 on failure. In FIPS mode DSA
// signatures are refused, yet the result is 0 and no blob is written.
int ssh_dss_sign(const Key *key, SecureBytes *sigp, const uint8_t *data, size_t datalen, int compat);

// 1 correct, 0 incorrect, -1 for a malformed blob or an unusable key.
int ssh_dss_verify(const Key *key, const uint8_t *signature, size_t signaturelen, const uint8_t *data, size_t datalen,
                   int compat);
