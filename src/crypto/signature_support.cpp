#include "crypto/signature_support.h"

#include <openssl/err.h>
#include <openssl/rsa.h>

#include "keys/buffer.h"
#include "keys/ossl_ptr.h"

const SignatureAlgorithm *key_signature_row(const Key *key)
{
    if (!key)
        return nullptr;
    if (key->sigalg)
        return key->sigalg;
    return signature_algorithm_by_name(key_ssh_name(key));
}

void overwrite_memory(void *data, size_t size, uint8_t value)
{
    volatile uint8_t *p = static_cast<volatile uint8_t *>(data);
    for (size_t i = 0; i < size; ++i)
        p[i] = value;
}

bool signature_digest(const EVP_MD *md, const uint8_t *data, size_t datalen, SignatureDigest *digest)
{
    MdCtxPtr ctx(EVP_MD_CTX_new());
    return ctx && EVP_DigestInit_ex(ctx.get(), md, nullptr) == 1 && EVP_DigestUpdate(ctx.get(), data, datalen) == 1 &&
           EVP_DigestFinal_ex(ctx.get(), digest->bytes, &digest->len) == 1;
}

std::string crypto_error_text()
{
    unsigned long code = ERR_get_error();
    ERR_clear_error();
    if (!code)
        return "unknown error";
    char text[256];
    ERR_error_string_n(code, text, sizeof text);
    return text;
}

bool pkey_sign_digest(EVP_PKEY *pkey, const EVP_MD *md, int rsa_padding, const SignatureDigest &digest, uint8_t *sig,
                      size_t *siglen)
{
    PkeyCtxPtr ctx(EVP_PKEY_CTX_new_from_pkey(nullptr, pkey, nullptr));
    return ctx && EVP_PKEY_sign_init(ctx.get()) > 0 &&
           (!rsa_padding || EVP_PKEY_CTX_set_rsa_padding(ctx.get(), rsa_padding) > 0) &&
           EVP_PKEY_CTX_set_signature_md(ctx.get(), md) > 0 &&
           EVP_PKEY_sign(ctx.get(), sig, siglen, digest.bytes, digest.len) > 0;
}

int pkey_verify_digest(EVP_PKEY *pkey, const EVP_MD *md, const SignatureDigest &digest, const uint8_t *sig,
                       size_t siglen)
{
    PkeyCtxPtr ctx(EVP_PKEY_CTX_new_from_pkey(nullptr, pkey, nullptr));
    int ok = ctx && EVP_PKEY_verify_init(ctx.get()) == 1 && EVP_PKEY_CTX_set_signature_md(ctx.get(), md) > 0 &&
             EVP_PKEY_verify(ctx.get(), sig, siglen, digest.bytes, digest.len) == 1;
    // A refused signature leaves errors behind that belong to no failure of
    // the program.
    ERR_clear_error();
    return ok ? 1 : 0;
}

void signature_blob_make(const char *name, const uint8_t *sig, size_t siglen, SecureBytes *blob)
{
    Buffer b;
    buffer_put_cstring(&b, name);
    buffer_put_string(&b, sig, static_cast<uint32_t>(siglen));
    blob->assign(buffer_ptr(&b), buffer_ptr(&b) + buffer_len(&b));
}

SignatureBlob signature_blob_parse(const uint8_t *blob, size_t len)
{
    SignatureBlob parsed;
    Buffer b;
    buffer_append(&b, blob, static_cast<uint32_t>(len));
    if (buffer_string_available(&b)) {
        parsed.has_type = true;
        parsed.type = buffer_get_string_text(&b);
        if (buffer_string_available(&b)) {
            parsed.has_signature = true;
            parsed.signature = buffer_get_string(&b);
        }
    }
    parsed.remaining = buffer_len(&b);
    return parsed;
}
