// Switches FIPS mode on through the environment for one scope and restores
// the process state after it.
#pragma once

#include <cstdlib>

#include "crypto/fips_policy.h"

struct FipsEnvironment {
    FipsEnvironment() { setenv("TARNWELL_FIPS", "1", 1); }
    ~FipsEnvironment()
    {
        unsetenv("TARNWELL_FIPS");
        crypto_fips_flag_set(false);
    }
    FipsEnvironment(const FipsEnvironment &) = delete;
    FipsEnvironment &operator=(const FipsEnvironment &) = delete;
};
