#include "pki/cert_key_layer.h"

#include "keys/cert_key_hooks.h"
#include "pki/cert_provider.h"
#include "pki/x509_key_blob.h"

namespace {

// The chain comes from the identity's provider, else the running PKI object.
int rfc6187_blob(const Key *key, SecureBytes *blob, uint32_t *len, const char *name)
{
    return ssh_pki_x509key_to_rfc6187_pubkey_blob(key, nullptr, blob, len, name, nullptr);
}

const CertKeyHooks hooks = {rfc6187_blob, cert_identity_by_public_key_hash};

}  // namespace

void cert_key_layer_install() { cert_key_hooks_set(&hooks); }
