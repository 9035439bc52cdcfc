// Key blobs: the SSH wire encoding of public keys.
#pragma once

#include <cstdint>

#include "keys/buffer.h"
#include "keys/key.h"

// Error codes of the EC point helpers (also the result of key_to_blob for an
// ECDSA key whose point cannot be written).
constexpr int KEY_EC_ERROR = 85;
constexpr int KEY_EC_BAD_KEY = 92;
constexpr int KEY_EC_NO_MEMORY = 452;

// Largest uncompressed EC point (P-521).
constexpr size_t KEY_EC_POINT_MAX = 133;

// Writes the blob of `key` under the algorithm name `name` (normally
// key_ssh_name or key_blob_type_name). Returns the length, 0 on failure; the
// blob and length are stored when their pointers are given. Certificate
// types write the RFC 6187 layout for its names, else the plain DER layout.
uint32_t key_to_blob(const Key *key, SecureBytes *blobp, uint32_t *lenp, const char *name);

// Reads a blob. A plain certificate blob (DER alone) becomes a certificate
// identity under the algorithm `plain_cert_name` (its default row when null);
// certificate identities read here get `cert_source`. An unknown algorithm
// name gives a key of type KEY_UNSPEC; a refused blob gives null.
KeyPtr key_from_blob(const uint8_t *blob, uint32_t len, const char *plain_cert_name = nullptr,
                     uint32_t cert_source = CERT_SOURCE_NONE);

// Appends the uncompressed public point of an EC key as a string. 0 or an
// error code.
int key_eckey_put_buffer(const EVP_PKEY *pkey, Buffer *b);

// Decodes an uncompressed point into `point` (a format test only when
// `point` is null). 0 or an error code.
int get_ec_from_blob(const uint8_t *octets, size_t len, EC_POINT *point, const EC_GROUP *group);
