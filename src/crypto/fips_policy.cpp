#include "crypto/fips_policy.h"

#include <atomic>
#include <cstdlib>
#include <cstring>
#include <fstream>

namespace {
std::atomic<bool> fips_flag{false};
}  // namespace

bool crypto_fips_required()
{
    const char *env = getenv("TARNWELL_FIPS");
    if (env && strcmp(env, "1") == 0)
        return true;
    std::ifstream kernel("/proc/sys/crypto/fips_enabled");
    int value = 0;
    return kernel >> value && value == 1;
}

void crypto_fips_flag_set(bool enabled) { fips_flag = enabled; }

bool crypto_fips_enabled() { return fips_flag.load() || crypto_fips_required(); }
