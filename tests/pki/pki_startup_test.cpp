#include <gtest/gtest.h>

#include <cstdlib>

#include "crypto/crypto_module.h"
#include "keys/ossl_ptr.h"
#include "pki/pki_startup.h"
#include "support/environment.h"
#include "support/log_capture.h"

namespace {

int initialize_calls = 0;

struct PkiFixture {
    const CryptoApi *real = crypto_module_get();
    CryptoApi api = *real;
    PkiObject *pki = real->pki_new();
    PkiFixture()
    {
        api.pki_initialize = [](PkiObject *, const PkiInitRecord *) { return ++initialize_calls, 1; };
        initialize_calls = 0;
    }
    void install() { crypto_module_replace_api(&api); }
    ~PkiFixture()
    {
        crypto_module_replace_api(nullptr);
        real->pki_delete(pki);
    }
};

}  // namespace

TEST(PkiStartup, CountsStartupsAndInitialisesOnce)
{
    PkiFixture f;
    f.install();
    LogCapture log;
    EXPECT_EQ(pki_startup(nullptr, ""), PKI_NO_OBJECT);
    EXPECT_EQ(pki_set_fips(nullptr, false), CRYPTO_PKI_FIPS_REFUSED);

    EXPECT_EQ(pki_startup(f.pki, "tAgent"), 0);
    EXPECT_TRUE(log.contains("Setting PKI to use non-FIPS\n"));
    EXPECT_EQ(pki_startup(f.pki, "tAgent"), 0);
    EXPECT_EQ(initialize_calls, 1);
    pki_shutdown(f.pki);
    pki_shutdown(f.pki);
    EXPECT_EQ(pki_startup(f.pki, ""), 0);
    EXPECT_EQ(initialize_calls, 2);
    pki_shutdown(f.pki);
}

TEST(PkiStartup, RefusedFipsSettingAndFailedInitialisation)
{
    PkiFixture f;
    f.api.pki_set_fips = [](PkiObject *, int) { return 0; };
    f.install();
    LogCapture log;
    EXPECT_EQ(pki_startup(f.pki, ""), CRYPTO_PKI_FIPS_REFUSED);
    EXPECT_TRUE(log.contains("Error initializing Crypto"));
    EXPECT_EQ(initialize_calls, 0);

    // The refused setting left the count at zero: the next start-up tries
    // again; a failed initialisation still counts.
    f.api.pki_set_fips = f.real->pki_set_fips;
    f.api.pki_initialize = [](PkiObject *, const PkiInitRecord *) { return ++initialize_calls, 0; };
    EXPECT_EQ(pki_startup(f.pki, ""), CRYPTO_PRNG_NOT_SEEDED);
    EXPECT_TRUE(log.contains("Error initializing PKI"));
    EXPECT_EQ(pki_startup(f.pki, ""), 0);
    EXPECT_EQ(initialize_calls, 1);
    pki_shutdown(f.pki);
    pki_shutdown(f.pki);
}

TEST(PkiStartup, DodPolicyFirstQueryAnswersFalse)
{
    set_environment("TARNWELL_DODPKI", "0");
    DodPkiPolicy policy;
    EXPECT_FALSE(policy.query());
    EXPECT_TRUE(policy.query());
    unset_environment("TARNWELL_DODPKI");
    EXPECT_TRUE(policy.query());  // once set, never cleared

    DodPkiPolicy other;
    set_environment("TARNWELL_DODPKI", "1");
    EXPECT_FALSE(other.query() || other.query());
    unset_environment("TARNWELL_DODPKI");
}

TEST(PkiStartup, ModuleChainIsTheCertificateAlone)
{
    X509Ptr cert(X509_new());
    X509StackPtr chain(crypto_module_get()->pki_ca_chain(nullptr, cert.get()));
    ASSERT_TRUE(chain && sk_X509_num(chain.get()) == 1);
    EXPECT_EQ(sk_X509_value(chain.get(), 0), cert.get());
    EXPECT_EQ(crypto_module_get()->pki_ca_chain(nullptr, nullptr), nullptr);
}
