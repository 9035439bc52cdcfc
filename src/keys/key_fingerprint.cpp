#include "keys/key_fingerprint.h"

#include <openssl/evp.h>

#include "keys/key_blob.h"
#include "log/log.h"
#include "platform/platform.h"

namespace {

MdPtr fetch_fingerprint_digest(int digest_type)
{
    switch (digest_type) {
    case SSH_FP_SHA1: return MdPtr(EVP_MD_fetch(nullptr, "SHA1", nullptr));
    // MD5 fingerprints stay available under the FIPS rules: they identify
    // keys, they do not protect anything.
    case SSH_FP_MD5: return MdPtr(EVP_MD_fetch(nullptr, "MD5", "fips=no"));
    case SSH_FP_SHA256: return MdPtr(EVP_MD_fetch(nullptr, "SHA2-256", nullptr));
    default: fatal("key_fingerprint_raw: bad digest type %d", digest_type);
    }
}

}  // namespace

SecureBytes key_fingerprint_raw(const Key *key, int digest_type)
{
    MdPtr md = fetch_fingerprint_digest(digest_type);
    if (key->type == KEY_UNSPEC)
        return {};
    if (key->type < KEY_RSA || (key->type > KEY_X509_ECDSA && key->type != KEY_ED25519))
        fatal("key_fingerprint_raw: bad key type %d", key->type);
    SecureBytes blob;
    uint32_t len = 0;
    key_to_blob(key, &blob, &len, key_blob_type_name(key));
    if (blob.empty())
        fatal("key_fingerprint_raw: blob is null");
    SecureBytes digest(EVP_MAX_MD_SIZE);
    unsigned digest_len = 0;
    MdCtxPtr ctx(EVP_MD_CTX_new());
    if (!md || !ctx || !EVP_DigestInit_ex(ctx.get(), md.get(), nullptr) ||
        !EVP_DigestUpdate(ctx.get(), blob.data(), len) || !EVP_DigestFinal_ex(ctx.get(), digest.data(), &digest_len))
        fatal("key_fingerprint_raw: blob is null");
    digest.resize(digest_len);
    return digest;
}

std::string fingerprint_hex(const uint8_t *data, size_t len)
{
    static const char digits[] = "0123456789abcdef";
    std::string text;
    for (size_t i = 0; i < len; ++i) {
        if (i)
            text += ':';
        text += digits[data[i] >> 4];
        text += digits[data[i] & 15];
    }
    return text;
}

std::string fingerprint_bubblebabble(const uint8_t *data, size_t len)
{
    static const char vowels[] = "aeiouy";
    static const char consonants[] = "bcdfghklmnprstvzx";
    size_t rounds = len / 2 + 1;
    unsigned seed = 1;
    std::string text = "x";
    for (size_t i = 0; i < rounds; ++i) {
        if (i + 1 < rounds || len % 2 != 0) {
            unsigned b0 = data[2 * i];
            text += vowels[(((b0 >> 6) & 3) + seed) % 6];
            text += consonants[(b0 >> 2) & 15];
            text += vowels[((b0 & 3) + seed / 6) % 6];
            if (i + 1 < rounds) {
                unsigned b1 = data[2 * i + 1];
                text += consonants[(b1 >> 4) & 15];
                text += '-';
                text += consonants[b1 & 15];
                seed = (seed * 5 + b0 * 7 + b1) % 36;
            }
        } else {
            text += vowels[seed % 6];
            text += consonants[16];
            text += vowels[seed / 6];
        }
    }
    text += 'x';
    return text;
}

std::string fingerprint_base64(const uint8_t *data, size_t len)
{
    std::string text(4 * ((len + 2) / 3) + 1, '\0');
    int n = EVP_EncodeBlock(reinterpret_cast<unsigned char *>(text.data()), data, static_cast<int>(len));
    if (n < 0)
        return {};
    text.resize(static_cast<size_t>(n));
    while (!text.empty() && text.back() == '=')
        text.pop_back();
    return text;
}

std::string key_fingerprint(const Key *key, int digest_type, int representation)
{
    SecureBytes raw = key_fingerprint_raw(key, digest_type);
    if (raw.empty())
        fatal("key_fingerprint: null from key_fingerprint_raw()");
    switch (representation) {
    case SSH_FP_HEX: return fingerprint_hex(raw.data(), raw.size());
    case SSH_FP_BUBBLEBABBLE: return fingerprint_bubblebabble(raw.data(), raw.size());
    case SSH_FP_BASE64: return fingerprint_base64(raw.data(), raw.size());
    default: fatal("key_fingerprint_ex: bad digest representation %d", representation);
    }
}

unsigned key_size(const Key *key)
{
    if (!key || !key->pkey)
        return 0;
    // The library counts 253 bits for Ed25519; SSH tools and key names say 256.
    if (EVP_PKEY_get_base_id(key->pkey.get()) == EVP_PKEY_ED25519)
        return 256;
    int bits = EVP_PKEY_get_bits(key->pkey.get());
    return bits > 0 ? static_cast<unsigned>(bits) : 0;
}

std::string user_at_host() { return platform_user_name() + "@" + platform_host_name(); }

std::string key_description(const Key *key)
{
    char text[1024];
    if (key->cert_source != CERT_SOURCE_NONE) {
        char subject[512] = "";
        if (key->cert)
            X509_NAME_oneline(X509_get_subject_name(key->cert.get()), subject, sizeof subject);
        snprintf(text, sizeof text, "%u-bit, X.509 name: \"%s\"", key_size(key), subject);
        return text;
    }
    std::string user = user_at_host();
    switch (key->type) {
    case KEY_RSA:
    case KEY_DSA:
    case KEY_X509_RSA:
    case KEY_X509_DSA:
    case KEY_ED25519: snprintf(text, sizeof text, "%u-bit %s, %s", key_size(key), key_type(key), user.c_str()); break;
    case KEY_ECDSA:
    case KEY_X509_ECDSA: snprintf(text, sizeof text, "%s P%u, %s", key_type(key), key_size(key), user.c_str()); break;
    default: return {};
    }
    return text;
}
