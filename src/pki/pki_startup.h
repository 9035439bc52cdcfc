// Start-up and shut-down of the PKI object, once per process with a
// reference count, and the "DODPKI" policy flag.
#pragma once

#include "crypto/crypto_api.h"

constexpr int PKI_NO_OBJECT = 92;

// Tells the PKI object the FIPS flag. 0, or 80 when there is no object or
// it refused.
int pki_set_fips(PkiObject *pki, bool fips);

// The first start-up initialises the object with `config_base` + ".pki"
// (nothing when `config_base` is empty); later ones only count. 0, 80, 85 or
// 92.
int pki_startup(PkiObject *pki, const char *config_base);
// The last shut-down drops the object's state.
void pki_shutdown(PkiObject *pki);

// The PKI object of the message-processing thread; null outside its life.
PkiObject *pki_current();
void pki_set_current(PkiObject *pki);

// The "DODPKI" policy flag. The first query never reads the policy and
// answers false; later queries set the flag when the policy value (on POSIX
// the environment variable TARNWELL_DODPKI) is 0. Once set it stays set.
struct DodPkiPolicy {
    bool flag = false;
    bool asked = false;
    bool query();
};

// The process-wide instance.
bool pki_dod_policy();
