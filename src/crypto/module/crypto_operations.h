// The crypto module's own operations, gathered into the table by the export.
#pragma once

#include "crypto/crypto_api.h"

int module_fips_required();
int module_fips_enforcement_level();
const char *module_fips_state_text();
int module_set_fips_state(int enabled);
int module_set_default_properties(const char *query);
int module_fips_set_by_policy();
int module_prng_status();
const char *module_version_text();
const char *module_version_detail();
int module_fips_provides_signature(const char *name);

PkiObject *module_pki_new();
void module_pki_delete(PkiObject *pki);
void module_pki_set_log_callback(PkiObject *pki, PkiLogCallback callback);
int module_pki_set_fips(PkiObject *pki, int fips);
int module_pki_initialize(PkiObject *pki, const PkiInitRecord *record);
void module_pki_terminate(PkiObject *pki);
STACK_OF(X509) *module_pki_ca_chain(PkiObject *pki, X509 *cert);
