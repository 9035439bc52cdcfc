// The signature types of certificate identities now in force. Key naming
// reads them; the crypto code's setters check a new value against the FIPS
// rule and the valid range before storing it here.
#pragma once

// 0 MD5 (refused in FIPS mode: fatal), 1 to 3 the algorithm's own hash.
constexpr int X509RSA_SIGTYPE_DEFAULT = 3;
// 0 raw r||s, 1 DER-encoded SHA-1 signature.
constexpr int X509DSA_SIGTYPE_DEFAULT = 0;

int get_x509rsa_sigtype();
int get_x509dsa_sigtype();

// Only for the setters, after their checks.
void store_x509rsa_sigtype(int value);
void store_x509dsa_sigtype(int value);
