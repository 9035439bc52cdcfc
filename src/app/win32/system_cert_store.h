// The user's system certificate stores ("MY", "CA", "Root") as OpenSSL
// certificates. A store handle is a snapshot of the store when it was
// opened, so every lookup opens the store again.
#pragma once

#include <cstdint>
#include <vector>

#include "app/win32/capi_handles.h"
#include "keys/ossl_ptr.h"

// Null after Windows refused (GetLastError says why).
CertStorePtr system_store_open(const wchar_t *name);
// The certificate with this SHA-1 in `store`; null when there is none.
CertContextPtr system_store_find_sha1(HCERTSTORE store, const std::vector<uint8_t> &sha1);
// True when the store records a private key for the certificate.
bool system_store_has_private_key(const CERT_CONTEXT *context);
X509Ptr system_store_x509(const CERT_CONTEXT *context);
// Every certificate of the user's "MY", "CA" and "Root" stores: where the
// issuers of a certificate are found.
X509StackPtr system_store_chain_candidates();
