#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "crypto/crypto_module.h"
#include "crypto/signature_types.h"
#include "keys/key_fingerprint.h"
#include "support/environment.h"
#include "support/fips_environment.h"
#include "support/log_capture.h"

namespace {

// The texts appear in the log in this order.
bool in_order(LogCapture &log, std::initializer_list<const char *> texts)
{
    std::string all;
    for (const std::string &line : log.lines())
        all += line + "\n";
    size_t at = 0;
    for (const char *text : texts)
        if ((at = all.find(text, at)) == std::string::npos)
            return ADD_FAILURE() << "missing or out of order: " << text, false;
        else
            at += strlen(text);
    return true;
}

}  // namespace

TEST(CryptoModule, InitialisationWithAndWithoutFips)
{
    LogCapture log;
    unset_environment("TARNWELL_FIPS");
    EXPECT_EQ(crypto_module_init(0), 0);
    EXPECT_TRUE(in_order(log, {"Initialize and load the Crypto Module...", "Using Crypto library version ",
                               "Global FIPS state is disabled", "Connection configured to run without FIPS",
                               "Global FIPS state is disabled", "Crypto module initialization succeeded"}));
    for (const char *absent :
         {"FIPS mode set via", "FIPS mode is not supported on ARM64.", "Global FIPS state could not be set."})
        EXPECT_FALSE(log.contains(absent)) << absent;
    EXPECT_FALSE(crypto_fips_enabled());
    log.clear();
    EXPECT_EQ(crypto_module_cleanup(), 0);
    EXPECT_TRUE(log.contains("Crypto module cleanup called."));

    FipsEnvironment fips;
    log.clear();
    EXPECT_TRUE(crypto_fips_enabled());  // honoured before initialisation too
    EXPECT_EQ(crypto_module_init(0), 0);
    // No FIPS provider is installed here: the library refuses the global
    // state, and the program's own rules still apply.
    EXPECT_TRUE(in_order(log, {"Connection configured to run with FIPS", "Global FIPS state could not be set.",
                               "FIPS mode set via settings (not group policy)", "Global FIPS state is",
                               "Crypto module initialization succeeded", "FIPS mode is not supported on ARM64."}));
    unset_environment("TARNWELL_FIPS");
    EXPECT_TRUE(crypto_fips_enabled());  // the flag holds now

    // What FIPS mode changes: MD5 certificate signatures are a fatal
    // configuration error; MD5 fingerprints still work.
    EXPECT_THROW(set_x509rsa_sigtype(0), FatalError);
    EXPECT_TRUE(log.contains("FIPS config error: X509 must use sha1 based signiture."));
    KeyPtr key = key_generate(KEY_ECDSA, 256);
    EXPECT_EQ(key_fingerprint(key.get(), SSH_FP_MD5, SSH_FP_HEX).size(), 47u);
}

// A library whose generator is not seeded: logged, not fatal.
TEST(CryptoModule, UnseededGeneratorIsLogged)
{
    CryptoApi api = *crypto_module_get();
    api.prng_status = [] { return 0; };
    crypto_module_replace_api(&api);
    LogCapture log;
    EXPECT_EQ(crypto_check_prng(), CRYPTO_PRNG_NOT_SEEDED);
    log.clear();
    EXPECT_EQ(crypto_module_init(0), CRYPTO_PRNG_NOT_SEEDED);
    EXPECT_TRUE(in_order(log, {"PRNG is not sufficiently seeded.", "Crypto module initialization failed"}));
    crypto_module_replace_api(nullptr);
}

TEST(SignatureTypes, SettingsAndTheirLogLines)
{
    LogCapture log;
    // RSA types 0 to 3 (0 allowed outside FIPS mode), DSA types 0 and 1;
    // anything else is the default.
    for (auto [value, held] : {std::pair{2, 2}, {0, 0}, {3, 3}, {4, 3}, {-1, 3}, {7, 3}}) {
        set_x509rsa_sigtype(1);
        set_x509rsa_sigtype(value);
        EXPECT_EQ(get_x509rsa_sigtype(), held) << value;
    }
    EXPECT_TRUE(log.contains("x509rsa sigtype=2"));
    EXPECT_TRUE(log.contains("invalid x509rsa sigtype=7, switched to default=3"));
    EXPECT_FALSE(log.contains("invalid x509rsa sigtype=3"));
    EXPECT_FALSE(log.contains("invalid x509dsa sigtype=1"));
    for (auto [value, held] : {std::pair{1, 1}, {0, 0}, {2, 0}, {-1, 0}}) {
        set_x509dsa_sigtype(1 - held);
        set_x509dsa_sigtype(value);
        EXPECT_EQ(get_x509dsa_sigtype(), held) << value;
    }
    EXPECT_TRUE(in_order(log, {"invalid x509dsa sigtype=2, switched to default=0", "x509dsa sigtype=0"}));
    set_x509rsa_sigtype(3);
}
