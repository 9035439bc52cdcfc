// Places identities in the agent's tables for tests.
#pragma once

#include <openssl/x509.h>

#include "agent/identity_table.h"
#include "keys/key.h"
#include "keys/key_blob.h"
#include "support/bytes.h"
#include "pki/x509_key_blob.h"

inline Identity *add_test_identity(KeyPtr key, const char *comment, const char *name, int64_t death = 0,
                                   uint32_t temporary = 0)
{
    key->name = name;
    IdentityTable *table = identity_table_for_version(2);
    identity_add(table, make_identity_record(std::move(key), std::string(comment), death, 0, temporary));
    return table->identities.back().get();
}

// A self-signed certificate identity with a new key ("RSA" or "EC" P-256).
inline KeyPtr make_test_certificate_key(const char *algorithm = "RSA", unsigned rsa_bits = 2048)
{
    EVP_PKEY *pkey = std::string(algorithm) == "RSA"
                         ? EVP_PKEY_Q_keygen(nullptr, nullptr, "RSA", static_cast<size_t>(rsa_bits))
                         : EVP_PKEY_Q_keygen(nullptr, nullptr, "EC", "P-256");
    X509Ptr cert(X509_new());
    X509_set_version(cert.get(), 2);
    ASN1_INTEGER_set(X509_get_serialNumber(cert.get()), 1);
    X509_gmtime_adj(X509_getm_notBefore(cert.get()), 0);
    X509_gmtime_adj(X509_getm_notAfter(cert.get()), 3600);
    X509_NAME *subject = X509_get_subject_name(cert.get());
    X509_NAME_add_entry_by_txt(subject, "CN", MBSTRING_ASC, reinterpret_cast<const unsigned char *>("Test User"), -1,
                               -1, 0);
    X509_set_issuer_name(cert.get(), subject);
    X509_set_pubkey(cert.get(), pkey);
    X509_sign(cert.get(), pkey, EVP_sha256());
    KeyPtr key = x509key_from_certificate(std::move(cert), nullptr);
    key->pkey.reset(pkey);  // the private half, so that the identity can sign
    key->cert_source = CERT_SOURCE_TARNWELL;
    return key;
}

// A key's public blob under `name` (its own blob name by default).
inline Bytes public_blob(const Key *key, const char *name = nullptr)
{
    SecureBytes blob;
    uint32_t len = key_to_blob(key, &blob, nullptr, name ? name : key_blob_type_name(key));
    return Bytes(blob.begin(), blob.begin() + len);
}
