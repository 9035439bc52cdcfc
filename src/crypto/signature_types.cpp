#include "crypto/signature_types.h"

#include "crypto/fips_policy.h"
#include "log/log.h"

void set_x509rsa_sigtype(int value)
{
    if (value == 0 && crypto_fips_enabled())
        fatal("FIPS config error: X509 must use sha1 based signiture.");
    if (value < 0 || value > 3) {
        logit("invalid x509rsa sigtype=%d, switched to default=%d", value, X509RSA_SIGTYPE_DEFAULT);
        value = X509RSA_SIGTYPE_DEFAULT;
    } else {
        debug3("x509rsa sigtype=%d", value);
    }
    store_x509rsa_sigtype(value);
}

void set_x509dsa_sigtype(int value)
{
    if (value < 0 || value > 1) {
        logit("invalid x509dsa sigtype=%d, switched to default=%d", value, X509DSA_SIGTYPE_DEFAULT);
        value = X509DSA_SIGTYPE_DEFAULT;
    }
    debug3("x509dsa sigtype=%d", value);
    store_x509dsa_sigtype(value);
}
