// The process-wide crypto module: the shared library that hands out the
// operation table, its initialisation on the message-processing thread, and
// the random generator's check.
#pragma once

#include <string>

#include "crypto/crypto_api.h"

// Result codes of the module and of the PKI start-up.
constexpr int CRYPTO_OK = 0;
constexpr int CRYPTO_PRNG_NOT_SEEDED = 85;
constexpr int CRYPTO_PKI_FIPS_REFUSED = 80;

struct CryptoModule {
    std::string library_file;  // empty: the platform's default name
    void *library = nullptr;
    GetCryptoApiFunction entry = nullptr;
    const CryptoApi *api = nullptr;
};

// The operation table, loading the library on first use: beside the
// executable first, then by bare name on the library search path. Null while
// the library, its export or its table is missing; a later call tries again.
const CryptoApi *crypto_module_get();

// Decides and logs the FIPS mode and checks the random generator. 0 or 85.
int crypto_module_init(int fips_requested);
int crypto_module_cleanup();

// 0 when the random generator is seeded, else 85.
int crypto_check_prng();

// True when FIPS mode was demanded by system policy rather than settings.
bool crypto_fips_set_by_policy();

// Puts `api` in place of the library's table and returns the one it
// replaces; null goes back to the library. For callers that must simulate
// module states the real library cannot be driven into (an unseeded random
// generator, an enforcing FIPS provider).
const CryptoApi *crypto_module_replace_api(const CryptoApi *api);

// Wraps the reading and writing of PEM private keys: when the library
// enforces FIPS implementations, others are allowed for the duration, since
// the key file encryption is not FIPS-approved.
class FipsPropertyGuard {
public:
    FipsPropertyGuard();
    ~FipsPropertyGuard();
    FipsPropertyGuard(const FipsPropertyGuard &) = delete;
    FipsPropertyGuard &operator=(const FipsPropertyGuard &) = delete;

private:
    bool relaxed_ = false;
};
