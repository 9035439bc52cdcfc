// Certificate handles: the certificate a key carries, and the byte strings
// it hands out (its public-key hash, its encoding).
#pragma once

#include <cstddef>
#include <cstdint>

#include "keys/ossl_ptr.h"
#include "keys/secure_memory.h"

namespace KVL {

class Bytes {
public:
    Bytes() = default;
    Bytes(const uint8_t *data, size_t size) : bytes_(data, data + size) {}
    const uint8_t *data() const { return bytes_.data(); }
    size_t size() const { return bytes_.size(); }
    bool empty() const { return bytes_.empty(); }
    bool operator==(const Bytes &other) const { return bytes_ == other.bytes_; }

private:
    SecureBytes bytes_;
};

class Cert {
public:
    // Takes a new reference to `cert`.
    explicit Cert(X509 *cert);
    X509 *get() const { return cert_.get(); }
    // SHA-1 of the certificate's public key bits: the identity by which a
    // certificate is found again, whatever its validity dates or issuer.
    // Empty when the certificate has no public key.
    Bytes GetPubKeyHash() const;
    // The DER encoding; empty when the certificate cannot be encoded.
    Bytes GetEncoded() const;

private:
    X509Ptr cert_;
};

}  // namespace KVL
