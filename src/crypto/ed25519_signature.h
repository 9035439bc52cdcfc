// SSH Ed25519 signatures ("ssh-ed25519"): PureEdDSA over the data itself,
// 64 bytes.
#pragma once

#include <cstddef>
#include <cstdint>

#include "keys/key.h"
#include "keys/secure_memory.h"

// 0 with the blob in *sigp (when given), -1 on failure, including a FIPS
// mode whose module does not provide Ed25519.
int ssh_ed25519_sign(const Key *key, SecureBytes *sigp, const uint8_t *data, size_t datalen);

// 1 correct, 0 incorrect, -1 for a malformed blob or an unusable key.
int ssh_ed25519_verify(const Key *key, const uint8_t *signature, size_t signaturelen, const uint8_t *data,
                       size_t datalen);
