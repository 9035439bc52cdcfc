// Process-wide signature type settings for certificate identities, set by
// the vendor sign request, the vendor forwarding notice and configuration.
#pragma once

// 0 MD5 (refused in FIPS mode: fatal), 1 to 3 the algorithm's own hash.
constexpr int X509RSA_SIGTYPE_DEFAULT = 3;
// 0 raw r||s, 1 DER-encoded SHA-1 signature.
constexpr int X509DSA_SIGTYPE_DEFAULT = 0;

void set_x509rsa_sigtype(int value);
void set_x509dsa_sigtype(int value);
int get_x509rsa_sigtype();
int get_x509dsa_sigtype();
