// The operation table that the crypto module library hands out through its
// one export, "GetCryptoApi". The program reaches the FIPS state, the default
// property query, the random generator's status, the version texts and the
// PKI object through this table only; the library may be replaced by another
// build (a FIPS-validated one, say) without relinking the program.
#pragma once

#include <openssl/x509.h>

// The PKI object of the certificate provider layer; opaque to the program.
struct PkiObject;

// Receives each log message of the PKI library.
using PkiLogCallback = void (*)(const char *message);

// What the PKI object is initialised with.
struct PkiInitRecord {
    const char *config_file;  // null when there is none
    int dod_pki;              // the "DODPKI" policy flag
};

// Entries stay in this order: a module built for an older table must keep
// working with a newer program for the entries both know.
struct CryptoApi {
    // True when the platform or the policy demands FIPS mode.
    int (*fips_required)();
    // 2 when the library enforces FIPS implementations through its default
    // property query, 1 when FIPS mode is demanded but not enforced, else 0.
    int (*fips_enforcement_level)();
    // A short text describing the library's global FIPS state.
    const char *(*fips_state_text)();
    // Switches the library's global FIPS mode; non-zero on success.
    int (*set_fips_state)(int enabled);
    // Sets the default property query; non-zero on success.
    int (*set_default_properties)(const char *query);
    // True when FIPS mode was demanded by system policy rather than settings.
    int (*fips_set_by_policy)();
    // Non-zero when the random generator is sufficiently seeded.
    int (*prng_status)();
    const char *(*version_text)();
    const char *(*version_detail)();

    // The PKI library.
    PkiObject *(*pki_new)();
    void (*pki_delete)(PkiObject *pki);
    void (*pki_set_log_callback)(PkiObject *pki, PkiLogCallback callback);
    // 1 when the PKI object accepted the setting.
    int (*pki_set_fips)(PkiObject *pki, int fips);
    // 1 when the PKI object is ready.
    int (*pki_initialize)(PkiObject *pki, const PkiInitRecord *record);
    // Drops what pki_initialize set up.
    void (*pki_terminate)(PkiObject *pki);
    // The CA chain of `cert`, the certificate itself first; the caller owns
    // the list and its references. Null when no chain can be built.
    STACK_OF(X509) *(*pki_ca_chain)(PkiObject *pki, X509 *cert);

    // True when the library's FIPS implementation provides the signature
    // algorithm `name` (a library name such as "ED25519").
    int (*fips_provides_signature)(const char *name);
};

// The signature of the library's export.
using GetCryptoApiFunction = const CryptoApi *(*)();

#define CRYPTO_MODULE_EXPORT_NAME "GetCryptoApi"
