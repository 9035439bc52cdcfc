#include <gtest/gtest.h>

#include <memory>

#include <openssl/core_names.h>
#include <openssl/dsa.h>
#include <openssl/obj_mac.h>

#include "keys/buffer.h"
#include "keys/key.h"
#include "keys/private_key_material.h"

namespace {

struct PkeyFree { void operator()(EVP_PKEY *k) const { EVP_PKEY_free(k); } };
using Pkey = std::unique_ptr<EVP_PKEY, PkeyFree>;

BIGNUM *param(EVP_PKEY *key, const char *name)
{
    BIGNUM *v = nullptr;
    EVP_PKEY_get_bn_param(key, name, &v);
    return v;
}

// Signs with `signer` and verifies with `verifier`.
bool signs_for(EVP_PKEY *signer, EVP_PKEY *verifier)
{
    const unsigned char data[] = "data to sign";
    unsigned char sig[1024];
    size_t len = sizeof sig;
    EVP_MD_CTX *s = EVP_MD_CTX_new(), *v = EVP_MD_CTX_new();
    bool ok = EVP_DigestSignInit(s, nullptr, EVP_sha256(), nullptr, signer) == 1 &&
              EVP_DigestSign(s, sig, &len, data, sizeof data) == 1 &&
              EVP_DigestVerifyInit(v, nullptr, EVP_sha256(), nullptr, verifier) == 1 &&
              EVP_DigestVerify(v, sig, len, data, sizeof data) == 1;
    EVP_MD_CTX_free(s);
    EVP_MD_CTX_free(v);
    return ok;
}

}  // namespace

TEST(PrivateKeyMaterial, RebuildsRsaDsaAndEcdsaKeysThatSign)
{
    Pkey rsa(EVP_PKEY_Q_keygen(nullptr, nullptr, "RSA", static_cast<size_t>(1024)));
    BIGNUM *n = param(rsa.get(), OSSL_PKEY_PARAM_RSA_N), *e = param(rsa.get(), OSSL_PKEY_PARAM_RSA_E),
           *d = param(rsa.get(), OSSL_PKEY_PARAM_RSA_D), *p = param(rsa.get(), OSSL_PKEY_PARAM_RSA_FACTOR1),
           *q = param(rsa.get(), OSSL_PKEY_PARAM_RSA_FACTOR2),
           *iqmp = param(rsa.get(), OSSL_PKEY_PARAM_RSA_COEFFICIENT1);
    Pkey rebuilt(rsa_private_from_numbers(n, e, d, iqmp, p, q));
    ASSERT_TRUE(rebuilt);
    EXPECT_EQ(EVP_PKEY_eq(rebuilt.get(), rsa.get()), 1);
    EXPECT_TRUE(signs_for(rebuilt.get(), rsa.get()));
    BIGNUM *zero = BN_new();
    EXPECT_EQ(rsa_private_from_numbers(n, e, d, iqmp, zero, q), nullptr);
    for (BIGNUM *v : {n, e, d, p, q, iqmp})
        BN_free(v);

    Pkey ec(EVP_PKEY_Q_keygen(nullptr, nullptr, "EC", "P-384"));
    unsigned char point[133];
    size_t point_len = 0;
    EVP_PKEY_get_octet_string_param(ec.get(), OSSL_PKEY_PARAM_PUB_KEY, point, sizeof point, &point_len);
    BIGNUM *scalar = param(ec.get(), OSSL_PKEY_PARAM_PRIV_KEY);
    Pkey ec_rebuilt(ecdsa_private_from_numbers(NID_secp384r1, point, point_len, scalar));
    ASSERT_TRUE(ec_rebuilt);
    EXPECT_TRUE(signs_for(ec_rebuilt.get(), ec.get()));
    // The wrong curve, a compressed point or a scalar that does not match the
    // point are all refused.
    EXPECT_EQ(ecdsa_private_from_numbers(NID_X9_62_prime256v1, point, point_len, scalar), nullptr);
    point[0] = 0x02;
    EXPECT_EQ(ecdsa_private_from_numbers(NID_secp384r1, point, point_len, scalar), nullptr);
    point[0] = 0x04;
    BN_add_word(scalar, 1);
    EXPECT_EQ(ecdsa_private_from_numbers(NID_secp384r1, point, point_len, scalar), nullptr);
    BN_free(scalar);
    BN_free(zero);

    EVP_PKEY_CTX *pctx = EVP_PKEY_CTX_new_from_name(nullptr, "DSA", nullptr);
    EVP_PKEY *params = nullptr;
    ASSERT_EQ(EVP_PKEY_paramgen_init(pctx), 1);
    EVP_PKEY_CTX_set_dsa_paramgen_bits(pctx, 1024);
    ASSERT_EQ(EVP_PKEY_paramgen(pctx, &params), 1);
    EVP_PKEY_CTX_free(pctx);
    pctx = EVP_PKEY_CTX_new_from_pkey(nullptr, params, nullptr);
    EVP_PKEY *dsa_raw = nullptr;
    ASSERT_EQ(EVP_PKEY_keygen_init(pctx), 1);
    ASSERT_EQ(EVP_PKEY_keygen(pctx, &dsa_raw), 1);
    Pkey dsa(dsa_raw);
    EVP_PKEY_CTX_free(pctx);
    EVP_PKEY_free(params);
    BIGNUM *dp = param(dsa.get(), OSSL_PKEY_PARAM_FFC_P), *dq = param(dsa.get(), OSSL_PKEY_PARAM_FFC_Q),
           *dg = param(dsa.get(), OSSL_PKEY_PARAM_FFC_G), *dy = param(dsa.get(), OSSL_PKEY_PARAM_PUB_KEY),
           *dx = param(dsa.get(), OSSL_PKEY_PARAM_PRIV_KEY);
    Pkey dsa_rebuilt(dsa_private_from_numbers(dp, dq, dg, dy, dx));
    ASSERT_TRUE(dsa_rebuilt);
    EXPECT_TRUE(signs_for(dsa_rebuilt.get(), dsa.get()));
    for (BIGNUM *v : {dp, dq, dg, dy, dx})
        BN_free(v);
}

TEST(PrivateKeyMaterial, Ed25519FromOpensshFieldsAndBack)
{
    KeyPtr key = key_generate(KEY_ED25519, 0);
    Buffer fields;
    ASSERT_TRUE(private_key_put_agent_fields(key->pkey.get(), &fields));
    EXPECT_EQ(buffer_get_string_text(&fields), "ssh-ed25519");
    SecureBytes pub = buffer_get_string(&fields);
    SecureBytes secret = buffer_get_string(&fields);
    ASSERT_EQ(pub.size(), 32u);
    ASSERT_EQ(secret.size(), 64u);
    Pkey rebuilt(ed25519_private_from_bytes(pub.data(), pub.size(), secret.data(), secret.size()));
    ASSERT_TRUE(rebuilt);
    EXPECT_EQ(EVP_PKEY_eq(rebuilt.get(), key->pkey.get()), 1);

    // Both copies of the public key must be the one the seed makes.
    pub[0] ^= 1;
    secret[32] ^= 1;
    EXPECT_EQ(ed25519_private_from_bytes(pub.data(), pub.size(), secret.data(), secret.size()), nullptr);
}
