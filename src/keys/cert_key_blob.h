// Certificate identities as key blobs: the plain layout (the certificate's
// DER alone) and the RFC 6187 layout (name, certificate chain, OCSP count),
// read and written without the certificate layer. Writing an RFC 6187 blob
// needs the identity's chain, which that layer finds (pki/x509_key_blob.h).
#pragma once

#include <cstdint>

#include "keys/buffer.h"
#include "keys/key.h"

// True for the names written in the RFC 6187 layout: "x509v3-ssh-rsa",
// "x509v3-rsa2048-sha256" and "x509v3-ecdsa-sha2-*", letter case ignored.
bool x509_name_is_rfc6187(const char *name);

// The check shared by the certificate writers: 1 when `key` is a
// certificate identity with a certificate, else 0 after an error line that
// begins with `caller`.
int x509_key_check(const Key *key, const char *caller);

// Appends the plain blob. 1 or 0.
int ssh_pki_x509key_to_blob(const Key *key, Buffer *b);

// Reads an RFC 6187 blob; only its first certificate is used.
KeyPtr ssh_pki_x509key_from_blob(const uint8_t *blob, uint32_t len);

// A certificate identity of the type of the certificate's public key, with
// `row` as its algorithm (the type's default row when null).
KeyPtr x509key_from_certificate(X509Ptr cert, const SignatureAlgorithm *row);

// Either layout: a blob that is one whole DER certificate becomes an
// identity under `plain_name`; an RFC 6187 blob is read as such. Null for
// every other blob, without a log line.
KeyPtr x509key_from_any_blob(const uint8_t *blob, uint32_t len, const char *plain_name);
