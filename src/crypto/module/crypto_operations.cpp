// The crypto module's FIPS, property, random-generator and version operations
// over OpenSSL 3.
#include "crypto/module/crypto_operations.h"

#include <openssl/crypto.h>
#include <openssl/err.h>
#include <openssl/evp.h>
#include <openssl/provider.h>
#include <openssl/rand.h>

#include "platform/platform.h"

namespace {

// The system's FIPS mode is fixed at boot, and the rules ask for it on every
// signature: ask once.
bool system_fips_enabled()
{
    static const bool enabled = platform_system_fips_mode();
    return enabled;
}

// The FIPS provider has to be present before the default property query may
// ask for it: with "fips=yes" and no provider every later fetch would fail.
// The default provider stays loaded next to it, because fingerprints fetch
// MD5 with "fips=no".
bool fips_provider_ready()
{
    if (OSSL_PROVIDER_available(nullptr, "fips"))
        return true;
    static OSSL_PROVIDER *default_provider = OSSL_PROVIDER_load(nullptr, "default");
    static OSSL_PROVIDER *fips_provider = OSSL_PROVIDER_load(nullptr, "fips");
    (void)default_provider;
    ERR_clear_error();
    return fips_provider != nullptr;
}

}  // namespace

int module_fips_required()
{
    if (platform_policy_value("TARNWELL_FIPS") == "1")
        return 1;
    return system_fips_enabled() ? 1 : 0;
}

int module_fips_enforcement_level()
{
    if (EVP_default_properties_is_fips_enabled(nullptr))
        return 2;
    return module_fips_required() ? 1 : 0;
}

const char *module_fips_state_text()
{
    return EVP_default_properties_is_fips_enabled(nullptr) ? "enabled" : "disabled";
}

int module_set_fips_state(int enabled)
{
    if (enabled && !fips_provider_ready())
        return 0;
    return EVP_default_properties_enable_fips(nullptr, enabled ? 1 : 0);
}

int module_set_default_properties(const char *query) { return EVP_set_default_properties(nullptr, query); }

// The system-wide demand is the operating system's FIPS switch; the
// TARNWELL_FIPS policy value stands for the program's own settings.
int module_fips_set_by_policy() { return system_fips_enabled() ? 1 : 0; }

int module_prng_status() { return RAND_status(); }

const char *module_version_text() { return OpenSSL_version(OPENSSL_VERSION_STRING); }

const char *module_version_detail() { return OpenSSL_version(OPENSSL_PLATFORM); }

int module_fips_provides_signature(const char *name)
{
    if (!name)
        return 0;
    EVP_SIGNATURE *signature = EVP_SIGNATURE_fetch(nullptr, name, "fips=yes");
    if (!signature) {
        ERR_clear_error();
        return 0;
    }
    EVP_SIGNATURE_free(signature);
    return 1;
}
