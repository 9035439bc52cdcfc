// The PKI object. The certificate provider layer (system store, PKCS#11
// tokens, the product's own store) attaches here; until it does, a
// certificate's chain is the certificate alone.
#include <string>

#include "crypto/module/crypto_operations.h"

struct PkiObject {
    PkiLogCallback log = nullptr;
    int fips = 0;
    bool initialized = false;
    std::string config_file;
    int dod_pki = 0;
};

PkiObject *module_pki_new() { return new PkiObject; }

void module_pki_delete(PkiObject *pki) { delete pki; }

void module_pki_set_log_callback(PkiObject *pki, PkiLogCallback callback)
{
    if (pki)
        pki->log = callback;
}

int module_pki_set_fips(PkiObject *pki, int fips)
{
    if (!pki)
        return 0;
    pki->fips = fips ? 1 : 0;
    return 1;
}

int module_pki_initialize(PkiObject *pki, const PkiInitRecord *record)
{
    if (!pki || !record)
        return 0;
    pki->config_file = record->config_file ? record->config_file : "";
    pki->dod_pki = record->dod_pki;
    pki->initialized = true;
    return 1;
}

void module_pki_terminate(PkiObject *pki)
{
    if (!pki)
        return;
    pki->initialized = false;
    pki->config_file.clear();
}

STACK_OF(X509) *module_pki_ca_chain(PkiObject *, X509 *cert)
{
    if (!cert)
        return nullptr;
    STACK_OF(X509) *chain = sk_X509_new_null();
    if (!chain)
        return nullptr;
    X509_up_ref(cert);
    if (!sk_X509_push(chain, cert)) {
        X509_free(cert);
        sk_X509_free(chain);
        return nullptr;
    }
    return chain;
}
