#include "keys/private_key_material.h"

#include <algorithm>
#include <memory>
#include <string>

#include <openssl/core_names.h>
#include <openssl/crypto.h>
#include <openssl/obj_mac.h>
#include <openssl/param_build.h>

#include "keys/buffer.h"
#include "keys/key.h"
#include "keys/key_material.h"
#include "keys/ossl_ptr.h"
#include "log/log.h"

namespace {

// Public and private key validation.
bool key_checks_out(EVP_PKEY *key)
{
    PkeyCtxPtr ctx(EVP_PKEY_CTX_new_from_pkey(nullptr, key, nullptr));
    // The full check also proves that the scalar belongs to the point.
    return ctx && EVP_PKEY_public_check(ctx.get()) == 1 && EVP_PKEY_check(ctx.get()) == 1;
}


}  // namespace

EVP_PKEY *rsa_private_from_numbers(const BIGNUM *n, const BIGNUM *e, const BIGNUM *d, const BIGNUM *iqmp,
                                   const BIGNUM *p, const BIGNUM *q)
{
    BnCtxPtr bn_ctx(BN_CTX_secure_new());
    BnPtr dmp1(BN_secure_new()), dmq1(BN_secure_new()), p1(BN_secure_new()), q1(BN_secure_new());
    if (!bn_ctx || !dmp1 || !dmq1 || !p1 || !q1 || BN_is_zero(p) || BN_is_zero(q))
        return nullptr;
    // dmp1 = d mod (p - 1), dmq1 = d mod (q - 1)
    if (!BN_sub(p1.get(), p, BN_value_one()) || !BN_sub(q1.get(), q, BN_value_one()) ||
        !BN_mod(dmp1.get(), d, p1.get(), bn_ctx.get()) || !BN_mod(dmq1.get(), d, q1.get(), bn_ctx.get()))
        return nullptr;
    ParamBldPtr b(OSSL_PARAM_BLD_new());
    if (!b || !OSSL_PARAM_BLD_push_BN(b.get(), OSSL_PKEY_PARAM_RSA_N, n) ||
        !OSSL_PARAM_BLD_push_BN(b.get(), OSSL_PKEY_PARAM_RSA_E, e) ||
        !OSSL_PARAM_BLD_push_BN(b.get(), OSSL_PKEY_PARAM_RSA_D, d) ||
        !OSSL_PARAM_BLD_push_BN(b.get(), OSSL_PKEY_PARAM_RSA_FACTOR1, p) ||
        !OSSL_PARAM_BLD_push_BN(b.get(), OSSL_PKEY_PARAM_RSA_FACTOR2, q) ||
        !OSSL_PARAM_BLD_push_BN(b.get(), OSSL_PKEY_PARAM_RSA_EXPONENT1, dmp1.get()) ||
        !OSSL_PARAM_BLD_push_BN(b.get(), OSSL_PKEY_PARAM_RSA_EXPONENT2, dmq1.get()) ||
        !OSSL_PARAM_BLD_push_BN(b.get(), OSSL_PKEY_PARAM_RSA_COEFFICIENT1, iqmp))
        return nullptr;
    return pkey_from_params("RSA", b.get(), EVP_PKEY_KEYPAIR).release();
}

EVP_PKEY *dsa_private_from_numbers(const BIGNUM *p, const BIGNUM *q, const BIGNUM *g, const BIGNUM *y,
                                   const BIGNUM *x)
{
    ParamBldPtr b(OSSL_PARAM_BLD_new());
    if (!b || !OSSL_PARAM_BLD_push_BN(b.get(), OSSL_PKEY_PARAM_FFC_P, p) ||
        !OSSL_PARAM_BLD_push_BN(b.get(), OSSL_PKEY_PARAM_FFC_Q, q) ||
        !OSSL_PARAM_BLD_push_BN(b.get(), OSSL_PKEY_PARAM_FFC_G, g) ||
        !OSSL_PARAM_BLD_push_BN(b.get(), OSSL_PKEY_PARAM_PUB_KEY, y) ||
        !OSSL_PARAM_BLD_push_BN(b.get(), OSSL_PKEY_PARAM_PRIV_KEY, x))
        return nullptr;
    return pkey_from_params("DSA", b.get(), EVP_PKEY_KEYPAIR).release();
}

EVP_PKEY *ecdsa_private_from_numbers(int nid, const uint8_t *point, size_t point_len, const BIGNUM *scalar)
{
    const char *group = key_curve_nid_to_group(nid);
    if (group == nullptr || point_len == 0 || point_len > 133 || point[0] != 0x04)
        return nullptr;
    ParamBldPtr b(OSSL_PARAM_BLD_new());
    if (!b || !OSSL_PARAM_BLD_push_utf8_string(b.get(), OSSL_PKEY_PARAM_GROUP_NAME, group, 0) ||
        !OSSL_PARAM_BLD_push_octet_string(b.get(), OSSL_PKEY_PARAM_PUB_KEY, point, point_len) ||
        !OSSL_PARAM_BLD_push_BN(b.get(), OSSL_PKEY_PARAM_PRIV_KEY, scalar))
        return nullptr;
    PkeyPtr key(pkey_from_params("EC", b.get(), EVP_PKEY_KEYPAIR));
    if (!key || !key_checks_out(key.get()))
        return nullptr;
    return key.release();
}

EVP_PKEY *ed25519_private_from_bytes(const uint8_t *public_key, size_t public_len, const uint8_t *secret,
                                     size_t secret_len)
{
    if (public_len != ED25519_KEY_BYTES || secret_len != 2 * ED25519_KEY_BYTES ||
        CRYPTO_memcmp(secret + ED25519_KEY_BYTES, public_key, ED25519_KEY_BYTES) != 0)
        return nullptr;
    PkeyPtr key(EVP_PKEY_new_raw_private_key_ex(nullptr, "ED25519", nullptr, secret, ED25519_KEY_BYTES));
    SecureBytes derived = pkey_ed25519_public_bytes(key.get());
    if (derived.size() != ED25519_KEY_BYTES || CRYPTO_memcmp(derived.data(), public_key, ED25519_KEY_BYTES) != 0)
        return nullptr;
    return key.release();
}

namespace {

bool put_param(EVP_PKEY *key, const char *name, Buffer *b)
{
    BnPtr value = pkey_get_bn(key, name);
    if (!value)
        return false;
    buffer_put_bignum2(b, value.get());
    return true;
}

}  // namespace

bool private_key_put_agent_fields(EVP_PKEY *key, Buffer *b)
{
    if (EVP_PKEY_is_a(key, "RSA")) {
        buffer_put_cstring(b, "ssh-rsa");
        for (const char *name : {OSSL_PKEY_PARAM_RSA_N, OSSL_PKEY_PARAM_RSA_E, OSSL_PKEY_PARAM_RSA_D,
                                 OSSL_PKEY_PARAM_RSA_COEFFICIENT1, OSSL_PKEY_PARAM_RSA_FACTOR1,
                                 OSSL_PKEY_PARAM_RSA_FACTOR2})
            if (!put_param(key, name, b))
                return false;
        return true;
    }
    if (EVP_PKEY_is_a(key, "DSA")) {
        buffer_put_cstring(b, "ssh-dss");
        for (const char *name : {OSSL_PKEY_PARAM_FFC_P, OSSL_PKEY_PARAM_FFC_Q, OSSL_PKEY_PARAM_FFC_G,
                                 OSSL_PKEY_PARAM_PUB_KEY, OSSL_PKEY_PARAM_PRIV_KEY})
            if (!put_param(key, name, b))
                return false;
        return true;
    }
    if (EVP_PKEY_is_a(key, "EC")) {
        const char *curve = key_curve_nid_to_name(pkey_ec_curve_nid(key));
        SecureBytes point = pkey_ec_public_octets(key);
        if (!curve || point.empty())
            return false;
        buffer_put_cstring(b, (std::string("ecdsa-sha2-") + curve).c_str());
        buffer_put_cstring(b, curve);
        buffer_put_string(b, point.data(), static_cast<uint32_t>(point.size()));
        return put_param(key, OSSL_PKEY_PARAM_PRIV_KEY, b);
    }
    if (EVP_PKEY_is_a(key, "ED25519")) {
        SecureBytes pub = pkey_ed25519_public_bytes(key);
        SecureBytes secret(2 * ED25519_KEY_BYTES);
        size_t seed_len = ED25519_KEY_BYTES;
        if (pub.empty() || EVP_PKEY_get_raw_private_key(key, secret.data(), &seed_len) != 1 ||
            seed_len != ED25519_KEY_BYTES)
            return false;
        std::copy(pub.begin(), pub.end(), secret.begin() + ED25519_KEY_BYTES);
        buffer_put_cstring(b, "ssh-ed25519");
        buffer_put_string(b, pub.data(), static_cast<uint32_t>(pub.size()));
        buffer_put_string(b, secret.data(), static_cast<uint32_t>(secret.size()));
        return true;
    }
    return false;
}
