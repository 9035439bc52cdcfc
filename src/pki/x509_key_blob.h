// The RFC 6187 key blob of a certificate identity with its chain, which the
// identity's provider or the PKI object finds.
#pragma once

#include <cstdint>

#include "crypto/crypto_api.h"
#include "keys/cert_key_blob.h"
#include "keys/key.h"
#include "keys/secure_memory.h"

// Writes the RFC 6187 blob under `name`. The chain is `chain` when it holds
// the key's certificate, else the one `pki` (the running PKI object when
// null) builds. Returns the length, 0 on failure, -1 when no certificate
// list could be made.
int ssh_pki_x509key_to_rfc6187_pubkey_blob(const Key *key, STACK_OF(X509) *chain, SecureBytes *blobp,
                                           uint32_t *lenp, const char *name, PkiObject *pki);
