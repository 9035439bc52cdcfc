// What the key code needs from the certificate layer, which sits above it:
// the chain an RFC 6187 blob carries and the identity a certificate
// reference line names. The certificate layer installs these at start-up;
// using them before that is fatal rather than a quiet fallback.
#pragma once

#include <cstddef>
#include <cstdint>

#include "keys/key.h"
#include "keys/secure_memory.h"

struct CertKeyHooks {
    // Writes the RFC 6187 blob of a certificate identity under `name`. The
    // length, 0 on failure, -1 when no certificate list could be made.
    int (*rfc6187_blob)(const Key *key, SecureBytes *blob, uint32_t *len, const char *name);
    // The identity of `source` whose public key has this SHA-1; null when
    // the source has none.
    KeyPtr (*by_public_key_hash)(uint32_t source, const uint8_t *hash, size_t len);
};

// Null uninstalls.
void cert_key_hooks_set(const CertKeyHooks *hooks);
// The installed hooks; fatal when none are.
const CertKeyHooks &cert_key_hooks();
