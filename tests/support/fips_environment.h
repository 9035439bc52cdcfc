// Switches FIPS mode on through the environment for one scope and restores
// the process state after it.
#pragma once

#include "crypto/fips_policy.h"
#include "support/environment.h"

struct FipsEnvironment {
    FipsEnvironment() { set_environment("TARNWELL_FIPS", "1"); }
    ~FipsEnvironment()
    {
        unset_environment("TARNWELL_FIPS");
        crypto_fips_flag_set(false);
    }
    FipsEnvironment(const FipsEnvironment &) = delete;
    FipsEnvironment &operator=(const FipsEnvironment &) = delete;
};
