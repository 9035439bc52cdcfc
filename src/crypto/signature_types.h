// Process-wide signature type settings for certificate identities, set by
// the vendor sign request, the vendor forwarding notice and configuration.
#pragma once

#include "keys/signature_type_values.h"

void set_x509rsa_sigtype(int value);
void set_x509dsa_sigtype(int value);
