// The crypto module library's one export.
#include "crypto/module/crypto_operations.h"

#if defined(_WIN32)
#define CRYPTO_MODULE_EXPORT __declspec(dllexport)
#else
#define CRYPTO_MODULE_EXPORT __attribute__((visibility("default")))
#endif

extern "C" CRYPTO_MODULE_EXPORT const CryptoApi *GetCryptoApi()
{
    static const CryptoApi api = {
        module_fips_required,
        module_fips_enforcement_level,
        module_fips_state_text,
        module_set_fips_state,
        module_set_default_properties,
        module_fips_set_by_policy,
        module_prng_status,
        module_version_text,
        module_version_detail,
        module_pki_new,
        module_pki_delete,
        module_pki_set_log_callback,
        module_pki_set_fips,
        module_pki_initialize,
        module_pki_terminate,
        module_pki_ca_chain,
        module_fips_provides_signature,
    };
    return &api;
}
