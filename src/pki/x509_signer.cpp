#include "pki/x509_signer.h"

#include "log/text_compare.h"

#include <cstring>

#include <openssl/core_names.h>
#include <openssl/ecdsa.h>
#include <openssl/obj_mac.h>
#include <openssl/rsa.h>

#include "crypto/fips_policy.h"
#include "crypto/signature_support.h"
#include "crypto/signature_types.h"
#include "keys/buffer.h"
#include "log/log.h"

namespace {

bool fips_rsa_length(int bits) { return bits == 2048 || bits == 3072 || bits == 4096 || bits == 8192; }

bool is_certificate(int type) { return type == KEY_X509_RSA || type == KEY_X509_DSA || type == KEY_X509_ECDSA; }

// Length in bytes of one half of r||s: the group order's.
size_t half_length(EVP_PKEY *pkey)
{
    const char *param = EVP_PKEY_get_base_id(pkey) == EVP_PKEY_DSA ? OSSL_PKEY_PARAM_FFC_Q : OSSL_PKEY_PARAM_EC_ORDER;
    BIGNUM *order = nullptr;
    if (EVP_PKEY_get_bn_param(pkey, param, &order) && order) {
        size_t len = static_cast<size_t>(BN_num_bytes(order));
        BN_free(order);
        return len;
    }
    // EC keys do not hand out their order as a parameter: the field size
    // matches the order for the NIST curves.
    return static_cast<size_t>((EVP_PKEY_get_bits(pkey) + 7) / 8);
}

// r||s as a DER DSA-Sig-Value / ECDSA-Sig-Value.
SecureBytes raw_to_der(const SecureBytes &raw)
{
    size_t half = raw.size() / 2;
    ECDSA_SIG *sig = ECDSA_SIG_new();
    BIGNUM *r = BN_bin2bn(raw.data(), static_cast<int>(half), nullptr);
    BIGNUM *s = BN_bin2bn(raw.data() + half, static_cast<int>(half), nullptr);
    SecureBytes der;
    if (sig && r && s && ECDSA_SIG_set0(sig, r, s)) {
        r = s = nullptr;
        unsigned char *out = nullptr;
        int len = i2d_ECDSA_SIG(sig, &out);
        if (len > 0)
            der.assign(out, out + len);
        OPENSSL_free(out);
    }
    BN_free(r);
    BN_free(s);
    ECDSA_SIG_free(sig);
    return der;
}

int sign_rsa(const Key *key, const SignatureAlgorithm *row, const CertHandle &handle, const uint8_t *data,
             size_t datalen, SignPromptCallback prompt, SecureBytes *sigp)
{
    EVP_PKEY *pkey = key->pkey.get();
    // MD5 follows the setting for plain keys always, for certificates only
    // under the names that sign with SHA-1 by default.
    bool md5 = get_x509rsa_sigtype() == 0 &&
               (!is_certificate(key->type) || equals_ignore_case(row->signature_name, "x509v3-sign-rsa") ||
                equals_ignore_case(row->signature_name, "ssh-rsa"));
    int hash_nid = md5 ? NID_md5 : row->hash_nid;
    if (crypto_fips_enabled()) {
        if (get_x509rsa_sigtype() == 0 || hash_nid == NID_sha1 || hash_nid == NID_md5) {
            error("FIPS: MD5 and SHA1 signatures not allowed.");
            return -1;
        }
        int bits = EVP_PKEY_get_bits(pkey);
        if (!fips_rsa_length(bits)) {
            error("Invalid key length %lu. In FIPS mode, RSA key length must be 2048, 3072, 4096 or 8192.",
                  static_cast<unsigned long>(bits));
            return -1;
        }
    }
    const EVP_MD *md = EVP_get_digestbynid(hash_nid);
    SignatureDigest digest;
    if (!md || !signature_digest(md, data, datalen, &digest)) {
        error("cert_identity_sign: digest %d failed", hash_nid);
        return -1;
    }
    debug("creating signature using RSA with %s.", digest_text_name(hash_nid));
    SecureBytes raw;
    if (!handle.sign(hash_nid, digest.bytes, digest.len, prompt, &raw))
        return -1;
    size_t slen = static_cast<size_t>(EVP_PKEY_get_size(pkey));
    if (raw.size() > slen) {
        error("cert_identity_sign: slen %zu slen2 %zu", slen, raw.size());
        return -1;
    }
    raw.insert(raw.begin(), slen - raw.size(), 0);
    signature_blob_make(row->signature_name, raw.data(), raw.size(), sigp);
    return 0;
}

int sign_dsa(const Key *key, const CertHandle &handle, const uint8_t *data, size_t datalen,
             SignPromptCallback prompt, SecureBytes *sigp)
{
    if (crypto_fips_enabled()) {
        error("ssh_DSA_do_sign: FIPS does not allow DSA keys");
        return 0;
    }
    SignatureDigest digest;
    if (!signature_digest(EVP_sha1(), data, datalen, &digest)) {
        error("cert_identity_sign: SHA1 digest failed");
        return -1;
    }
    SecureBytes raw;
    if (!handle.sign(NID_sha1, digest.bytes, digest.len, prompt, &raw))
        return -1;
    if (is_certificate(key->type) && get_x509dsa_sigtype() == 1) {
        debug("creating signature using DSA with SHA1 ASN.1");
        SecureBytes der = raw_to_der(raw);
        if (der.empty()) {
            error("cert_identity_sign: failed to encode the DSA signature");
            return -1;
        }
        signature_blob_make("x509v3-sign-dss", der.data(), der.size(), sigp);
        return 0;
    }
    debug("creating signature using DSA with SHA1 RAW");
    signature_blob_make(is_certificate(key->type) ? "x509v3-sign-dss" : "ssh-dss", raw.data(), raw.size(), sigp);
    return 0;
}

int sign_ecdsa(const SignatureAlgorithm *row, const CertHandle &handle, const uint8_t *data, size_t datalen,
               SignPromptCallback prompt, SecureBytes *sigp)
{
    const EVP_MD *md = EVP_get_digestbynid(row->hash_nid);
    SignatureDigest digest;
    if (!md || !signature_digest(md, data, datalen, &digest)) {
        error("cert_identity_sign: digest %d failed", row->hash_nid);
        return -1;
    }
    debug("creating signature using ECDSA with %s.", digest_text_name(row->hash_nid));
    SecureBytes raw;
    if (!handle.sign(row->hash_nid, digest.bytes, digest.len, prompt, &raw))
        return -1;
    size_t half = raw.size() / 2;
    Buffer inner;
    BnPtr r(BN_bin2bn(raw.data(), static_cast<int>(half), nullptr));
    BnPtr s(BN_bin2bn(raw.data() + half, static_cast<int>(half), nullptr));
    if (!r || !s)
        return -1;
    buffer_put_bignum2(&inner, r.get());
    buffer_put_bignum2(&inner, s.get());
    signature_blob_make(row->signature_name, buffer_ptr(&inner), buffer_len(&inner), sigp);
    return 0;
}

}  // namespace

int cert_identity_sign(const Key *key, SecureBytes *sigp, const uint8_t *data, size_t datalen,
                       SignPromptCallback prompt)
{
    CertHandle *handle = cert_identity_handle(key);
    const SignatureAlgorithm *row = key_signature_row(key);
    if (!handle || !key->cert || !key->pkey || !row) {
        error("cert_identity_sign: not a certificate identity");
        return -1;
    }
    if (!handle->sign) {
        const CertProvider *provider = cert_provider_for(handle->location);
        if (!provider || !provider->attach(handle, key->cert.get())) {
            error("cert_identity_sign: the private key of certificate %s is not available",
                  handle->reference.sha1_hex.c_str());
            return -1;
        }
    }
    SecureBytes blob;
    int ret = -1;
    switch (EVP_PKEY_get_base_id(key->pkey.get())) {
    case EVP_PKEY_RSA: ret = sign_rsa(key, row, *handle, data, datalen, prompt, &blob); break;
    case EVP_PKEY_DSA: ret = sign_dsa(key, *handle, data, datalen, prompt, &blob); break;
    case EVP_PKEY_EC: ret = sign_ecdsa(row, *handle, data, datalen, prompt, &blob); break;
    default: error("cert_identity_sign: unsupported key in certificate %s", handle->reference.sha1_hex.c_str());
    }
    if (ret == 0 && sigp)
        *sigp = std::move(blob);
    return ret;
}

CertDigestSigner software_digest_signer(PkeyPtr key)
{
    std::shared_ptr<EVP_PKEY> owned(key.release(), EVP_PKEY_free);
    return [owned](int hash_nid, const uint8_t *digest, size_t len, SignPromptCallback, SecureBytes *raw) {
        SignatureDigest d;
        if (len > sizeof d.bytes)
            return false;
        memcpy(d.bytes, digest, len);
        d.len = static_cast<unsigned>(len);
        const EVP_MD *md = EVP_get_digestbynid(hash_nid);
        bool rsa = EVP_PKEY_get_base_id(owned.get()) == EVP_PKEY_RSA;
        SecureBytes sig(static_cast<size_t>(EVP_PKEY_get_size(owned.get())));
        size_t siglen = sig.size();
        if (!md || !pkey_sign_digest(owned.get(), md, rsa ? RSA_PKCS1_PADDING : 0, d, sig.data(), &siglen)) {
            error("cert_identity_sign: %s", crypto_error_text().c_str());
            return false;
        }
        sig.resize(siglen);
        if (rsa) {
            *raw = std::move(sig);
            return true;
        }
        const uint8_t *in = sig.data();
        ECDSA_SIG *parsed = d2i_ECDSA_SIG(nullptr, &in, static_cast<long>(siglen));
        size_t half = half_length(owned.get());
        raw->assign(2 * half, 0);
        bool ok = parsed && BN_bn2binpad(ECDSA_SIG_get0_r(parsed), raw->data(), static_cast<int>(half)) > 0 &&
                  BN_bn2binpad(ECDSA_SIG_get0_s(parsed), raw->data() + half, static_cast<int>(half)) > 0;
        ECDSA_SIG_free(parsed);
        if (!ok)
            error("cert_identity_sign: failed to decode signature");
        return ok;
    };
}
