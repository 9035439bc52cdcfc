#include "crypto/rsa_signature.h"

#include <cstring>

#include <openssl/obj_mac.h>
#include <openssl/rsa.h>

#include "crypto/fips_policy.h"
#include "crypto/signature_support.h"
#include "crypto/signature_types.h"
#include "keys/ossl_ptr.h"
#include "log/log.h"
#include "log/text_compare.h"

namespace {

// The DER DigestInfo prefixes of PKCS #1 v1.5 and the digest length that
// follows each.
constexpr uint8_t SHA1_PREFIX[] = {0x30, 0x21, 0x30, 0x09, 0x06, 0x05, 0x2b, 0x0e,
                                   0x03, 0x02, 0x1a, 0x05, 0x00, 0x04, 0x14};
constexpr uint8_t MD5_PREFIX[] = {0x30, 0x20, 0x30, 0x0c, 0x06, 0x08, 0x2a, 0x86, 0x48,
                                  0x86, 0xf7, 0x0d, 0x02, 0x05, 0x05, 0x00, 0x04, 0x10};
constexpr uint8_t SHA256_PREFIX[] = {0x30, 0x31, 0x30, 0x0d, 0x06, 0x09, 0x60, 0x86, 0x48, 0x01,
                                     0x65, 0x03, 0x04, 0x02, 0x01, 0x05, 0x00, 0x04, 0x20};
constexpr uint8_t SHA512_PREFIX[] = {0x30, 0x51, 0x30, 0x0d, 0x06, 0x09, 0x60, 0x86, 0x48, 0x01,
                                     0x65, 0x03, 0x04, 0x02, 0x03, 0x05, 0x00, 0x04, 0x40};

struct DigestInfoPrefix {
    int nid;
    const uint8_t *prefix;
    size_t prefix_len;
    size_t digest_len;
};

constexpr DigestInfoPrefix DIGEST_INFO_PREFIXES[] = {
    {NID_sha512, SHA512_PREFIX, sizeof SHA512_PREFIX, 64},
    {NID_sha256, SHA256_PREFIX, sizeof SHA256_PREFIX, 32},
    {NID_md5, MD5_PREFIX, sizeof MD5_PREFIX, 16},
    {NID_sha1, SHA1_PREFIX, sizeof SHA1_PREFIX, 20},
};

// The key's row when the key is a plain RSA key with RSA material signing
// under an RSA row; null otherwise.
const SignatureAlgorithm *rsa_key_row(const Key *key)
{
    if (!key || key->type != KEY_RSA || !key->pkey || EVP_PKEY_get_base_id(key->pkey.get()) != EVP_PKEY_RSA)
        return nullptr;
    const SignatureAlgorithm *row = key_signature_row(key);
    if (!row || !equals_ignore_case(row->base_name, "ssh-rsa"))
        return nullptr;
    return row;
}

bool fips_length_allowed(int bits) { return bits == 2048 || bits == 3072 || bits == 4096 || bits == 8192; }

}  // namespace

int ssh_rsa_sign(const Key *key, SecureBytes *sigp, const uint8_t *data, size_t datalen, int compat)
{
    (void)compat;
    const SignatureAlgorithm *row = rsa_key_row(key);
    if (!row) {
        error("ssh_rsa_sign: no RSA key");
        return -1;
    }
    EVP_PKEY *pkey = key->pkey.get();
    bool md5_override = get_x509rsa_sigtype() == 0;
    if (crypto_fips_enabled()) {
        if (md5_override || row->hash_nid == NID_sha1) {
            error("FIPS: MD5 and SHA1 signatures not allowed.");
            return -1;
        }
        int bits = EVP_PKEY_get_bits(pkey);
        if (!fips_length_allowed(bits)) {
            error("Invalid key length %lu. In FIPS mode, RSA key length must be 2048, 3072, 4096 or 8192.",
                  static_cast<unsigned long>(bits));
            return -1;
        }
    }
    // Signature type 0 asks for MD5 whatever the algorithm says; it is the
    // old behaviour some servers still need and is off by default.
    int hash_nid = md5_override ? NID_md5 : row->hash_nid;
    const EVP_MD *md = EVP_get_digestbynid(hash_nid);
    if (!md) {
        error("ssh_rsa_sign: EVP_get_digestbynid %d failed", hash_nid);
        return -1;
    }
    SignatureDigest digest;
    if (!signature_digest(md, data, datalen, &digest)) {
        error("ssh_rsa_sign: %s", crypto_error_text().c_str());
        return -1;
    }
    debug("creating signature using RSA with %s.", digest_text_name(hash_nid));

    size_t slen = static_cast<size_t>(EVP_PKEY_get_size(pkey));
    SecureBytes sig(slen);
    size_t len = slen;
    bool signed_ok = pkey_sign_digest(pkey, md, RSA_PKCS1_PADDING, digest, sig.data(), &len);
    int ret = -1;
    if (!signed_ok) {
        error("ssh_rsa_sign: %s", crypto_error_text().c_str());
    } else if (len > slen) {
        error("ssh_rsa_sign: slen %u slen2 %u", static_cast<unsigned>(slen), static_cast<unsigned>(len));
    } else {
        // Servers expect the signature as long as the modulus; a short one
        // is a number with leading zero bytes dropped.
        if (len < slen) {
            debug("slen %u > len %u", static_cast<unsigned>(slen), static_cast<unsigned>(len));
            size_t diff = slen - len;
            memmove(sig.data() + diff, sig.data(), len);
            memset(sig.data(), 0, diff);
        }
        if (sigp)
            signature_blob_make(row->signature_name, sig.data(), slen, sigp);
        ret = 0;
    }
    overwrite_memory(sig.data(), sig.size(), 0x73);
    return ret;
}

int ssh_rsa_verify(const Key *key, const uint8_t *signature, size_t signaturelen, const uint8_t *data, size_t datalen,
                   int compat)
{
    (void)compat;
    const SignatureAlgorithm *row = rsa_key_row(key);
    if (!row) {
        error("ssh_rsa_verify: no RSA key");
        return -1;
    }
    EVP_PKEY *pkey = key->pkey.get();
    int bits = EVP_PKEY_get_bits(pkey);
    if (bits < SSH_RSA_MINIMUM_MODULUS_SIZE) {
        error("ssh_rsa_verify: RSA modulus too small: %d < minimum %d bits", bits, SSH_RSA_MINIMUM_MODULUS_SIZE);
        return -1;
    }
    SignatureBlob blob = signature_blob_parse(signature, signaturelen);
    if (!equals_ignore_case(blob.type.c_str(), row->signature_name)) {
        error("ssh_rsa_verify: cannot handle type %s", blob.type.c_str());
        return -1;
    }
    if (blob.remaining != 0) {
        error("ssh_rsa_verify: remaining bytes in signature %d", static_cast<int>(blob.remaining));
        return -1;
    }
    SecureBytes &sig = blob.signature;
    size_t len = sig.size();
    size_t modlen = static_cast<size_t>(EVP_PKEY_get_size(pkey));
    if (len > modlen) {
        error("ssh_rsa_verify: len %u > modlen %u", static_cast<unsigned>(len), static_cast<unsigned>(modlen));
        return -1;
    }
    if (len < modlen) {
        debug("ssh_rsa_verify: add padding: modlen %u > len %u", static_cast<unsigned>(modlen),
              static_cast<unsigned>(len));
        sig.insert(sig.begin(), modlen - len, 0);
    }
    const EVP_MD *md = EVP_get_digestbynid(row->hash_nid);
    if (!md) {
        error("ssh_rsa_verify: EVP_get_digestbynid %d failed", row->hash_nid);
        return -1;
    }
    SignatureDigest digest;
    int ret = -1;
    if (signature_digest(md, data, datalen, &digest))
        ret = rsa_verify_digest_info(row->hash_nid, digest.bytes, digest.len, sig.data(), sig.size(), pkey);
    else
        error("ssh_rsa_verify: %s", crypto_error_text().c_str());
    overwrite_memory(sig.data(), sig.size(), 0x73);
    debug("ssh_rsa_verify: signature %scorrect", ret == 1 ? "" : "in");
    return ret;
}

int rsa_verify_digest_info(int hash_nid, const uint8_t *hash, size_t hashlen, const uint8_t *sigbuf, size_t siglen,
                           EVP_PKEY *rsa)
{
    const DigestInfoPrefix *info = nullptr;
    for (const DigestInfoPrefix &candidate : DIGEST_INFO_PREFIXES)
        if (candidate.nid == hash_nid)
            info = &candidate;
    if (!info)
        return 0;
    if (hash_nid == NID_md5 && crypto_fips_enabled()) {
        error("FIPS: Invalid operation.  RSA signature must be SHA1 based.");
        return 0;
    }
    if (hashlen != info->digest_len) {
        error("bad hashlen");
        return 0;
    }
    size_t rsasize = static_cast<size_t>(EVP_PKEY_get_size(rsa));
    if (siglen == 0 || siglen > rsasize) {
        error("bad siglen");
        return 0;
    }
    SecureBytes decrypted(rsasize);
    size_t len = rsasize;
    PkeyCtxPtr ctx(EVP_PKEY_CTX_new_from_pkey(nullptr, rsa, nullptr));
    if (!ctx || EVP_PKEY_verify_recover_init(ctx.get()) <= 0 ||
        EVP_PKEY_CTX_set_rsa_padding(ctx.get(), RSA_PKCS1_PADDING) <= 0 ||
        EVP_PKEY_verify_recover(ctx.get(), decrypted.data(), &len, sigbuf, siglen) <= 0) {
        error("EVP_PKEY_decrypt failed: %s", crypto_error_text().c_str());
        return 0;
    }
    if (len != info->prefix_len + hashlen) {
        error("bad decrypted len: %d != %d + %d", static_cast<int>(len), static_cast<int>(info->prefix_len),
              static_cast<int>(hashlen));
        return 0;
    }
    if (memcmp(decrypted.data(), info->prefix, info->prefix_len) != 0) {
        error("oid mismatch");
        return 0;
    }
    if (memcmp(decrypted.data() + info->prefix_len, hash, hashlen) != 0) {
        error("hash mismatch");
        return 0;
    }
    return 1;
}
