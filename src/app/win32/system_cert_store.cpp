#include "app/win32/system_cert_store.h"

#include <openssl/x509.h>

CertStorePtr system_store_open(const wchar_t *name)
{
    return CertStorePtr(CertOpenStore(CERT_STORE_PROV_SYSTEM_W, 0, 0,
                                      CERT_SYSTEM_STORE_CURRENT_USER | CERT_STORE_READONLY_FLAG |
                                          CERT_STORE_OPEN_EXISTING_FLAG,
                                      name));
}

CertContextPtr system_store_find_sha1(HCERTSTORE store, const std::vector<uint8_t> &sha1)
{
    CRYPT_HASH_BLOB blob = {static_cast<DWORD>(sha1.size()), const_cast<BYTE *>(sha1.data())};
    return CertContextPtr(CertFindCertificateInStore(store, X509_ASN_ENCODING | PKCS_7_ASN_ENCODING, 0,
                                                     CERT_FIND_SHA1_HASH, &blob, nullptr));
}

bool system_store_has_private_key(const CERT_CONTEXT *context)
{
    DWORD size = 0;
    return CertGetCertificateContextProperty(context, CERT_KEY_PROV_INFO_PROP_ID, nullptr, &size) ||
           CertGetCertificateContextProperty(context, CERT_KEY_CONTEXT_PROP_ID, nullptr, &size);
}

X509Ptr system_store_x509(const CERT_CONTEXT *context)
{
    const unsigned char *der = context->pbCertEncoded;
    return X509Ptr(d2i_X509(nullptr, &der, static_cast<long>(context->cbCertEncoded)));
}

X509StackPtr system_store_chain_candidates()
{
    X509StackPtr all(sk_X509_new_null());
    for (const wchar_t *name : {L"MY", L"CA", L"Root"}) {
        CertStorePtr store = system_store_open(name);
        const CERT_CONTEXT *context = nullptr;
        while (all && store && (context = CertEnumCertificatesInStore(store.get(), context))) {
            X509Ptr cert = system_store_x509(context);
            if (cert && sk_X509_push(all.get(), cert.get()))
                cert.release();
        }
    }
    return all;
}
