// The key signer and verifier: dispatch by key type to the signature code
// of the crypto layer and, for certificate identities, to the certificate
// signer and verifier here.
#pragma once

#include <cstddef>
#include <cstdint>

#include "crypto/crypto_api.h"  // PkiObject
#include "keys/key.h"
#include "keys/secure_memory.h"

// Asks the user for text (a certificate's PIN); true with the answer, false on cancel.
using SignPromptCallback = bool (*)(const char *prompt, SecretString *answer);

// Signs `data` with `key` under the key's selected algorithm (`key->sigalg`, else the row of key_ssh_name).
// 0 on success with the signature blob in *sigp (it may be left empty where the rules say so: a DSA key in FIPS mode);
// non-zero on failure. `compat` is the old-signature-format flag.
int key_sign(PkiObject *pki, uint64_t parent_window, const Key *key, SecureBytes *sigp, const uint8_t *data,
             size_t datalen, SignPromptCallback prompt, int compat);

// 1 correct, 0 incorrect, -1 error (a zero-length signature is -1 before dispatch; unknown types log "key_verify: illegal key type %d").
int key_verify(const Key *key, const uint8_t *signature, size_t signaturelen, const uint8_t *data, size_t datalen);
