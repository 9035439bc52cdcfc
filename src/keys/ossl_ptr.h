// Owners for OpenSSL objects, so that every early return releases what was
// made so far. Secret big numbers use the clearing free.
#pragma once

#include <memory>

#include <openssl/bio.h>
#include <openssl/bn.h>
#include <openssl/ec.h>
#include <openssl/evp.h>
#include <openssl/param_build.h>
#include <openssl/x509.h>

template <class T, void (*Free)(T *)>
struct OsslFree {
    void operator()(T *p) const { Free(p); }
};

template <class T, void (*Free)(T *)>
using OsslPtr = std::unique_ptr<T, OsslFree<T, Free>>;

using PkeyPtr = OsslPtr<EVP_PKEY, EVP_PKEY_free>;
using PkeyCtxPtr = OsslPtr<EVP_PKEY_CTX, EVP_PKEY_CTX_free>;
using MdPtr = OsslPtr<EVP_MD, EVP_MD_free>;
using MdCtxPtr = OsslPtr<EVP_MD_CTX, EVP_MD_CTX_free>;
using BnPtr = OsslPtr<BIGNUM, BN_clear_free>;
using BnCtxPtr = OsslPtr<BN_CTX, BN_CTX_free>;
using EcGroupPtr = OsslPtr<EC_GROUP, EC_GROUP_free>;
using EcPointPtr = OsslPtr<EC_POINT, EC_POINT_clear_free>;
using ParamBldPtr = OsslPtr<OSSL_PARAM_BLD, OSSL_PARAM_BLD_free>;
using ParamPtr = OsslPtr<OSSL_PARAM, OSSL_PARAM_free>;
using X509Ptr = OsslPtr<X509, X509_free>;
using BioPtr = OsslPtr<BIO, BIO_free_all>;

inline void x509_stack_free(STACK_OF(X509) *stack) { sk_X509_pop_free(stack, X509_free); }
using X509StackPtr = OsslPtr<STACK_OF(X509), x509_stack_free>;

// A new reference to `cert`, owned by the result.
inline X509Ptr x509_ref(X509 *cert)
{
    if (cert)
        X509_up_ref(cert);
    return X509Ptr(cert);
}
