#include "pki/x509_key_blob.h"

#include "crypto/crypto_module.h"
#include "log/log.h"
#include "pki/cert_provider.h"
#include "pki/pki_startup.h"

namespace {

bool stack_holds(STACK_OF(X509) *chain, X509 *cert)
{
    for (int i = 0; chain && i < sk_X509_num(chain); ++i)
        if (X509_cmp(sk_X509_value(chain, i), cert) == 0)
            return true;
    return false;
}

X509StackPtr single_certificate_list(X509 *cert)
{
    X509StackPtr list(sk_X509_new_null());
    X509Ptr ref = x509_ref(cert);
    if (!list || !sk_X509_push(list.get(), ref.get()))
        return nullptr;
    ref.release();
    return list;
}

// The chain a certificate provider found for the identity: the certificate
// and its issuers; null when it found no issuer.
X509StackPtr provider_chain(const Key *key)
{
    CertHandle *handle = cert_identity_handle(key);
    if (!handle || sk_X509_num(handle->issuers.get()) <= 0)
        return nullptr;
    X509StackPtr list = single_certificate_list(key->cert.get());
    for (int i = 0; list && i < sk_X509_num(handle->issuers.get()); ++i) {
        X509Ptr ref = x509_ref(sk_X509_value(handle->issuers.get(), i));
        if (!sk_X509_push(list.get(), ref.get()))
            return nullptr;
        ref.release();
    }
    return list;
}

}  // namespace

int ssh_pki_x509key_to_rfc6187_pubkey_blob(const Key *key, STACK_OF(X509) *chain, SecureBytes *blobp,
                                           uint32_t *lenp, const char *name, PkiObject *pki)
{
    if (!key || !key->cert) {
        error("ssh_pki_x509key_to_rfc6187_pubkey_blob: Invalid parameter.");
        return 0;
    }
    Buffer b;
    buffer_put_cstring(&b, name);
    X509StackPtr made;
    STACK_OF(X509) *list = chain;
    if (!stack_holds(chain, key->cert.get()) && (made = provider_chain(key))) {
        list = made.get();
    } else if (!stack_holds(chain, key->cert.get())) {
        const CryptoApi *api = crypto_module_get();
        if (!pki)
            pki = pki_current();
        X509StackPtr ca(api && pki ? api->pki_ca_chain(pki, key->cert.get()) : nullptr);
        made = ca && sk_X509_num(ca.get()) > 1 ? std::move(ca) : single_certificate_list(key->cert.get());
        if (!made) {
            debug3("ssh_pki_caChain_to_X509_stack: error creating STACK_OF(X509).");
            return -1;
        }
        list = made.get();
    }
    int count = sk_X509_num(list);
    debug("ssh RFC6187 pubkey: sending %d certificates in the chain.", count);
    buffer_put_int(&b, static_cast<uint32_t>(count));
    for (int i = 0; i < count; ++i) {
        X509 *cert = sk_X509_value(list, i);
        int len = i2d_X509(cert, nullptr);
        SecureBytes der(len > 0 ? static_cast<size_t>(len) : 0);
        uint8_t *out = der.data();
        if (len <= 0 || i2d_X509(cert, &out) != len) {
            debug3("ssh_pki_x509key_to_rfc6187_pubkey_blob: unable to allocate memory for X509.");
            return 0;
        }
        buffer_put_string(&b, der.data(), static_cast<uint32_t>(len));
    }
    buffer_put_int(&b, 0);  // no OCSP responses
    uint32_t len = buffer_len(&b);
    if (lenp)
        *lenp = len;
    if (blobp)
        blobp->assign(buffer_ptr(&b), buffer_ptr(&b) + len);
    return static_cast<int>(len);
}
