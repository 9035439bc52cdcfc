#include <gtest/gtest.h>

#include "crypto/crypto_module.h"
#include "keys/ossl_ptr.h"
#include "pki/pki_startup.h"
#include "support/environment.h"
#include "support/log_capture.h"

namespace {

int initialize_calls = 0;

}  // namespace

// Start-ups are counted and only the first initialises. A refused FIPS
// setting leaves the count at zero, so the next start-up tries again; a
// failed initialisation still counts.
TEST(PkiStartup, CountsStartupsAndInitialisesOnce)
{
    const CryptoApi *real = crypto_module_get();
    CryptoApi api = *real;
    PkiObject *pki = real->pki_new();
    api.pki_initialize = [](PkiObject *, const PkiInitRecord *) { return ++initialize_calls, 1; };
    crypto_module_replace_api(&api);
    LogCapture log;
    EXPECT_EQ(pki_startup(nullptr, ""), PKI_NO_OBJECT);
    EXPECT_EQ(pki_set_fips(nullptr, false), CRYPTO_PKI_FIPS_REFUSED);
    EXPECT_EQ(pki_startup(pki, "tAgent"), 0);
    EXPECT_TRUE(log.contains("Setting PKI to use non-FIPS\n"));
    EXPECT_EQ(pki_startup(pki, "tAgent"), 0);
    EXPECT_EQ(initialize_calls, 1);
    pki_shutdown(pki);
    pki_shutdown(pki);
    EXPECT_EQ(pki_startup(pki, ""), 0);
    EXPECT_EQ(initialize_calls, 2);
    pki_shutdown(pki);

    api.pki_set_fips = [](PkiObject *, int) { return 0; };
    EXPECT_EQ(pki_startup(pki, ""), CRYPTO_PKI_FIPS_REFUSED);
    EXPECT_TRUE(log.contains("Error initializing Crypto"));
    EXPECT_EQ(initialize_calls, 2);
    api.pki_set_fips = real->pki_set_fips;
    api.pki_initialize = [](PkiObject *, const PkiInitRecord *) { return ++initialize_calls, 0; };
    EXPECT_EQ(pki_startup(pki, ""), CRYPTO_PRNG_NOT_SEEDED);
    EXPECT_TRUE(log.contains("Error initializing PKI"));
    EXPECT_EQ(pki_startup(pki, ""), 0);
    EXPECT_EQ(initialize_calls, 3);
    pki_shutdown(pki);
    pki_shutdown(pki);
    crypto_module_replace_api(nullptr);
    real->pki_delete(pki);
}

// The DoD policy's first query answers false and sets it; once set it is
// never cleared. The module's own chain is the certificate alone.
TEST(PkiStartup, DodPolicyAndModuleChain)
{
    set_environment("TARNWELL_DODPKI", "0");
    DodPkiPolicy policy;
    EXPECT_FALSE(policy.query());
    EXPECT_TRUE(policy.query());
    unset_environment("TARNWELL_DODPKI");
    EXPECT_TRUE(policy.query());
    DodPkiPolicy other;
    set_environment("TARNWELL_DODPKI", "1");
    EXPECT_FALSE(other.query() || other.query());
    unset_environment("TARNWELL_DODPKI");

    X509Ptr cert(X509_new());
    X509StackPtr chain(crypto_module_get()->pki_ca_chain(nullptr, cert.get()));
    ASSERT_TRUE(chain && sk_X509_num(chain.get()) == 1);
    EXPECT_EQ(sk_X509_value(chain.get(), 0), cert.get());
    EXPECT_EQ(crypto_module_get()->pki_ca_chain(nullptr, nullptr), nullptr);
}
