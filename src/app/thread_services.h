// Set-up and tear-down run on the message-processing thread around its loop:
// the crypto module first, then the certificate (PKI) layer.
#pragma once

void processor_crypto_init();
void processor_pki_create();
void processor_pki_delete();
void processor_crypto_cleanup();
