// Signing with the private key of a certificate in the user's "MY" store,
// through CryptoAPI or CNG, whichever holds the key.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include <openssl/evp.h>

#include "keys/secure_memory.h"
#include "pki/key_signer.h"

struct SystemCertKey {
    std::vector<uint8_t> sha1;             // the certificate's SHA-1, how the store finds it
    std::string sha1_hex;                  // the same for log lines
    std::string name;                      // the subject's common name, for the PIN prompt
    int key_type = 0;                      // EVP_PKEY_RSA, EVP_PKEY_DSA or EVP_PKEY_EC
    std::shared_ptr<EVP_PKEY> public_key;  // the certificate's, to check DSA signatures
};

// Signs `digest` (made with `hash_nid`) with the certificate's private key:
// RSA as PKCS #1 v1.5, DSA and ECDSA as big-endian r||s. The store is opened
// afresh, so a certificate removed since the lookup fails here. A PIN is
// asked through `prompt` only when the key's provider refuses to sign
// silently. False after an error line.
bool system_cert_sign_digest(const SystemCertKey &key, int hash_nid, const uint8_t *digest, size_t len,
                             SignPromptCallback prompt, SecureBytes *raw);
