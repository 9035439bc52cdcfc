#include "keys/private_key_material.h"

#include <memory>
#include <string>

#include <openssl/core_names.h>
#include <openssl/obj_mac.h>
#include <openssl/param_build.h>

#include "keys/buffer.h"
#include "log/log.h"

namespace {

struct BnCtxFree { void operator()(BN_CTX *c) const { BN_CTX_free(c); } };
struct BnClearFree { void operator()(BIGNUM *b) const { BN_clear_free(b); } };
struct ParamBldFree { void operator()(OSSL_PARAM_BLD *b) const { OSSL_PARAM_BLD_free(b); } };
struct ParamFree { void operator()(OSSL_PARAM *p) const { OSSL_PARAM_free(p); } };
struct PkeyCtxFree { void operator()(EVP_PKEY_CTX *c) const { EVP_PKEY_CTX_free(c); } };
struct PkeyFree { void operator()(EVP_PKEY *k) const { EVP_PKEY_free(k); } };

using SecretBn = std::unique_ptr<BIGNUM, BnClearFree>;

// Turns built parameters into a key pair of `type` ("RSA", "DSA", "EC").
EVP_PKEY *key_from_params(const char *type, OSSL_PARAM_BLD *builder)
{
    std::unique_ptr<OSSL_PARAM, ParamFree> params(OSSL_PARAM_BLD_to_param(builder));
    std::unique_ptr<EVP_PKEY_CTX, PkeyCtxFree> ctx(EVP_PKEY_CTX_new_from_name(nullptr, type, nullptr));
    EVP_PKEY *key = nullptr;
    if (!params || !ctx || EVP_PKEY_fromdata_init(ctx.get()) <= 0 ||
        EVP_PKEY_fromdata(ctx.get(), &key, EVP_PKEY_KEYPAIR, params.get()) <= 0)
        return nullptr;
    return key;
}

// Public and private key validation.
bool key_checks_out(EVP_PKEY *key)
{
    std::unique_ptr<EVP_PKEY_CTX, PkeyCtxFree> ctx(EVP_PKEY_CTX_new_from_pkey(nullptr, key, nullptr));
    // The full check also proves that the scalar belongs to the point.
    return ctx && EVP_PKEY_public_check(ctx.get()) == 1 && EVP_PKEY_check(ctx.get()) == 1;
}

const char *curve_group_name(int nid)
{
    switch (nid) {
    case NID_X9_62_prime256v1: return "P-256";
    case NID_secp384r1: return "P-384";
    case NID_secp521r1: return "P-521";
    default: return nullptr;
    }
}

}  // namespace

EVP_PKEY *rsa_private_from_numbers(const BIGNUM *n, const BIGNUM *e, const BIGNUM *d, const BIGNUM *iqmp,
                                   const BIGNUM *p, const BIGNUM *q)
{
    std::unique_ptr<BN_CTX, BnCtxFree> bn_ctx(BN_CTX_secure_new());
    SecretBn dmp1(BN_secure_new()), dmq1(BN_secure_new()), p1(BN_secure_new()), q1(BN_secure_new());
    if (!bn_ctx || !dmp1 || !dmq1 || !p1 || !q1 || BN_is_zero(p) || BN_is_zero(q))
        return nullptr;
    // dmp1 = d mod (p - 1), dmq1 = d mod (q - 1)
    if (!BN_sub(p1.get(), p, BN_value_one()) || !BN_sub(q1.get(), q, BN_value_one()) ||
        !BN_mod(dmp1.get(), d, p1.get(), bn_ctx.get()) || !BN_mod(dmq1.get(), d, q1.get(), bn_ctx.get()))
        return nullptr;
    std::unique_ptr<OSSL_PARAM_BLD, ParamBldFree> b(OSSL_PARAM_BLD_new());
    if (!b || !OSSL_PARAM_BLD_push_BN(b.get(), OSSL_PKEY_PARAM_RSA_N, n) ||
        !OSSL_PARAM_BLD_push_BN(b.get(), OSSL_PKEY_PARAM_RSA_E, e) ||
        !OSSL_PARAM_BLD_push_BN(b.get(), OSSL_PKEY_PARAM_RSA_D, d) ||
        !OSSL_PARAM_BLD_push_BN(b.get(), OSSL_PKEY_PARAM_RSA_FACTOR1, p) ||
        !OSSL_PARAM_BLD_push_BN(b.get(), OSSL_PKEY_PARAM_RSA_FACTOR2, q) ||
        !OSSL_PARAM_BLD_push_BN(b.get(), OSSL_PKEY_PARAM_RSA_EXPONENT1, dmp1.get()) ||
        !OSSL_PARAM_BLD_push_BN(b.get(), OSSL_PKEY_PARAM_RSA_EXPONENT2, dmq1.get()) ||
        !OSSL_PARAM_BLD_push_BN(b.get(), OSSL_PKEY_PARAM_RSA_COEFFICIENT1, iqmp))
        return nullptr;
    return key_from_params("RSA", b.get());
}

EVP_PKEY *dsa_private_from_numbers(const BIGNUM *p, const BIGNUM *q, const BIGNUM *g, const BIGNUM *y,
                                   const BIGNUM *x)
{
    std::unique_ptr<OSSL_PARAM_BLD, ParamBldFree> b(OSSL_PARAM_BLD_new());
    if (!b || !OSSL_PARAM_BLD_push_BN(b.get(), OSSL_PKEY_PARAM_FFC_P, p) ||
        !OSSL_PARAM_BLD_push_BN(b.get(), OSSL_PKEY_PARAM_FFC_Q, q) ||
        !OSSL_PARAM_BLD_push_BN(b.get(), OSSL_PKEY_PARAM_FFC_G, g) ||
        !OSSL_PARAM_BLD_push_BN(b.get(), OSSL_PKEY_PARAM_PUB_KEY, y) ||
        !OSSL_PARAM_BLD_push_BN(b.get(), OSSL_PKEY_PARAM_PRIV_KEY, x))
        return nullptr;
    return key_from_params("DSA", b.get());
}

EVP_PKEY *ecdsa_private_from_numbers(int nid, const uint8_t *point, size_t point_len, const BIGNUM *scalar)
{
    const char *group = curve_group_name(nid);
    if (group == nullptr || point_len == 0 || point_len > 133 || point[0] != 0x04)
        return nullptr;
    std::unique_ptr<OSSL_PARAM_BLD, ParamBldFree> b(OSSL_PARAM_BLD_new());
    if (!b || !OSSL_PARAM_BLD_push_utf8_string(b.get(), OSSL_PKEY_PARAM_GROUP_NAME, group, 0) ||
        !OSSL_PARAM_BLD_push_octet_string(b.get(), OSSL_PKEY_PARAM_PUB_KEY, point, point_len) ||
        !OSSL_PARAM_BLD_push_BN(b.get(), OSSL_PKEY_PARAM_PRIV_KEY, scalar))
        return nullptr;
    std::unique_ptr<EVP_PKEY, PkeyFree> key(key_from_params("EC", b.get()));
    if (!key || !key_checks_out(key.get()))
        return nullptr;
    return key.release();
}

namespace {

bool put_param(EVP_PKEY *key, const char *name, Buffer *b)
{
    BIGNUM *value = nullptr;
    if (!EVP_PKEY_get_bn_param(key, name, &value))
        return false;
    buffer_put_bignum2(b, value);
    BN_clear_free(value);
    return true;
}

const char *curve_name_of(EVP_PKEY *key)
{
    char group[64] = {};
    if (!EVP_PKEY_get_utf8_string_param(key, OSSL_PKEY_PARAM_GROUP_NAME, group, sizeof group, nullptr))
        return nullptr;
    std::string g = group;
    if (g == "prime256v1" || g == "P-256")
        return "nistp256";
    if (g == "secp384r1" || g == "P-384")
        return "nistp384";
    if (g == "secp521r1" || g == "P-521")
        return "nistp521";
    return nullptr;
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
        const char *curve = curve_name_of(key);
        uint8_t point[133];
        size_t len = 0;
        if (!curve || !EVP_PKEY_get_octet_string_param(key, OSSL_PKEY_PARAM_PUB_KEY, point, sizeof point, &len))
            return false;
        buffer_put_cstring(b, (std::string("ecdsa-sha2-") + curve).c_str());
        buffer_put_cstring(b, curve);
        buffer_put_string(b, point, static_cast<uint32_t>(len));
        return put_param(key, OSSL_PKEY_PARAM_PRIV_KEY, b);
    }
    return false;
}
