#include "crypto/ed25519_signature.h"

#include "log/text_compare.h"

#include "crypto/fips_policy.h"
#include "crypto/signature_support.h"
#include "keys/ossl_ptr.h"
#include "log/log.h"
#include "log/text_compare.h"

namespace {

bool usable_key(const Key *key)
{
    return key && key->type == KEY_ED25519 && key->pkey && EVP_PKEY_get_base_id(key->pkey.get()) == EVP_PKEY_ED25519;
}

}  // namespace

int ssh_ed25519_sign(const Key *key, SecureBytes *sigp, const uint8_t *data, size_t datalen)
{
    if (!usable_key(key)) {
        error("ssh_ed25519_sign: invalid key parameter.");
        return -1;
    }
    if (!crypto_fips_allows_ed25519()) {
        error("ssh_ed25519_sign: FIPS does not allow Ed25519 keys");
        return -1;
    }
    // PureEdDSA takes no digest: the data goes to the one-shot call whole.
    MdCtxPtr ctx(EVP_MD_CTX_new());
    SecureBytes sig(ED25519_SIGNATURE_BYTES);
    size_t siglen = sig.size();
    if (!ctx || EVP_DigestSignInit_ex(ctx.get(), nullptr, nullptr, nullptr, nullptr, key->pkey.get(), nullptr) != 1 ||
        EVP_DigestSign(ctx.get(), sig.data(), &siglen, data, datalen) != 1 || siglen != ED25519_SIGNATURE_BYTES) {
        error("ssh_ed25519_sign: %s", crypto_error_text().c_str());
        return -1;
    }
    debug("creating signature using Ed25519.");
    if (sigp)
        signature_blob_make("ssh-ed25519", sig.data(), siglen, sigp);
    return 0;
}

int ssh_ed25519_verify(const Key *key, const uint8_t *signature, size_t signaturelen, const uint8_t *data,
                       size_t datalen)
{
    if (!usable_key(key)) {
        error("ssh_ed25519_verify: invalid key parameter.");
        return -1;
    }
    SignatureBlob blob = signature_blob_parse(signature, signaturelen);
    if (!blob.has_type || !blob.has_signature || blob.remaining != 0 ||
        !equals_ignore_case(blob.type, "ssh-ed25519") || blob.signature.size() != ED25519_SIGNATURE_BYTES) {
        error("ssh_ed25519_verify: malformed signature blob");
        return -1;
    }
    MdCtxPtr ctx(EVP_MD_CTX_new());
    if (!ctx ||
        EVP_DigestVerifyInit_ex(ctx.get(), nullptr, nullptr, nullptr, nullptr, key->pkey.get(), nullptr) != 1) {
        error("ssh_ed25519_verify: %s", crypto_error_text().c_str());
        return -1;
    }
    int ret = EVP_DigestVerify(ctx.get(), blob.signature.data(), blob.signature.size(), data, datalen) == 1 ? 1 : 0;
    crypto_error_text();  // an incorrect signature leaves a queued error
    debug("ssh_ed25519_verify: signature %s", ret == 1 ? "correct" : "incorrect");
    return ret;
}
