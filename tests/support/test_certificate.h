// A self-signed P-256 certificate made in memory, for tests that need a
// certificate identity but no tools.
#pragma once

#include <openssl/evp.h>
#include <openssl/x509.h>

#include "keys/ossl_ptr.h"

inline X509Ptr self_signed_p256(const char *common_name)
{
    PkeyPtr pkey(EVP_EC_gen("P-256"));
    X509Ptr cert(X509_new());
    if (!pkey || !cert)
        return nullptr;
    X509_set_version(cert.get(), 2);
    ASN1_INTEGER_set(X509_get_serialNumber(cert.get()), 1);
    X509_gmtime_adj(X509_getm_notBefore(cert.get()), 0);
    X509_gmtime_adj(X509_getm_notAfter(cert.get()), 86400);
    X509_set_pubkey(cert.get(), pkey.get());
    X509_NAME *name = X509_get_subject_name(cert.get());
    X509_NAME_add_entry_by_txt(name, "CN", MBSTRING_ASC, reinterpret_cast<const unsigned char *>(common_name), -1,
                               -1, 0);
    X509_set_issuer_name(cert.get(), name);
    if (X509_sign(cert.get(), pkey.get(), EVP_sha256()) <= 0)
        return nullptr;
    return cert;
}
