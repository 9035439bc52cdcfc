// Helpers for the signature tests: the blob layout taken apart by hand, and
// OpenSSL's own verifier as the referee.
#pragma once

#include <gtest/gtest.h>

#include <string>

#include <openssl/ec.h>
#include <openssl/evp.h>

#include "keys/buffer.h"
#include "keys/key.h"
#include "keys/ossl_ptr.h"
#include "support/requests.h"

using EcdsaSigPtr = OsslPtr<ECDSA_SIG, ECDSA_SIG_free>;

inline Bytes text_bytes(const std::string &text) { return Bytes(text.begin(), text.end()); }

// The strings of `in` in order; fails the test when one is cut short or
// bytes are left over.
inline std::vector<Bytes> strings_of(const Bytes &in)
{
    std::vector<Bytes> out;
    for (size_t pos = 0; pos < in.size();) {
        uint32_t n = pos + 4 <= in.size() ? get_u32(in.data() + pos) : UINT32_MAX;
        if (n > in.size() - pos - 4)
            return ADD_FAILURE() << "string cut short at " << pos, out;
        out.emplace_back(in.begin() + long(pos + 4), in.begin() + long(pos + 4 + n));
        pos += 4 + n;
    }
    return out;
}

inline Bytes signature_blob(const std::string &name, const Bytes &sig)
{
    Buffer b;
    buffer_put_cstring(&b, name.c_str());
    put_bytes(&b, sig);
    return buffer_bytes(b);
}

struct ParsedBlob {
    std::string name;
    Bytes sig;
};

inline ParsedBlob parse_blob(const SecureBytes &blob)
{
    std::vector<Bytes> parts = strings_of(Bytes(blob.begin(), blob.end()));
    EXPECT_EQ(parts.size(), 2u);
    parts.resize(2);
    return {std::string(parts[0].begin(), parts[0].end()), parts[1]};
}

// OpenSSL's one-shot verifier over the data (PKCS #1 v1.5 for RSA).
inline bool openssl_verifies(EVP_PKEY *pkey, const char *md, const Bytes &sig, const Bytes &data)
{
    MdCtxPtr ctx(EVP_MD_CTX_new());
    return EVP_DigestVerifyInit_ex(ctx.get(), nullptr, md, nullptr, nullptr, pkey, nullptr) == 1 &&
           EVP_DigestVerify(ctx.get(), sig.data(), sig.size(), data.data(), data.size()) == 1;
}

// The DER signature OpenSSL checks, from a DSA (r||s of 40 bytes: "raw") or
// ECDSA (r, s as strings: "mpint") one; others as they are.
inline Bytes der_form(const Bytes &ssh_signature, const std::string &form)
{
    std::vector<Bytes> rs = form == "mpint" ? strings_of(ssh_signature) : std::vector<Bytes>();
    if (form == "raw" && ssh_signature.size() == 40)
        rs = {Bytes(ssh_signature.begin(), ssh_signature.begin() + 20),
              Bytes(ssh_signature.begin() + 20, ssh_signature.end())};
    if (rs.size() != 2)
        return ssh_signature;
    EcdsaSigPtr sig(ECDSA_SIG_new());
    ECDSA_SIG_set0(sig.get(), BN_bin2bn(rs[0].data(), int(rs[0].size()), nullptr),
                   BN_bin2bn(rs[1].data(), int(rs[1].size()), nullptr));
    Bytes out(static_cast<size_t>(std::max(i2d_ECDSA_SIG(sig.get(), nullptr), 0)));
    unsigned char *p = out.data();
    i2d_ECDSA_SIG(sig.get(), &p);
    return out;
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
