// Generation of new private keys.
#include <openssl/ec.h>

#include "keys/key.h"
#include "log/log.h"

namespace {

// The crypto library's text goes first, so that the log reads cause then
// consequence.
void generator_error(const char *text)
{
    key_log_crypto_error();
    error("%s", text);
}

PkeyPtr rsa_generate_private_key(unsigned bits)
{
    PkeyCtxPtr ctx(EVP_PKEY_CTX_new_id(EVP_PKEY_RSA, nullptr));
    if (!ctx) {
        generator_error("rsa_generate_private_key: EVP_PKEY_CTX_new_id failed.");
        return nullptr;
    }
    if (EVP_PKEY_keygen_init(ctx.get()) <= 0) {
        generator_error("rsa_generate_private_key: EVP_PKEY_keygen_init failed.");
        return nullptr;
    }
    if (EVP_PKEY_CTX_set_rsa_keygen_bits(ctx.get(), static_cast<int>(bits)) <= 0) {
        generator_error("rsa_generate_private_key: EVP_PKEY_CTX_set_rsa_keygen_bits failed.");
        return nullptr;
    }
    EVP_PKEY *key = nullptr;
    if (EVP_PKEY_keygen(ctx.get(), &key) <= 0) {
        generator_error("rsa_generate_private_key: key generation failed.");
        return nullptr;
    }
    return PkeyPtr(key);
}

PkeyPtr dsa_generate_private_key(unsigned bits)
{
    PkeyCtxPtr param_ctx(EVP_PKEY_CTX_new_id(EVP_PKEY_DSA, nullptr));
    EVP_PKEY *raw_params = nullptr;
    // "ssh-dss" signatures carry r and s in 20 bytes each, so keys up to 1024
    // bits need a 160-bit subgroup; the library would otherwise choose 224.
    if (!param_ctx || EVP_PKEY_paramgen_init(param_ctx.get()) <= 0 ||
        EVP_PKEY_CTX_set_dsa_paramgen_bits(param_ctx.get(), static_cast<int>(bits)) <= 0 ||
        (bits <= 1024 && EVP_PKEY_CTX_set_dsa_paramgen_q_bits(param_ctx.get(), 160) <= 0) ||
        EVP_PKEY_paramgen(param_ctx.get(), &raw_params) <= 0) {
        generator_error("dsa_generate_private_key: DSA params generation failed");
        return nullptr;
    }
    PkeyPtr params(raw_params);
    PkeyCtxPtr ctx(EVP_PKEY_CTX_new(params.get(), nullptr));
    EVP_PKEY *key = nullptr;
    if (!ctx || EVP_PKEY_keygen_init(ctx.get()) <= 0 || EVP_PKEY_keygen(ctx.get(), &key) <= 0) {
        generator_error("dsa_generate_private_key: unable to generate key");
        return nullptr;
    }
    return PkeyPtr(key);
}

PkeyPtr ecdsa_generate_private_key(unsigned bits, int *nid_out)
{
    int nid = key_ecdsa_bits_to_nid(static_cast<int>(bits));
    if (nid < 0) {
        generator_error("ecdsa_generate_private_key: unknown nid");
        return nullptr;
    }
    PkeyCtxPtr ctx(EVP_PKEY_CTX_new_id(EVP_PKEY_EC, nullptr));
    EVP_PKEY *key = nullptr;
    if (!ctx || EVP_PKEY_keygen_init(ctx.get()) <= 0 ||
        EVP_PKEY_CTX_set_ec_paramgen_curve_nid(ctx.get(), nid) <= 0 ||
        EVP_PKEY_CTX_set_ec_param_enc(ctx.get(), OPENSSL_EC_NAMED_CURVE) <= 0 ||
        EVP_PKEY_keygen(ctx.get(), &key) <= 0) {
        key_log_crypto_error();
        error("ecdsa_generate_private_key: Failed to generate an %d bit ECDSA key", static_cast<int>(bits));
        return nullptr;
    }
    *nid_out = nid;
    return PkeyPtr(key);
}

PkeyPtr ed25519_generate_private_key()
{
    PkeyCtxPtr ctx(EVP_PKEY_CTX_new_id(EVP_PKEY_ED25519, nullptr));
    EVP_PKEY *key = nullptr;
    if (!ctx || EVP_PKEY_keygen_init(ctx.get()) <= 0 || EVP_PKEY_keygen(ctx.get(), &key) <= 0) {
        generator_error("ed25519_generate_private_key: key generation failed.");
        return nullptr;
    }
    return PkeyPtr(key);
}

}  // namespace

KeyPtr key_generate(int type, unsigned bits)
{
    KeyPtr key = key_new(KEY_UNSPEC);
    switch (type) {
    case KEY_RSA: key->pkey = rsa_generate_private_key(bits); break;
    case KEY_DSA: key->pkey = dsa_generate_private_key(bits); break;
    case KEY_ECDSA: {
        int nid = -1;
        key->pkey = ecdsa_generate_private_key(bits, &nid);
        if (key->pkey)
            key->ecdsa_nid = nid;
        break;
    }
    case KEY_ED25519: key->pkey = ed25519_generate_private_key(); break;
    default: error("key_generate: unknown type %d", type); break;
    }
    if (!key->pkey)
        return nullptr;
    key->type = type;
    return key;
}
