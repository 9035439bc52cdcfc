#include "crypto/private_key_pem.h"

#include <cstring>
#include <string_view>

#include <openssl/bio.h>
#include <openssl/decoder.h>
#include <openssl/err.h>
#include <openssl/pem.h>

#include "crypto/crypto_module.h"
#include "keys/key_material.h"
#include "log/log.h"

namespace {

// Hands the password to the library; never prompts, unlike its default.
int password_callback(char *buf, int size, int, void *password)
{
    const char *text = static_cast<const char *>(password);
    size_t len = strlen(text);
    if (len > static_cast<size_t>(size))
        return -1;
    memcpy(buf, text, len);
    return static_cast<int>(len);
}

// Start of the line after `at` (or `len`).
size_t next_line(std::string_view text, size_t at)
{
    size_t feed = text.find('\n', at);
    return feed == std::string_view::npos ? text.size() : feed + 1;
}

// The first line at or after `from` that starts with `prefix`.
size_t find_line(std::string_view text, size_t from, std::string_view prefix)
{
    for (size_t at = from; at < text.size(); at = next_line(text, at))
        if (text.substr(at, prefix.size()) == prefix)
            return at;
    return std::string_view::npos;
}

int key_type_of(const EVP_PKEY *pkey, int *nid)
{
    *nid = -1;
    switch (EVP_PKEY_get_base_id(pkey)) {
    case EVP_PKEY_RSA: return KEY_RSA;
    case EVP_PKEY_DSA: return KEY_DSA;
    case EVP_PKEY_EC:
        *nid = pkey_ec_curve_nid(pkey);
        return key_ecdsa_nid_to_bits(*nid) > 0 ? KEY_ECDSA : KEY_UNSPEC;
    case EVP_PKEY_ED25519: return KEY_ED25519;
    default: return KEY_UNSPEC;
    }
}

}  // namespace

bool private_key_pem_write(const Key *key, const char *password, SecretString *pem)
{
    pem->wipe();
    bool plain = key && (key->type == KEY_RSA || key->type == KEY_DSA || key->type == KEY_ECDSA ||
                         key->type == KEY_ED25519);
    if (!plain || !key->pkey) {
        error("private_key_pem_write: no private key to write");
        return false;
    }
    const char *secret = password ? password : "";
    size_t secret_len = strlen(secret);
    BioPtr bio(BIO_new(BIO_s_mem()));
    int written = 0;
    {
        FipsPropertyGuard guard;
        // The library refuses a key without its private half here.
        written = bio ? PEM_write_bio_PrivateKey(bio.get(), key->pkey.get(), secret_len ? EVP_aes_256_cbc() : nullptr,
                                                 reinterpret_cast<const unsigned char *>(secret),
                                                 static_cast<int>(secret_len), nullptr, nullptr)
                      : 0;
    }
    if (written != 1) {
        key_log_crypto_error();
        ERR_clear_error();
        error("private_key_pem_write: cannot write the private key");
        return false;
    }
    // The memory BIO clears its buffer when it is freed.
    char *data = nullptr;
    long len = BIO_get_mem_data(bio.get(), &data);
    pem->assign(data, static_cast<size_t>(len));
    return true;
}

namespace {

// Cuts the block out of `text` so that exactly it is consumed, whatever the
// library would read ahead. False when there is no whole block.
bool cut_block(const char *text, size_t len, size_t *consumed, size_t *block_start, size_t *begin)
{
    std::string_view view(text, len);
    *begin = find_line(view, 0, "-----BEGIN ");
    size_t end = *begin == std::string_view::npos ? len : find_line(view, next_line(view, *begin), "-----END ");
    *consumed = end == std::string_view::npos || end >= len ? len : next_line(view, end);
    if (block_start)
        *block_start = *begin == std::string_view::npos ? len : *begin;
    return *begin != std::string_view::npos && end != std::string_view::npos;
}

KeyPtr key_from_pkey(PkeyPtr pkey)
{
    int nid = -1;
    int type = key_type_of(pkey.get(), &nid);
    if (type == KEY_UNSPEC) {
        debug3("private_key_pem_read: unsupported key type");
        return nullptr;
    }
    KeyPtr key = key_new(type);
    key->pkey = std::move(pkey);
    key->ecdsa_nid = nid;
    return key;
}

}  // namespace

KeyPtr private_key_pem_read(const char *text, size_t len, const char *password, size_t *consumed,
                            size_t *block_start)
{
    size_t begin = 0;
    if (!cut_block(text, len, consumed, block_start, &begin))
        return nullptr;
    BioPtr bio(BIO_new_mem_buf(text + begin, static_cast<int>(*consumed - begin)));
    if (!bio)
        return nullptr;
    EVP_PKEY *read = nullptr;
    {
        FipsPropertyGuard guard;
        read = PEM_read_bio_PrivateKey(bio.get(), nullptr, password_callback,
                                       const_cast<char *>(password ? password : ""));
    }
    PkeyPtr pkey(read);
    if (!pkey) {
        key_log_crypto_error();
        ERR_clear_error();
        debug3("private_key_pem_read: no private key could be read");
        return nullptr;
    }
    return key_from_pkey(std::move(pkey));
}

static_assert(PRIVATE_KEY_PEM_PASSWORD_MAX == PEM_BUFSIZE, "the library's password callback buffer");

PemKeyReader::PemKeyReader(const char *password) : password_(password ? password : "")
{
    // The library takes at most this much from a password callback.
    if (password_.size() > PRIVATE_KEY_PEM_PASSWORD_MAX)
        return;
    FipsPropertyGuard guard;
    decoder_ = OSSL_DECODER_CTX_new_for_pkey(&decoded_, "PEM", nullptr, nullptr, EVP_PKEY_KEYPAIR, nullptr, nullptr);
    if (decoder_ && OSSL_DECODER_CTX_get_num_decoders(decoder_) > 0 &&
        OSSL_DECODER_CTX_set_passphrase(decoder_, reinterpret_cast<const unsigned char *>(password_.data()),
                                        password_.size()) == 1)
        return;
    OSSL_DECODER_CTX_free(decoder_);
    decoder_ = nullptr;
    ERR_clear_error();
}

PemKeyReader::~PemKeyReader()
{
    OSSL_DECODER_CTX_free(decoder_);
    EVP_PKEY_free(decoded_);
}

KeyPtr PemKeyReader::read(const char *text, size_t len, size_t *consumed, size_t *block_start)
{
    size_t begin = 0;
    if (decoder_ && cut_block(text, len, consumed, block_start, &begin)) {
        const unsigned char *data = reinterpret_cast<const unsigned char *>(text + begin);
        size_t left = *consumed - begin;
        EVP_PKEY_free(decoded_);
        decoded_ = nullptr;
        ERR_set_mark();
        bool ok = false;
        {
            FipsPropertyGuard guard;
            ok = OSSL_DECODER_from_data(decoder_, &data, &left) == 1 && decoded_ != nullptr;
        }
        ERR_pop_to_mark();
        if (ok) {
            PkeyPtr pkey(decoded_);
            decoded_ = nullptr;
            return key_from_pkey(std::move(pkey));
        }
    }
    // Whatever the quick way could not read goes the usual way, which
    // reports why.
    return private_key_pem_read(text, len, password_.c_str(), consumed, block_start);
}
