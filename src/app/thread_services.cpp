#include "app/thread_services.h"

// The crypto module and the PKI layer attach here.
void processor_crypto_init() {}
void processor_pki_create() {}
void processor_pki_delete() {}
void processor_crypto_cleanup() {}
