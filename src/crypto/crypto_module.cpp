#include "crypto/crypto_module.h"

#include <mutex>

#include "crypto/fips_policy.h"
#include "log/log.h"
#include "platform/platform.h"

namespace {

std::mutex module_lock;

CryptoModule &module()
{
    static CryptoModule instance;
    return instance;
}

const CryptoApi *replacement_api = nullptr;

void *load_module_library(const std::string &file)
{
    if (void *library = platform_load_library(platform_executable_dir() + file))
        return library;
    return platform_load_library(file);
}

}  // namespace

const CryptoApi *crypto_module_get()
{
    std::lock_guard<std::mutex> guard(module_lock);
    if (replacement_api)
        return replacement_api;
    CryptoModule &m = module();
    if (m.api)
        return m.api;
    if (!m.library)
        m.library = load_module_library(m.library_file.empty() ? platform_crypto_module_file() : m.library_file);
    if (m.library && !m.entry)
        m.entry = reinterpret_cast<GetCryptoApiFunction>(platform_library_symbol(m.library, CRYPTO_MODULE_EXPORT_NAME));
    if (m.entry)
        m.api = m.entry();
    return m.api;
}

const CryptoApi *crypto_module_replace_api(const CryptoApi *api)
{
    std::lock_guard<std::mutex> guard(module_lock);
    const CryptoApi *previous = replacement_api ? replacement_api : module().api;
    replacement_api = api;
    return previous;
}

int crypto_check_prng()
{
    const CryptoApi *api = crypto_module_get();
    if (api && api->prng_status())
        return CRYPTO_OK;
    debug3("PRNG is not sufficiently seeded.");
    return CRYPTO_PRNG_NOT_SEEDED;
}

bool crypto_fips_set_by_policy()
{
    const CryptoApi *api = crypto_module_get();
    return api && api->fips_set_by_policy();
}

int crypto_module_init(int fips_requested)
{
    const CryptoApi *api = crypto_module_get();
    debug3("Initialize and load the Crypto Module...");
    debug3("Using Crypto library version %s (%s)", api ? api->version_text() : "unknown",
           api ? api->version_detail() : "not loaded");
    bool fips = crypto_fips_required() || fips_requested;
    crypto_fips_flag_set(fips);
    debug3("Global FIPS state is %s", api ? api->fips_state_text() : "unknown");
    debug3("Connection configured to run %s FIPS", fips ? "with" : "without");
    if (!api || !api->set_fips_state(fips ? 1 : 0))
        debug("Global FIPS state could not be set.");
    if (fips)
        debug3("FIPS mode set via %s",
               crypto_fips_set_by_policy() ? "group policy (registry)" : "settings (not group policy)");
    debug3("Global FIPS state is %s", api ? api->fips_state_text() : "unknown");
    int result = crypto_check_prng();
    debug3("Crypto module initialization %s", result ? "failed" : "succeeded");
    // The agent goes on in FIPS mode after this line; it informs, it does
    // not refuse.
    if (fips)
        debug("FIPS mode is not supported on ARM64.");
    return result;
}

int crypto_module_cleanup()
{
    debug3("Crypto module cleanup called.");
    return CRYPTO_OK;
}

FipsPropertyGuard::FipsPropertyGuard()
{
    const CryptoApi *api = crypto_module_get();
    if (api && api->fips_enforcement_level() == 2) {
        api->set_default_properties("?fips=yes");
        relaxed_ = true;
    }
}

FipsPropertyGuard::~FipsPropertyGuard()
{
    if (!relaxed_)
        return;
    if (const CryptoApi *api = crypto_module_get())
        api->set_default_properties("fips=yes");
}
