// Fingerprints (digests of key blobs) and key descriptions.
#pragma once

#include <string>

#include "keys/key.h"

enum FingerprintDigest { SSH_FP_SHA1 = 0, SSH_FP_MD5 = 1, SSH_FP_SHA256 = 2 };
enum FingerprintRepresentation { SSH_FP_HEX = 0, SSH_FP_BUBBLEBABBLE = 1, SSH_FP_BASE64 = 2 };

// The digest of the key's blob under its base key-blob name; empty for a
// key of type KEY_UNSPEC. Bad digest or key types are fatal.
SecureBytes key_fingerprint_raw(const Key *key, int digest_type);

// The digest as text: "aa:bb:..." hex, Bubble Babble, or base64 without
// padding (as OpenSSH shows it).
std::string key_fingerprint(const Key *key, int digest_type, int representation);

std::string fingerprint_hex(const uint8_t *data, size_t len);
std::string fingerprint_bubblebabble(const uint8_t *data, size_t len);
std::string fingerprint_base64(const uint8_t *data, size_t len);

// Bits of the key material; 0 without material.
unsigned key_size(const Key *key);

// "2048-bit RSA, user@host", "ECDSA P256, user@host", or for a certificate
// identity "2048-bit, X.509 name: \"/CN=...\"".
std::string key_description(const Key *key);

// The user name, "@" and the host name.
std::string user_at_host();
