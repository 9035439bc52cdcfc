#include "crypto/fips_policy.h"

#include <atomic>

#include "crypto/crypto_module.h"

namespace {
std::atomic<bool> fips_flag{false};
}  // namespace

bool crypto_fips_required()
{
    const CryptoApi *api = crypto_module_get();
    return api && api->fips_required();
}

void crypto_fips_flag_set(bool enabled) { fips_flag = enabled; }

bool crypto_fips_enabled() { return fips_flag.load() || crypto_fips_required(); }
