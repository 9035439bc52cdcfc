#include "crypto/dsa_signature.h"

#include <cstring>

#include <openssl/dsa.h>
#include <openssl/obj_mac.h>

#include "crypto/fips_policy.h"
#include "crypto/signature_support.h"
#include "keys/ossl_ptr.h"
#include "log/log.h"

namespace {

using DsaSigPtr = OsslPtr<DSA_SIG, DSA_SIG_free>;

constexpr int INTBLOB_LEN = 20;

bool is_dsa_key(const Key *key)
{
    return key && key->type == KEY_DSA && key->pkey && EVP_PKEY_get_base_id(key->pkey.get()) == EVP_PKEY_DSA;
}

// DER DSA-Sig-Value to r||s with each half left-padded to 20 bytes.
bool dsa_der_to_raw(const uint8_t *der, size_t derlen, uint8_t raw[SIGBLOB_LEN])
{
    const uint8_t *p = der;
    DsaSigPtr sig(d2i_DSA_SIG(nullptr, &p, static_cast<long>(derlen)));
    if (!sig)
        return false;
    const BIGNUM *r = nullptr;
    const BIGNUM *s = nullptr;
    DSA_SIG_get0(sig.get(), &r, &s);
    return BN_bn2binpad(r, raw, INTBLOB_LEN) == INTBLOB_LEN &&
           BN_bn2binpad(s, raw + INTBLOB_LEN, INTBLOB_LEN) == INTBLOB_LEN;
}

// r||s back to DER; empty on failure.
SecureBytes dsa_raw_to_der(const uint8_t raw[SIGBLOB_LEN])
{
    DsaSigPtr sig(DSA_SIG_new());
    BnPtr r(BN_bin2bn(raw, INTBLOB_LEN, nullptr));
    BnPtr s(BN_bin2bn(raw + INTBLOB_LEN, INTBLOB_LEN, nullptr));
    if (!sig || !r || !s || !DSA_SIG_set0(sig.get(), r.get(), s.get()))
        return {};
    r.release();
    s.release();
    unsigned char *der = nullptr;
    int len = i2d_DSA_SIG(sig.get(), &der);
    if (len <= 0)
        return {};
    SecureBytes out(der, der + len);
    OPENSSL_clear_free(der, static_cast<size_t>(len));
    return out;
}

}  // namespace

int ssh_dss_sign(const Key *key, SecureBytes *sigp, const uint8_t *data, size_t datalen, int compat)
{
    (void)compat;
    // FIPS mode forbids DSA; callers have always seen success with an empty
    // result here, and rely on it.
    if (crypto_fips_enabled()) {
        error("ssh_DSA_do_sign: FIPS does not allow DSA keys");
        return 0;
    }
    if (!is_dsa_key(key)) {
        error("ssh_dss_sign: no DSA key");
        return -1;
    }
    debug("creating signature using DSA with SHA1 ASN1 hash (ignoring the setting DSA signature type for user keys).");
    const EVP_MD *md = EVP_sha1();
    SignatureDigest digest;
    if (!signature_digest(md, data, datalen, &digest)) {
        error("ssh_dss_sign: %s", crypto_error_text().c_str());
        return -1;
    }
    EVP_PKEY *pkey = key->pkey.get();
    SecureBytes der(static_cast<size_t>(EVP_PKEY_get_size(pkey)));
    size_t derlen = der.size();
    if (!pkey_sign_digest(pkey, md, 0, digest, der.data(), &derlen)) {
        error("ssh_dss_sign: %s", crypto_error_text().c_str());
        return -1;
    }
    uint8_t raw[SIGBLOB_LEN];
    if (!dsa_der_to_raw(der.data(), derlen, raw)) {
        error("ssh_dss_sign: Failed to decode signature");
        return -1;
    }
    if (sigp)
        signature_blob_make("ssh-dss", raw, sizeof raw, sigp);
    wipe_memory(raw, sizeof raw);
    return 0;
}

int ssh_dss_verify(const Key *key, const uint8_t *signature, size_t signaturelen, const uint8_t *data, size_t datalen,
                   int compat)
{
    (void)compat;
    if (!is_dsa_key(key)) {
        error("ssh_dss_verify: no DSA key");
        return -1;
    }
    SignatureBlob blob = signature_blob_parse(signature, signaturelen);
    // Unlike RSA and ECDSA, the DSA name is compared exactly.
    if (blob.type != "ssh-dss") {
        error("ssh_dss_verify: cannot handle type %s", blob.type.c_str());
        return -1;
    }
    if (blob.remaining != 0) {
        error("ssh_dss_verify: remaining bytes in signature %d", static_cast<int>(blob.remaining));
        return -1;
    }
    if (blob.signature.size() != SIGBLOB_LEN) {
        error("bad sigbloblen %u != SIGBLOB_LEN", static_cast<unsigned>(blob.signature.size()));
        return -1;
    }
    int ret = -1;
    const EVP_MD *md = EVP_sha1();
    SignatureDigest digest;
    if (!signature_digest(md, data, datalen, &digest))
        fatal("ssh_ecdsa_verify: EVP_Digest internal error.");
    SecureBytes der = dsa_raw_to_der(blob.signature.data());
    if (!der.empty())
        ret = pkey_verify_digest(key->pkey.get(), md, digest, der.data(), der.size());
    wipe_memory(blob.signature.data(), blob.signature.size());
    debug("ssh_dss_verify: signature %s", ret == 1 ? "correct" : ret == 0 ? "incorrect" : "error");
    return ret;
}
