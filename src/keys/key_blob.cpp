#include "keys/key_blob.h"

#include <mutex>
#include <string>
#include <unordered_map>

#include <openssl/core_names.h>

#include "keys/cert_key_blob.h"
#include "keys/cert_key_hooks.h"
#include "keys/key_material.h"
#include "log/log.h"

namespace {

// Public EC keys already decoded and checked, by curve and point. Building
// the curve and checking the point cost about as much as a signature, and a
// client presents the same few keys with every request, so each point is
// decoded once and its key object shared after that. The set is small and
// starts over when full.
class DecodedPoints {
public:
    PkeyPtr find(const std::string &id)
    {
        std::lock_guard<std::mutex> guard(lock_);
        auto it = keys_.find(id);
        if (it == keys_.end())
            return nullptr;
        EVP_PKEY_up_ref(it->second.get());
        return PkeyPtr(it->second.get());
    }
    void add(const std::string &id, EVP_PKEY *key)
    {
        std::lock_guard<std::mutex> guard(lock_);
        if (keys_.size() >= 256)
            keys_.clear();
        EVP_PKEY_up_ref(key);
        keys_[id] = PkeyPtr(key);
    }

private:
    std::mutex lock_;
    std::unordered_map<std::string, PkeyPtr> keys_;
};

DecodedPoints &decoded_points()
{
    static DecodedPoints points;
    return points;
}

}  // namespace

namespace {

void blob_error(const char *text)
{
    key_log_crypto_error();
    error("%s", text);
}

void put_bn_param(Buffer *b, const EVP_PKEY *pkey, const char *param)
{
    BnPtr value = pkey_get_bn(pkey, param);
    if (!value)
        value.reset(BN_new());
    buffer_put_bignum2(b, value.get());
}

// Reads the numbers named by `params` in order and builds a public key.
PkeyPtr read_public_numbers(Buffer *b, const char *type_name, std::initializer_list<const char *> params)
{
    ParamBldPtr builder(OSSL_PARAM_BLD_new());
    std::vector<BnPtr> numbers;
    for (const char *param : params) {
        numbers.emplace_back(BN_new());
        if (!numbers.back())
            return nullptr;
        buffer_get_bignum2(b, numbers.back().get());
        if (!builder || !OSSL_PARAM_BLD_push_BN(builder.get(), param, numbers.back().get()))
            return nullptr;
    }
    return pkey_from_params(type_name, builder.get(), EVP_PKEY_PUBLIC_KEY);
}

KeyPtr read_ecdsa(Buffer *b, const char *name)
{
    KeyPtr key = key_new(KEY_ECDSA);
    key->ecdsa_nid = key_ecdsa_name_to_nid(name);
    key->sigalg = signature_algorithm_by_name(name);
    if (!buffer_string_available(b)) {
        blob_error("key_from_blob_sig: invalid blob format.");
        return nullptr;
    }
    std::string curve = buffer_get_string_text(b);
    if (key_curve_name_to_nid(curve.c_str()) != key->ecdsa_nid) {
        blob_error("key_from_blob_sig: ssh alg identifier does not match blob curve name.");
        return nullptr;
    }
    SecureBytes octets = buffer_string_available(b) ? buffer_get_string(b) : SecureBytes();
    std::string point_id(octets.begin(), octets.end());
    point_id += static_cast<char>(key->ecdsa_nid & 0xff);
    if (PkeyPtr known = decoded_points().find(point_id)) {
        key->pkey = std::move(known);
        return key;
    }
    EcGroupPtr group(EC_GROUP_new_by_curve_name(key->ecdsa_nid));
    if (!group) {
        blob_error("key_from_blob_sig: invalid curve.");
        return nullptr;
    }
    EcPointPtr point(EC_POINT_new(group.get()));
    if (!point) {
        blob_error("key_from_blob_sig: Unable to allocate new EC_POINT.");
        return nullptr;
    }
    if (get_ec_from_blob(octets.data(), octets.size(), point.get(), group.get()) != 0) {
        blob_error("key_from_blob_sig: Unable to decode blob.");
        return nullptr;
    }
    uint8_t encoded[KEY_EC_POINT_MAX];
    size_t encoded_len =
        EC_POINT_point2oct(group.get(), point.get(), POINT_CONVERSION_UNCOMPRESSED, encoded, sizeof encoded, nullptr);
    ParamBldPtr builder(OSSL_PARAM_BLD_new());
    PkeyPtr pkey;
    if (encoded_len > 0 && builder &&
        OSSL_PARAM_BLD_push_utf8_string(builder.get(), OSSL_PKEY_PARAM_GROUP_NAME,
                                        key_curve_nid_to_group(key->ecdsa_nid), 0) &&
        OSSL_PARAM_BLD_push_octet_string(builder.get(), OSSL_PKEY_PARAM_PUB_KEY, encoded, encoded_len))
        pkey = pkey_from_params("EC", builder.get(), EVP_PKEY_PUBLIC_KEY);
    if (!pkey) {
        blob_error("key_from_blob_sig: unable to set the public key.");
        return nullptr;
    }
    PkeyCtxPtr check(EVP_PKEY_CTX_new_from_pkey(nullptr, pkey.get(), nullptr));
    if (!check || EVP_PKEY_public_check(check.get()) != 1) {
        blob_error("key_from_blob_sig: invalid ec value.");
        return nullptr;
    }
    decoded_points().add(point_id, pkey.get());
    key->pkey = std::move(pkey);
    return key;
}

}  // namespace

int get_ec_from_blob(const uint8_t *octets, size_t len, EC_POINT *point, const EC_GROUP *group)
{
    if (len == 0 || len > KEY_EC_POINT_MAX) {
        blob_error("get_ec_from_blob: Point length too large.");
        return KEY_EC_BAD_KEY;
    }
    if (octets[0] != POINT_CONVERSION_UNCOMPRESSED) {
        // Only the uncompressed form travels in key blobs.
        blob_error("get_ec_from_blob: Point conversion is uncompressed.");
        return KEY_EC_BAD_KEY;
    }
    if (!point)
        return 0;
    if (EC_POINT_oct2point(group, point, octets, len, nullptr) != 1) {
        blob_error("get_ec_from_blob: unable to decode point.");
        return KEY_EC_ERROR;
    }
    return 0;
}

int key_eckey_put_buffer(const EVP_PKEY *pkey, Buffer *b)
{
    EcGroupPtr group(EC_GROUP_new_by_curve_name(pkey_ec_curve_nid(pkey)));
    BnCtxPtr bn_ctx(BN_CTX_new());
    if (!bn_ctx) {
        blob_error(" key_eckey_put_buffer: unable to allocate new big number.");
        return KEY_EC_NO_MEMORY;
    }
    SecureBytes held = pkey_ec_public_octets(pkey);
    EcPointPtr point(group ? EC_POINT_new(group.get()) : nullptr);
    if (!point || held.empty() ||
        EC_POINT_oct2point(group.get(), point.get(), held.data(), held.size(), bn_ctx.get()) != 1) {
        blob_error("key_to_blob: Unable to convert point to bytes.");
        return KEY_EC_ERROR;
    }
    size_t len =
        EC_POINT_point2oct(group.get(), point.get(), POINT_CONVERSION_UNCOMPRESSED, nullptr, 0, bn_ctx.get());
    if (len > KEY_EC_POINT_MAX) {
        blob_error(" key_eckey_put_buffer: EC Point > max.");
        return KEY_EC_BAD_KEY;
    }
    uint8_t octets[KEY_EC_POINT_MAX];
    if (len == 0 || EC_POINT_point2oct(group.get(), point.get(), POINT_CONVERSION_UNCOMPRESSED, octets, len,
                                       bn_ctx.get()) != len) {
        blob_error("key_to_blob: Unable to convert point to bytes.");
        return KEY_EC_ERROR;
    }
    buffer_put_string(b, octets, static_cast<uint32_t>(len));
    wipe_memory(octets, sizeof octets);
    return 0;
}

uint32_t key_to_blob(const Key *key, SecureBytes *blobp, uint32_t *lenp, const char *name)
{
    if (!key) {
        error("key_to_blob: key == NULL");
        return 0;
    }
    Buffer b;
    switch (key->type) {
    case KEY_RSA:
        buffer_put_cstring(&b, name);
        put_bn_param(&b, key->pkey.get(), OSSL_PKEY_PARAM_RSA_E);
        put_bn_param(&b, key->pkey.get(), OSSL_PKEY_PARAM_RSA_N);
        break;
    case KEY_DSA:
        buffer_put_cstring(&b, name);
        for (const char *param :
             {OSSL_PKEY_PARAM_FFC_P, OSSL_PKEY_PARAM_FFC_Q, OSSL_PKEY_PARAM_FFC_G, OSSL_PKEY_PARAM_PUB_KEY})
            put_bn_param(&b, key->pkey.get(), param);
        break;
    case KEY_ECDSA: {
        if (!key->pkey || key->ecdsa_nid <= 0) {
            blob_error("key_to_blob: Error, key does not have ecKey params.");
            return KEY_EC_BAD_KEY;
        }
        buffer_put_cstring(&b, name);
        buffer_put_cstring(&b, key_curve_nid_to_name(key->ecdsa_nid));
        // Callers take any result as a length: an EC failure shows in the
        // log only.
        if (int code = key_eckey_put_buffer(key->pkey.get(), &b))
            return static_cast<uint32_t>(code);
        break;
    }
    case KEY_ED25519: {
        SecureBytes point = pkey_ed25519_public_bytes(key->pkey.get());
        if (point.empty()) {
            blob_error("key_to_blob: Ed25519 key without its public key.");
            return 0;
        }
        buffer_put_cstring(&b, name);
        buffer_put_string(&b, point.data(), static_cast<uint32_t>(point.size()));
        break;
    }
    case KEY_X509_RSA:
    case KEY_X509_DSA:
    case KEY_X509_ECDSA:
        if (x509_name_is_rfc6187(name)) {
            SecureBytes blob;
            uint32_t len = 0;
            if (cert_key_hooks().rfc6187_blob(key, &blob, &len, name) <= 0)
                return 0;
            buffer_append(&b, blob.data(), len);
        } else if (!ssh_pki_x509key_to_blob(key, &b)) {
            return 0;
        }
        break;
    default:
        error("key_to_blob: unsupported key type %d", key->type);
        return 0;
    }
    uint32_t len = buffer_len(&b);
    if (blobp)
        blobp->assign(buffer_ptr(&b), buffer_ptr(&b) + len);
    if (lenp)
        *lenp = len;
    return len;
}

KeyPtr key_from_blob(const uint8_t *blob, uint32_t len, const char *plain_cert_name, uint32_t cert_source)
{
    if (KeyPtr cert_key = x509key_from_any_blob(blob, len, plain_cert_name)) {
        cert_key->cert_source = cert_source;
        return cert_key;
    }
    Buffer b;
    if (blob && len)
        buffer_append(&b, blob, len);
    std::string name = buffer_get_string_text(&b);
    int type = key_type_from_name(name.c_str());
    KeyPtr key;
    switch (type) {
    case KEY_RSA:
    case KEY_DSA: {
        PkeyPtr pkey = type == KEY_RSA
                           ? read_public_numbers(&b, "RSA", {OSSL_PKEY_PARAM_RSA_E, OSSL_PKEY_PARAM_RSA_N})
                           : read_public_numbers(&b, "DSA",
                                                 {OSSL_PKEY_PARAM_FFC_P, OSSL_PKEY_PARAM_FFC_Q,
                                                  OSSL_PKEY_PARAM_FFC_G, OSSL_PKEY_PARAM_PUB_KEY});
        if (!pkey) {
            key_log_crypto_error();
            error("key_from_blob: invalid %s key", type == KEY_RSA ? "RSA" : "DSA");
            return nullptr;
        }
        key = key_new(type);
        key->sigalg = signature_algorithm_by_name(name.c_str());
        key->pkey = std::move(pkey);
        break;
    }
    case KEY_ECDSA:
        key = read_ecdsa(&b, name.c_str());
        if (!key)
            return nullptr;
        break;
    case KEY_ED25519: {
        SecureBytes point = buffer_string_available(&b) ? buffer_get_string(&b) : SecureBytes();
        PkeyPtr pkey = pkey_ed25519_from_public(point.data(), point.size());
        if (!pkey) {
            blob_error("key_from_blob: invalid Ed25519 key");
            return nullptr;
        }
        key = key_new(KEY_ED25519);
        key->sigalg = signature_algorithm_by_name(name.c_str());
        key->pkey = std::move(pkey);
        break;
    }
    case KEY_UNSPEC:
        // Callers test the type: an unknown algorithm is not an error here.
        return key_new(KEY_UNSPEC);
    default:
        error("key_from_blob: cannot handle type %s", name.c_str());
        return nullptr;
    }
    if (buffer_len(&b) > 0)
        error("key_from_blob: remaining bytes in key blob %d", static_cast<int>(buffer_len(&b)));
    return key;
}
