#include "pki/x509_verifier.h"

#include "log/text_compare.h"

#include <openssl/obj_mac.h>

#include "crypto/fips_policy.h"
#include "crypto/rsa_signature.h"
#include "crypto/signature_support.h"
#include "log/log.h"

namespace {

int verify_rsa(EVP_PKEY *pub, const SignatureAlgorithm *row, const SecureBytes &sig, const uint8_t *data,
               size_t datalen)
{
    SecureBytes padded = sig;
    size_t modlen = static_cast<size_t>(EVP_PKEY_get_size(pub));
    if (padded.size() > modlen) {
        error("cert_identity_verify: len %zu > modlen %zu", padded.size(), modlen);
        return -1;
    }
    padded.insert(padded.begin(), modlen - padded.size(), 0);
    int hashes[] = {row->hash_nid, NID_md5, NID_sha1};
    size_t tries = crypto_fips_enabled() ? 1 : 3;
    for (size_t i = 0; i < tries; ++i) {
        if (i > 0 && hashes[i] == row->hash_nid)
            continue;
        const EVP_MD *md = EVP_get_digestbynid(hashes[i]);
        SignatureDigest digest;
        if (md && signature_digest(md, data, datalen, &digest) &&
            rsa_verify_digest_info(hashes[i], digest.bytes, digest.len, padded.data(), padded.size(), pub) == 1) {
            if (i > 0)
                debug("cert_identity_verify: signature correct as %s (compatibility)", digest_text_name(hashes[i]));
            return 1;
        }
    }
    return 0;
}

int verify_dsa(EVP_PKEY *pub, const SecureBytes &sig, const uint8_t *data, size_t datalen)
{
    SecureBytes der = sig;
    if (sig.size() == 40) {
        OsslPtr<ECDSA_SIG, ECDSA_SIG_free> value(ECDSA_SIG_new());
        BIGNUM *r = BN_bin2bn(sig.data(), 20, nullptr), *s = BN_bin2bn(sig.data() + 20, 20, nullptr);
        unsigned char *out = nullptr;
        int len = -1;
        if (value && r && s && ECDSA_SIG_set0(value.get(), r, s)) {
            r = s = nullptr;
            len = i2d_ECDSA_SIG(value.get(), &out);
        }
        BN_free(r);
        BN_free(s);
        der.assign(out, out + (len > 0 ? len : 0));
        OPENSSL_free(out);
    }
    SignatureDigest digest;
    if (der.empty() || !signature_digest(EVP_sha1(), data, datalen, &digest))
        return -1;
    return pkey_verify_digest(pub, EVP_sha1(), digest, der.data(), der.size());
}

}  // namespace

int cert_identity_verify(const Key *key, const uint8_t *signature, size_t signaturelen, const uint8_t *data,
                         size_t datalen)
{
    const SignatureAlgorithm *row = key_signature_row(key);
    EVP_PKEY *pub = key && key->cert ? X509_get0_pubkey(key->cert.get()) : nullptr;
    if (!row || !pub) {
        error("cert_identity_verify: no certificate key");
        return -1;
    }
    SignatureBlob blob = signature_blob_parse(signature, signaturelen);
    if (!blob.has_signature || blob.remaining != 0 || !equals_ignore_case(blob.type.c_str(), row->signature_name)) {
        error("cert_identity_verify: cannot handle signature %s for %s", blob.type.c_str(), row->name);
        return -1;
    }
    int ret = EVP_PKEY_get_base_id(pub) == EVP_PKEY_RSA   ? verify_rsa(pub, row, blob.signature, data, datalen)
              : EVP_PKEY_get_base_id(pub) == EVP_PKEY_DSA ? verify_dsa(pub, blob.signature, data, datalen)
                                                          : -1;
    debug("cert_identity_verify: signature %s", ret == 1 ? "correct" : ret == 0 ? "incorrect" : "error");
    return ret;
}
