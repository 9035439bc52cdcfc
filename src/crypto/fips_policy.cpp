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

bool crypto_fips_allows_ed25519()
{
    if (!crypto_fips_enabled())
        return true;
    // A module built for an older table has no such entry: it provides none.
    const CryptoApi *api = crypto_module_get();
    return api && api->fips_provides_signature && api->fips_provides_signature("ED25519");
}
