// Certificate location 1 on Windows: the user's "MY" certificate store,
// whose private keys CryptoAPI or CNG hold.
#pragma once

#include "pki/cert_provider.h"

const CertProvider &windows_system_store_provider();

// Makes it the provider of location 1 for this process.
void system_cert_provider_install();
