// The one predicate behind every FIPS rule of the program.
#pragma once

// True when FIPS rules apply: the flag fixed by the crypto module's
// initialisation, else whatever the module's FIPS-required query says now,
// so that a demanded FIPS mode holds even before the initialisation.
bool crypto_fips_enabled();

// Fixed once, by the crypto module's initialisation.
void crypto_fips_flag_set(bool enabled);

// The crypto module's FIPS-required query: true when the operating system
// demands FIPS mode (on Linux /proc/sys/crypto/fips_enabled reads 1) or the
// policy value TARNWELL_FIPS is 1. False while the module cannot be loaded.
bool crypto_fips_required();

// True unless FIPS rules apply and the crypto module's FIPS implementation
// lacks Ed25519 signatures.
bool crypto_fips_allows_ed25519();
