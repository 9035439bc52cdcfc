// The built-in certificate providers.
#pragma once

#include "pki/cert_provider.h"

// Location 3: the agent's own certificate store (pki/cert_store.h).
const CertProvider &tarnwell_store_provider();
// Location 2: PKCS#11 tokens (pki/pkcs11_provider.cpp).
const CertProvider &pkcs11_provider();
// Location 1 on POSIX: the user's NSS database through NSS's own PKCS#11
// module. The Windows shell replaces it with its CryptoAPI store.
const CertProvider &system_store_provider();
