#include "keys/key_material.h"

#include <openssl/core_names.h>
#include <openssl/objects.h>

#include "keys/key.h"

PkeyPtr pkey_from_params(const char *type_name, OSSL_PARAM_BLD *builder, int selection)
{
    ParamPtr params(OSSL_PARAM_BLD_to_param(builder));
    PkeyCtxPtr ctx(EVP_PKEY_CTX_new_from_name(nullptr, type_name, nullptr));
    EVP_PKEY *key = nullptr;
    if (!params || !ctx || EVP_PKEY_fromdata_init(ctx.get()) <= 0 ||
        EVP_PKEY_fromdata(ctx.get(), &key, selection, params.get()) <= 0)
        return nullptr;
    return PkeyPtr(key);
}

PkeyPtr pkey_public_copy(const EVP_PKEY *pkey)
{
    if (!pkey)
        return nullptr;
    OSSL_PARAM *raw = nullptr;
    if (EVP_PKEY_todata(pkey, EVP_PKEY_PUBLIC_KEY, &raw) <= 0)
        return nullptr;
    ParamPtr params(raw);
    PkeyCtxPtr ctx(EVP_PKEY_CTX_new_from_pkey(nullptr, const_cast<EVP_PKEY *>(pkey), nullptr));
    EVP_PKEY *copy = nullptr;
    if (!ctx || EVP_PKEY_fromdata_init(ctx.get()) <= 0 ||
        EVP_PKEY_fromdata(ctx.get(), &copy, EVP_PKEY_PUBLIC_KEY, params.get()) <= 0)
        return nullptr;
    return PkeyPtr(copy);
}

BnPtr pkey_get_bn(const EVP_PKEY *pkey, const char *param)
{
    BIGNUM *value = nullptr;
    if (!pkey || !EVP_PKEY_get_bn_param(pkey, param, &value))
        return nullptr;
    return BnPtr(value);
}

int pkey_ec_curve_nid(const EVP_PKEY *pkey)
{
    char group[80] = {};
    if (!pkey || EVP_PKEY_get_base_id(pkey) != EVP_PKEY_EC ||
        !EVP_PKEY_get_utf8_string_param(pkey, OSSL_PKEY_PARAM_GROUP_NAME, group, sizeof group, nullptr))
        return -1;
    int nid = OBJ_sn2nid(group);
    if (nid == NID_undef)
        nid = EC_curve_nist2nid(group);
    return nid == NID_undef ? -1 : nid;
}

SecureBytes pkey_ec_public_octets(const EVP_PKEY *pkey)
{
    size_t len = 0;
    if (!pkey || !EVP_PKEY_get_octet_string_param(pkey, OSSL_PKEY_PARAM_PUB_KEY, nullptr, 0, &len) || len == 0)
        return {};
    SecureBytes octets(len);
    if (!EVP_PKEY_get_octet_string_param(pkey, OSSL_PKEY_PARAM_PUB_KEY, octets.data(), len, &len))
        return {};
    octets.resize(len);
    return octets;
}

SecureBytes pkey_ed25519_public_bytes(const EVP_PKEY *pkey)
{
    SecureBytes bytes(ED25519_KEY_BYTES);
    size_t len = bytes.size();
    if (!pkey || EVP_PKEY_get_base_id(pkey) != EVP_PKEY_ED25519 ||
        EVP_PKEY_get_raw_public_key(pkey, bytes.data(), &len) != 1 || len != ED25519_KEY_BYTES)
        return {};
    return bytes;
}

PkeyPtr pkey_ed25519_from_public(const uint8_t *bytes, size_t len)
{
    if (!bytes || len != ED25519_KEY_BYTES)
        return nullptr;
    return PkeyPtr(EVP_PKEY_new_raw_public_key_ex(nullptr, "ED25519", nullptr, bytes, len));
}
