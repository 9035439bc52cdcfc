#include "crypto/ecdsa_signature.h"

#include <openssl/ec.h>

#include "crypto/signature_support.h"
#include "keys/buffer.h"
#include "keys/ossl_ptr.h"
#include "log/log.h"
#include "log/text_compare.h"

namespace {

using EcdsaSigPtr = OsslPtr<ECDSA_SIG, ECDSA_SIG_free>;

// The key's row when it is an ECDSA key or identity holding EC material.
const SignatureAlgorithm *ecdsa_key_row(const Key *key)
{
    if (!key || (key->type != KEY_ECDSA && key->type != KEY_X509_ECDSA) || !key->pkey ||
        EVP_PKEY_get_base_id(key->pkey.get()) != EVP_PKEY_EC)
        return nullptr;
    return key_signature_row(key);
}

// Reads one mpint without risking the buffer's fatal limits: the numbers of
// a signature come from outside.
BnPtr read_mpint(Buffer *b)
{
    if (!buffer_string_available(b))
        return nullptr;
    SecureBytes bytes = buffer_get_string(b);
    if (bytes.size() > BUFFER_MAX_BIGNUM_BYTES)
        return nullptr;
    return BnPtr(BN_bin2bn(bytes.data(), static_cast<int>(bytes.size()), nullptr));
}

}  // namespace

int ssh_ecdsa_sign(const Key *key, SecureBytes *sigp, const uint8_t *data, size_t datalen, int compat)
{
    (void)compat;
    const SignatureAlgorithm *row = ecdsa_key_row(key);
    if (!row) {
        debug("ssh_ecdsa_sign: invalid key parameter.");
        return SSH_ECDSA_BAD_KEY;
    }
    const EVP_MD *md = EVP_get_digestbynid(row->hash_nid);
    if (!md) {
        error("ssh_ecdsa_sign: EVP_get_digestbynid (%d) failed", row->hash_nid);
        return SSH_ECDSA_ERROR;
    }
    SignatureDigest digest;
    if (!signature_digest(md, data, datalen, &digest)) {
        error("ssh_ecdsa_sign: EVP_Digest internal error.");
        return SSH_ECDSA_ERROR;
    }
    debug("creating signature using ECDSA with %s.", digest_text_name(row->hash_nid));

    EVP_PKEY *pkey = key->pkey.get();
    SecureBytes der(static_cast<size_t>(EVP_PKEY_get_size(pkey)));
    size_t derlen = der.size();
    if (!pkey_sign_digest(pkey, md, 0, digest, der.data(), &derlen)) {
        error("ssh_ecdsa_sign: %s", crypto_error_text().c_str());
        return SSH_ECDSA_ERROR;
    }
    const uint8_t *p = der.data();
    EcdsaSigPtr sig(d2i_ECDSA_SIG(nullptr, &p, static_cast<long>(derlen)));
    if (!sig) {
        error("ssh_ecdsa_sign: failed to decode signature");
        return SSH_ECDSA_ERROR;
    }
    const BIGNUM *r = nullptr;
    const BIGNUM *s = nullptr;
    ECDSA_SIG_get0(sig.get(), &r, &s);
    Buffer inner;
    buffer_put_bignum2(&inner, r);
    buffer_put_bignum2(&inner, s);
    if (sigp)
        signature_blob_make(row->signature_name, buffer_ptr(&inner), buffer_len(&inner), sigp);
    return SSH_ECDSA_OK;
}

int ssh_ecdsa_verify(const Key *key, const uint8_t *signature, size_t signaturelen, const uint8_t *data,
                     size_t datalen, int compat)
{
    (void)compat;
    const SignatureAlgorithm *row = ecdsa_key_row(key);
    if (!row) {
        debug("ssh_ecdsa_verify: invalid key parameter.");
        return SSH_ECDSA_BAD_KEY;
    }
    const EVP_MD *md = EVP_get_digestbynid(row->hash_nid);
    if (!md) {
        error("ssh_ecdsa_verify: hash nid not supported (%d).", row->hash_nid);
        return SSH_ECDSA_ERROR;
    }
    SignatureBlob blob = signature_blob_parse(signature, signaturelen);
    if (!blob.has_type || !blob.has_signature) {
        error("ssh_ecdsa_verify: failed to parse signature blob");
        return SSH_ECDSA_ERROR;
    }
    if (!equals_ignore_case(blob.type.c_str(), row->signature_name)) {
        error("ssh_ecdsa_verify: signature algorithm does not match key type.");
        return SSH_ECDSA_ERROR;
    }
    if (blob.remaining != 0) {
        error("ssh_ecdsa_verify: data remaining in sigature buffer.");
        return SSH_ECDSA_ERROR;
    }
    // A signature that does not convert stays as it came and simply fails
    // the check below.
    ssh_ecdsa_parse_sig(&blob.signature);

    SignatureDigest digest;
    if (!signature_digest(md, data, datalen, &digest)) {
        error("ssh_ecdsa_verify: EVP_Digest internal error.");
        return SSH_ECDSA_ERROR;
    }
    int ret = pkey_verify_digest(key->pkey.get(), md, digest, blob.signature.data(), blob.signature.size());
    debug("ssh_ecdsa_verify: signature %s", ret == 1 ? "correct" : ret == 0 ? "incorrect" : "error");
    return ret;
}

int ssh_ecdsa_parse_sig(SecureBytes *sig)
{
    if (!sig || sig->empty())
        return -1;
    Buffer b;
    buffer_append(&b, sig->data(), static_cast<uint32_t>(sig->size()));
    BnPtr r = read_mpint(&b);
    BnPtr s = read_mpint(&b);
    EcdsaSigPtr value(ECDSA_SIG_new());
    if (!r || !s || !value || !ECDSA_SIG_set0(value.get(), r.get(), s.get())) {
        error("ssh_ecdsa_parse_sig: failed to set signature data.");
        return -1;
    }
    r.release();
    s.release();
    if (buffer_len(&b) != 0) {
        error("ssh_ecdsa_parse_sig: data remaining in sigature buffer.");
        return -1;
    }
    unsigned char *der = nullptr;
    int len = i2d_ECDSA_SIG(value.get(), &der);
    if (len <= 0) {
        error("ssh_ecdsa_parse_sig: failed to der encode signature");
        return -1;
    }
    sig->assign(der, der + len);
    OPENSSL_free(der);
    return len;
}
