#include "keys/signature_type_values.h"

namespace {
int x509rsa_sigtype = X509RSA_SIGTYPE_DEFAULT;
int x509dsa_sigtype = X509DSA_SIGTYPE_DEFAULT;
}  // namespace

int get_x509rsa_sigtype() { return x509rsa_sigtype; }
int get_x509dsa_sigtype() { return x509dsa_sigtype; }

void store_x509rsa_sigtype(int value) { x509rsa_sigtype = value; }
void store_x509dsa_sigtype(int value) { x509dsa_sigtype = value; }
