#include "keys/secsh_private_key.h"

#include <memory>
#include <string>

#include <openssl/bn.h>
#include <openssl/core_names.h>
#include <openssl/ec.h>
#include <openssl/obj_mac.h>

#include "keys/buffer.h"
#include "keys/key.h"
#include "keys/ossl_ptr.h"
#include "keys/private_key_material.h"
#include "log/log.h"

namespace {

using Bignum = BnPtr;

// This format's integers: a 32-bit bit count, then the magnitude bytes.
Bignum get_bits_bignum(Buffer *b, bool *ok)
{
    uint32_t bits = buffer_get_int(b);
    uint32_t bytes = (bits + 7) / 8;
    Bignum value(BN_secure_new());
    if (bytes > BUFFER_MAX_BIGNUM_BYTES || buffer_len(b) < bytes) {
        *ok = false;
        return value;
    }
    BN_bin2bn(buffer_ptr(b), static_cast<int>(bytes), value.get());
    buffer_consume(b, bytes);
    return value;
}

EVP_PKEY *decode_rsa(Buffer *b)
{
    bool ok = true;
    Bignum e = get_bits_bignum(b, &ok), d = get_bits_bignum(b, &ok), n = get_bits_bignum(b, &ok);
    Bignum u = get_bits_bignum(b, &ok), p = get_bits_bignum(b, &ok), q = get_bits_bignum(b, &ok);
    if (!ok)
        return nullptr;
    // The stored coefficient follows another convention; compute q^-1 mod p.
    BnCtxPtr ctx(BN_CTX_secure_new());
    Bignum iqmp(BN_secure_new());
    if (!ctx || !BN_mod_inverse(iqmp.get(), q.get(), p.get(), ctx.get()))
        return nullptr;
    return rsa_private_from_numbers(n.get(), e.get(), d.get(), iqmp.get(), p.get(), q.get());
}

EVP_PKEY *decode_dsa(Buffer *b)
{
    bool ok = buffer_get_int(b) == 0;  // a zero word precedes the numbers
    Bignum p = get_bits_bignum(b, &ok), g = get_bits_bignum(b, &ok), q = get_bits_bignum(b, &ok);
    Bignum y = get_bits_bignum(b, &ok), x = get_bits_bignum(b, &ok);
    if (!ok)
        return nullptr;
    return dsa_private_from_numbers(p.get(), q.get(), g.get(), y.get(), x.get());
}


// ECDSA keys carry the curve name and the private scalar; the public
// point is computed from them.
EVP_PKEY *decode_ecdsa(Buffer *b, int *nid)
{
    bool ok = true;
    *nid = key_curve_name_to_nid(buffer_get_string_text(b).c_str());
    Bignum scalar = get_bits_bignum(b, &ok);
    if (!ok || *nid < 0)
        return nullptr;
    EcGroupPtr group(EC_GROUP_new_by_curve_name(*nid));
    EcPointPtr point(group ? EC_POINT_new(group.get()) : nullptr);
    BnCtxPtr ctx(BN_CTX_secure_new());
    if (!point || !ctx || !EC_POINT_mul(group.get(), point.get(), scalar.get(), nullptr, nullptr, ctx.get()))
        return nullptr;
    uint8_t octets[133];
    size_t len = EC_POINT_point2oct(group.get(), point.get(), POINT_CONVERSION_UNCOMPRESSED, octets, sizeof octets,
                                    ctx.get());
    if (len == 0)
        return nullptr;
    return ecdsa_private_from_numbers(*nid, octets, len, scalar.get());
}

}  // namespace

bool secsh_private_key_decode(const uint8_t *blob, size_t len, SecshPrivateKey *out)
{
    Buffer b;
    if (len < 8 || len > BUFFER_MAX_CHUNK) {
        error("secsh_private_key_decode: blob of %zu bytes is not a private key", len);
        return false;
    }
    buffer_append(&b, blob, static_cast<uint32_t>(len));
    if (buffer_get_int(&b) != SECSH_PRIVATE_KEY_MAGIC) {
        error("secsh_private_key_decode: bad magic number");
        return false;
    }
    uint32_t total = buffer_get_int(&b);
    if (total > len) {
        error("secsh_private_key_decode: blob is shorter (%zu) than its length field (%u)", len, total);
        return false;
    }
    std::string key_type = buffer_get_string_text(&b);
    std::string cipher = buffer_get_string_text(&b);
    if (cipher != "none") {
        error("secsh_private_key_decode: encrypted key (cipher %s) not supported", cipher.c_str());
        return false;
    }
    uint32_t body_len = 0;
    SecureBytes body = buffer_get_string(&b, &body_len);
    Buffer data;
    buffer_append(&data, body.data(), body_len);
    uint32_t inner = buffer_get_int(&data);
    if (inner > buffer_len(&data)) {
        error("secsh_private_key_decode: key data truncated");
        return false;
    }

    out->ecdsa_nid = -1;
    if (key_type.rfind("if-modn{sign{rsa", 0) == 0) {
        out->type = 1;
        out->pkey = decode_rsa(&data);
    } else if (key_type.rfind("dl-modp{sign{dsa", 0) == 0) {
        out->type = 2;
        out->pkey = decode_dsa(&data);
    } else if (key_type.rfind("ec-modp", 0) == 0 || key_type.rfind("ecdsa-sha2-", 0) == 0) {
        out->type = 5;
        out->pkey = decode_ecdsa(&data, &out->ecdsa_nid);
    } else {
        error("secsh_private_key_decode: unsupported key type %s", key_type.c_str());
        return false;
    }
    if (out->pkey == nullptr) {
        error("secsh_private_key_decode: invalid %s key", key_type.c_str());
        return false;
    }
    return true;
}
