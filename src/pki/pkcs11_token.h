// PKCS#11 modules, tokens and their certificates, through the PKCS#11 C
// interface. A module is loaded once per process (through the platform
// layer) and kept; a session per token is kept open so that one login
// serves later signatures, and is opened again when the token was removed
// and put back.
#pragma once

#include <string>
#include <vector>

#include "keys/ossl_ptr.h"
#include "keys/secure_memory.h"
#include "pki/key_signer.h"

// How to load a module: its file and the text its initialisation takes
// (NSS's softoken takes its database folder there; empty for most).
struct Pkcs11ModuleSpec {
    std::string path;
    std::string init_text;
};

struct Pkcs11Certificate {
    X509Ptr cert;
    std::string token_label;
    std::vector<uint8_t> id;  // CKA_ID, shared with its private key
};

// The X.509 certificates of every present token of the module; an empty
// list (after a log line) when the module cannot be loaded.
std::vector<Pkcs11Certificate> pkcs11_certificates(const Pkcs11ModuleSpec &module);

// Signs a digest with the private key of `id` on the token labelled
// `token_label` (see CertDigestSigner for the result's layout). The PIN is
// asked through `prompt` when the token wants a login; it is never kept.
bool pkcs11_sign_digest(const Pkcs11ModuleSpec &module, const std::string &token_label,
                        const std::vector<uint8_t> &id, int key_type, int hash_nid, const uint8_t *digest,
                        size_t len, SignPromptCallback prompt, SecureBytes *raw);

// Finalizes and forgets every module and session, as a process start
// would find them.
void pkcs11_modules_reset();
