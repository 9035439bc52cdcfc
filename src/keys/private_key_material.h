// Builds private key material from its numbers, as agent add requests carry
// them. Each returns null when the numbers do not make a valid key.
#pragma once

#include <cstddef>
#include <cstdint>

#include <openssl/bn.h>
#include <openssl/evp.h>

// RSA from n, e, d, iqmp, p, q; the CRT exponents are computed here.
EVP_PKEY *rsa_private_from_numbers(const BIGNUM *n, const BIGNUM *e, const BIGNUM *d, const BIGNUM *iqmp,
                                   const BIGNUM *p, const BIGNUM *q);
// DSA from p, q, g, the public value y and the private value x.
EVP_PKEY *dsa_private_from_numbers(const BIGNUM *p, const BIGNUM *q, const BIGNUM *g, const BIGNUM *y,
                                   const BIGNUM *x);
// ECDSA on the curve `nid` from the uncompressed public point and the private
// scalar; the key must pass the public and private key checks.
EVP_PKEY *ecdsa_private_from_numbers(int nid, const uint8_t *point, size_t point_len, const BIGNUM *scalar);
// Ed25519 from the 32-byte public key and OpenSSH's 64-byte private field
// (the seed followed by the public key again); both copies of the public key
// must match the one the seed derives.
EVP_PKEY *ed25519_private_from_bytes(const uint8_t *public_key, size_t public_len, const uint8_t *secret,
                                     size_t secret_len);

// Appends the key type name and the private numbers of `key` as an agent
// add request carries them (RSA n, e, d, iqmp, p, q; DSA p, q, g, y, x;
// ECDSA curve name, public point, scalar; Ed25519 public key, seed and
// public key). The inverse of the builders
// above. False for other key types.
bool private_key_put_agent_fields(EVP_PKEY *key, struct Buffer *b);
