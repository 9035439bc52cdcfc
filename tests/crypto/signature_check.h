// Helpers for the signature tests: the blob layout taken apart by hand, and
// OpenSSL's own signer and verifier as the referee.
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

inline Bytes text_bytes(const std::string &text) { return Bytes(text.begin(), text.end()); }

inline void put_string(Bytes *out, const Bytes &value)
{
    Bytes length = frame(value);
    out->insert(out->end(), length.begin(), length.end());
}

// Reads one string at *pos; fails the test when it is cut short.
inline Bytes take_string(const Bytes &in, size_t *pos)
{
    uint32_t n = *pos + 4 <= in.size() ? get_u32(in.data() + *pos) : 0;
    EXPECT_LE(*pos + 4 + n, in.size());
    if (*pos + 4 + n > in.size())
        return *pos = in.size(), Bytes();
    *pos += 4 + n;
    return Bytes(in.begin() + static_cast<long>(*pos - n), in.begin() + static_cast<long>(*pos));
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
    Bytes name = take_string(in, &pos);
    ParsedBlob parsed{std::string(name.begin(), name.end()), take_string(in, &pos)};
    EXPECT_EQ(pos, in.size());
    return parsed;
}

// OpenSSL's one-shot verifier over the data (PKCS #1 v1.5 for RSA).
inline bool openssl_verifies(EVP_PKEY *pkey, const char *md, const Bytes &sig, const Bytes &data)
{
    MdCtxPtr ctx(EVP_MD_CTX_new());
    return EVP_DigestVerifyInit_ex(ctx.get(), nullptr, md, nullptr, nullptr, pkey, nullptr) == 1 &&
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

// A signature string in SSH form made from OpenSSL's own signature, or the
// other way round. `form`: "rsa" and "ed" as they are, "raw" (DSA r||s of
// 40 bytes) or "mpint" (ECDSA: r, s as strings, of `width` bytes each).
inline Bytes ssh_form(const Bytes &openssl_signature, const std::string &form, int width)
{
    if (form == "rsa" || form == "ed")
        return openssl_signature;
    Bytes r, s, out;
    rs_from_der(openssl_signature, form == "raw" ? 20 : width, &r, &s);
    if (form == "raw")
        return r.insert(r.end(), s.begin(), s.end()), r;
    put_string(&out, r);
    put_string(&out, s);
    return out;
}

inline Bytes der_form(const Bytes &ssh_signature, const std::string &form)
{
    size_t pos = 0;
    if (form == "raw" && ssh_signature.size() == 40)
        return der_from_rs(Bytes(ssh_signature.begin(), ssh_signature.begin() + 20),
                           Bytes(ssh_signature.begin() + 20, ssh_signature.end()));
    if (form == "mpint") {
        Bytes r = take_string(ssh_signature, &pos);
        return der_from_rs(r, take_string(ssh_signature, &pos));
    }
    return ssh_signature;
}

// OpenSSL alone checks a signature blob against the public key.
inline void expect_verifies(const SecureBytes &blob, EVP_PKEY *pub, const char *name, const char *md,
                            const std::string &form, const Bytes &data)
{
    ParsedBlob parsed = parse_blob(blob);
    EXPECT_EQ(parsed.name, name);
    size_t size = form == "raw" ? 40 : form == "ed" ? 64 : form == "rsa" ? EVP_PKEY_get_size(pub) : parsed.sig.size();
    EXPECT_EQ(parsed.sig.size(), size);
    EXPECT_TRUE(openssl_verifies(pub, md, der_form(parsed.sig, form), data)) << name << " " << (md ? md : "");
}
