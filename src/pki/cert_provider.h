// The certificate provider layer: one interface over the places where a
// certificate identity can live (1 the system store, 2 PKCS#11 tokens, 3 the
// agent's own store). The add handler, the key-store reader and the signer
// reach every location through the functions below.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>

#include "keys/key.h"
#include "keys/ossl_ptr.h"
#include "keys/secure_memory.h"
#include "pki/cert_reference.h"
#include "pki/key_signer.h"

// Signs a digest with a certificate's private key wherever it lives. RSA:
// the PKCS #1 v1.5 signature over the DigestInfo of `hash_nid`; DSA and
// ECDSA: r||s, each half as long as the group order. False after an error
// line.
using CertDigestSigner =
    std::function<bool(int hash_nid, const uint8_t *digest, size_t len, SignPromptCallback prompt, SecureBytes *raw)>;

// What a provider attaches to a certificate identity (Key::cert_extra).
struct CertHandle {
    uint32_t location = CERT_SOURCE_NONE;
    CertReference reference;
    X509StackPtr issuers;   // the certificates above it, nearest first
    CertDigestSigner sign;  // empty while the private key is out of reach
};

struct CertProvider {
    // The identity for an identifier (the certificate's SHA-1 in hex, or its
    // subject's common name), with a signer. Null after a log line.
    KeyPtr (*lookup)(const std::string &identifier);
    // Finds the signer (and issuers) of the certificate a handle names, when
    // its source holds it now. False when it does not.
    bool (*attach)(CertHandle *handle, X509 *cert);
    // The identity whose public key has this SHA-1 (the public key store),
    // without a signer; null when the provider cannot tell before unlock.
    KeyPtr (*by_public_key_hash)(const uint8_t *hash, size_t len);
};

// Replaces the provider of a location; the Windows shell installs its
// CryptoAPI "MY" store as location 1 here. Null restores the default.
void cert_provider_set(uint32_t location, const CertProvider *provider);
// The provider of a location; null for an unknown one.
const CertProvider *cert_provider_for(uint32_t location);

KeyPtr cert_identity_lookup(uint32_t location, const std::string &identifier);
// A stored reference line: the identity with its signer when the source
// holds it, else (one log line) the identity from the certificate the line
// carries, which signs again once its source is back. Null for garbage.
KeyPtr cert_identity_from_reference(uint32_t location, const std::string &line);
KeyPtr cert_identity_by_public_key_hash(uint32_t location, const uint8_t *hash, size_t len);

// The handle of a certificate identity; null for any other key.
CertHandle *cert_identity_handle(const Key *key);
// A certificate identity of `location` for `cert`, owning `handle`; its
// reference line is made here (the certificate and its SHA-1 are added).
KeyPtr cert_identity_make(X509 *cert, uint32_t location, std::shared_ptr<CertHandle> handle);

// Lower-case hex of the certificate's SHA-1; empty on failure.
std::string cert_sha1_hex(X509 *cert);
// The subject's common name; empty when there is none.
std::string cert_simple_name(X509 *cert);
// True when `identifier` is the certificate's SHA-1 hex (any letter case,
// ':' separators allowed) or its subject's common name.
bool cert_matches_identifier(X509 *cert, const std::string &identifier);
// The issuers of `leaf` found among `candidates`, nearest first, as far as
// the issuer links and signatures lead (at most 8).
X509StackPtr cert_issuers_from(X509 *leaf, STACK_OF(X509) *candidates);
