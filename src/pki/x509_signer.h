// Signing with certificate identities whose private key lives with a
// certificate provider (a token, a store), under every name of the
// signature algorithm table, as a certificate or as the plain key inside it.
#pragma once

#include <cstddef>
#include <cstdint>

#include "keys/key.h"
#include "pki/cert_provider.h"
#include "pki/key_signer.h"

// The signature blob for `key` (an identity with a provider handle; its type
// may have been mapped to the plain type) under its selected row. 0 with the
// blob in *sigp (left empty for DSA in FIPS mode), -1 on failure.
int cert_identity_sign(const Key *key, SecureBytes *sigp, const uint8_t *data, size_t datalen,
                       SignPromptCallback prompt);

// A digest signer over a private key held in memory.
CertDigestSigner software_digest_signer(PkeyPtr key);
