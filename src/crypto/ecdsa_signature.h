// SSH ECDSA signatures on P-256, P-384 and P-521 (plain keys and X.509 ECDSA
// identities alike).
#pragma once

#include <cstddef>
#include <cstdint>

#include "keys/key.h"
#include "keys/secure_memory.h"

// Result codes of the ECDSA functions.
constexpr int SSH_ECDSA_OK = 0;
constexpr int SSH_ECDSA_ERROR = 85;
constexpr int SSH_ECDSA_BAD_KEY = 92;

// 0 with the blob (string signature name, string of mpint r and mpint s) in
// *sigp when given; 92 for an unusable key, 85 for any other failure.
int ssh_ecdsa_sign(const Key *key, SecureBytes *sigp, const uint8_t *data, size_t datalen, int compat);

// 1 correct, 0 incorrect, -1 when the check could not run; 92 for an
// unusable key, 85 for a malformed blob or a digest failure.
int ssh_ecdsa_verify(const Key *key, const uint8_t *signature, size_t signaturelen, const uint8_t *data,
                     size_t datalen, int compat);

// Replaces the content of an ECDSA signature string (mpint r, mpint s) by the
// DER ECDSA-Sig-Value of the same numbers; returns the DER length, or -1 and
// leaves *sig as it was.
int ssh_ecdsa_parse_sig(SecureBytes *sig);
