#include "app/thread_services.h"

#include "crypto/crypto_module.h"
#include "pki/pki_startup.h"

void processor_crypto_init()
{
    // The agent asks for nothing itself: FIPS mode comes from the module's
    // FIPS-required query. A failed random-generator check is only logged.
    crypto_module_init(0);
}

void processor_pki_create()
{
    const CryptoApi *api = crypto_module_get();
    PkiObject *pki = api ? api->pki_new() : nullptr;
    pki_set_current(pki);
    pki_startup(pki, "");
}

void processor_pki_delete()
{
    PkiObject *pki = pki_current();
    pki_shutdown(pki);
    pki_set_current(nullptr);
    if (const CryptoApi *api = crypto_module_get(); api && pki)
        api->pki_delete(pki);
}

void processor_crypto_cleanup() { crypto_module_cleanup(); }
