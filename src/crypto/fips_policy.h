// The one predicate behind every FIPS rule of the program.
#pragma once

// True when FIPS rules apply: the flag fixed by the crypto module's
// initialisation, else whatever the platform's FIPS-required query says now.
bool crypto_fips_enabled();

// Fixed once, by the crypto module's initialisation.
void crypto_fips_flag_set(bool enabled);

// The platform demands FIPS mode: /proc/sys/crypto/fips_enabled reads 1, or
// the environment variable TARNWELL_FIPS is 1.
bool crypto_fips_required();
