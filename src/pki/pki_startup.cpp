#include "pki/pki_startup.h"

#include <string>

#include "crypto/crypto_module.h"
#include "crypto/fips_policy.h"
#include "log/agent_log.h"
#include "log/log.h"
#include "platform/platform.h"

namespace {

int startup_count = 0;
PkiObject *current_pki = nullptr;

void pki_log_to_agent(const char *message) { agent_log("%s", message); }

}  // namespace

bool DodPkiPolicy::query()
{
    if (asked) {
        if (platform_policy_value("TARNWELL_DODPKI") == "0")
            flag = true;
    }
    asked = true;
    return flag;
}

bool pki_dod_policy()
{
    static DodPkiPolicy policy;
    return policy.query();
}

int pki_set_fips(PkiObject *pki, bool fips)
{
    const CryptoApi *api = crypto_module_get();
    if (!pki || !api)
        return CRYPTO_PKI_FIPS_REFUSED;
    debug3("Setting PKI to use %s\n", fips ? "FIPS" : "non-FIPS");
    return api->pki_set_fips(pki, fips ? 1 : 0) == 1 ? CRYPTO_OK : CRYPTO_PKI_FIPS_REFUSED;
}

int pki_startup(PkiObject *pki, const char *config_base)
{
    const CryptoApi *api = crypto_module_get();
    if (!pki || !api)
        return PKI_NO_OBJECT;
    if (startup_count > 0) {
        ++startup_count;
        return CRYPTO_OK;
    }
    api->pki_set_log_callback(pki, pki_log_to_agent);
    if (int result = pki_set_fips(pki, crypto_fips_enabled())) {
        debug("Error initializing Crypto");
        return result;
    }
    std::string config_file = config_base && *config_base ? std::string(config_base) + ".pki" : std::string();
    PkiInitRecord record = {config_file.empty() ? nullptr : config_file.c_str(), pki_dod_policy() ? 1 : 0};
    int result = CRYPTO_OK;
    if (api->pki_initialize(pki, &record) != 1) {
        debug("Error initializing PKI");
        result = CRYPTO_PRNG_NOT_SEEDED;
    }
    ++startup_count;
    return result;
}

void pki_shutdown(PkiObject *pki)
{
    if (startup_count == 0)
        return;
    if (--startup_count == 0)
        if (const CryptoApi *api = crypto_module_get(); api && pki)
            api->pki_terminate(pki);
}

PkiObject *pki_current() { return current_pki; }

void pki_set_current(PkiObject *pki) { current_pki = pki; }
