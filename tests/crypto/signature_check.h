// Helpers for the signature tests: keys under a chosen algorithm, the blob
// layout taken apart by hand, and OpenSSL's own verifier as the referee.
#pragma once

#include <gtest/gtest.h>

#include <string>

#include <openssl/dsa.h>
#include <openssl/ec.h>
#include <openssl/evp.h>
#include <openssl/rsa.h>

#include "keys/buffer.h"
#include "keys/key.h"
#include "keys/ossl_ptr.h"
#include "support/bytes.h"

inline KeyPtr signing_key(int type, unsigned bits, const char *algorithm = nullptr)
{
    KeyPtr key = key_generate(type, bits);
    if (key && algorithm)
        key->sigalg = signature_algorithm_by_name(algorithm);
    return key;
}

inline Bytes text_bytes(const std::string &text) { return Bytes(text.begin(), text.end()); }

inline void put_string(Bytes *out, const Bytes &value)
{
    uint32_t n = static_cast<uint32_t>(value.size());
    out->insert(out->end(), {uint8_t(n >> 24), uint8_t(n >> 16), uint8_t(n >> 8), uint8_t(n)});
    out->insert(out->end(), value.begin(), value.end());
}

// Reads one string at *pos; fails the test when it is cut short.
inline Bytes take_string(const Bytes &in, size_t *pos)
{
    EXPECT_LE(*pos + 4, in.size());
    if (*pos + 4 > in.size())
        return {};
    uint32_t n = get_u32(in.data() + *pos);
    *pos += 4;
    EXPECT_LE(*pos + n, in.size());
    Bytes value(in.begin() + *pos, in.begin() + std::min(in.size(), *pos + n));
    *pos += n;
    return value;
}

inline Bytes signature_blob(const std::string &name, const Bytes &sig)
{
    Bytes blob;
    put_string(&blob, text_bytes(name));
    put_string(&blob, sig);
    return blob;
}

struct ParsedBlob {
    std::string name;
    Bytes sig;
};

inline ParsedBlob parse_blob(const SecureBytes &blob)
{
    Bytes in(blob.begin(), blob.end());
    size_t pos = 0;
    ParsedBlob parsed;
    Bytes name = take_string(in, &pos);
    parsed.name.assign(name.begin(), name.end());
    parsed.sig = take_string(in, &pos);
    EXPECT_EQ(pos, in.size());
    return parsed;
}

// OpenSSL's one-shot verifier over the data (PKCS #1 v1.5 for RSA).
inline bool openssl_verifies(EVP_PKEY *pkey, const char *md, const Bytes &sig, const Bytes &data)
{
    MdCtxPtr ctx(EVP_MD_CTX_new());
    EVP_PKEY_CTX *pctx = nullptr;
    return EVP_DigestVerifyInit_ex(ctx.get(), &pctx, md, nullptr, nullptr, pkey, nullptr) == 1 &&
           EVP_DigestVerify(ctx.get(), sig.data(), sig.size(), data.data(), data.size()) == 1;
}

// OpenSSL's one-shot signer; DER for DSA and ECDSA.
inline Bytes openssl_sign(EVP_PKEY *pkey, const char *md, const Bytes &data)
{
    MdCtxPtr ctx(EVP_MD_CTX_new());
    size_t len = 0;
    if (EVP_DigestSignInit_ex(ctx.get(), nullptr, md, nullptr, nullptr, pkey, nullptr) != 1 ||
        EVP_DigestSign(ctx.get(), nullptr, &len, data.data(), data.size()) != 1)
        return {};
    Bytes sig(len);
    EVP_DigestSign(ctx.get(), sig.data(), &len, data.data(), data.size());
    sig.resize(len);
    return sig;
}

// DER of a DSA-Sig-Value / ECDSA-Sig-Value from big-endian r and s.
inline Bytes der_from_rs(const Bytes &r, const Bytes &s)
{
    ECDSA_SIG *sig = ECDSA_SIG_new();
    ECDSA_SIG_set0(sig, BN_bin2bn(r.data(), int(r.size()), nullptr), BN_bin2bn(s.data(), int(s.size()), nullptr));
    unsigned char *der = nullptr;
    int len = i2d_ECDSA_SIG(sig, &der);
    Bytes out(der, der + std::max(len, 0));
    OPENSSL_free(der);
    ECDSA_SIG_free(sig);
    return out;
}

// Big-endian r and s of a DER signature, each padded to `width` bytes.
inline void rs_from_der(const Bytes &der, int width, Bytes *r, Bytes *s)
{
    const unsigned char *p = der.data();
    ECDSA_SIG *sig = d2i_ECDSA_SIG(nullptr, &p, long(der.size()));
    ASSERT_NE(sig, nullptr);
    r->assign(width, 0);
    s->assign(width, 0);
    BN_bn2binpad(ECDSA_SIG_get0_r(sig), r->data(), width);
    BN_bn2binpad(ECDSA_SIG_get0_s(sig), s->data(), width);
    ECDSA_SIG_free(sig);
}

// A signature string in SSH form, made from OpenSSL's own signature.
// `form`: "rsa" and "ed" as they are, "raw" (DSA r||s of 40 bytes) or
// "mpint" (ECDSA: r, s as strings of `width` bytes).
inline Bytes ssh_form(const Bytes &openssl_signature, const std::string &form, int width)
{
    if (form == "rsa" || form == "ed")
        return openssl_signature;
    Bytes r, s, out;
    rs_from_der(openssl_signature, form == "raw" ? 20 : width, &r, &s);
    if (form == "raw") {
        r.insert(r.end(), s.begin(), s.end());
        return r;
    }
    put_string(&out, r);
    put_string(&out, s);
    return out;
}

// OpenSSL alone checks a signature blob against the public key, whatever
// layout the signature string has (see ssh_form).
inline void expect_verifies(const SecureBytes &blob, EVP_PKEY *pub, const char *name, const char *md,
                            const std::string &form, const Bytes &data)
{
    ParsedBlob parsed = parse_blob(blob);
    EXPECT_EQ(parsed.name, name);
    Bytes sig = parsed.sig;
    if (form == "raw") {
        ASSERT_EQ(sig.size(), 40u);
        sig = der_from_rs(Bytes(sig.begin(), sig.begin() + 20), Bytes(sig.begin() + 20, sig.end()));
    } else if (form == "mpint") {
        size_t pos = 0;
        Bytes r = take_string(parsed.sig, &pos), s = take_string(parsed.sig, &pos);
        sig = der_from_rs(r, s);
    } else if (form == "rsa") {
        EXPECT_EQ(sig.size(), static_cast<size_t>(EVP_PKEY_get_size(pub)));
    } else if (form == "ed") {
        EXPECT_EQ(sig.size(), 64u);
    }
    EXPECT_TRUE(openssl_verifies(pub, md, sig, data)) << name << " " << (md ? md : "");
}
