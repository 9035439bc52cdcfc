// OpenSSL alone checks a certificate identity's signature blob against the
// certificate's public key, whatever layout the signature string has.
#pragma once

#include "crypto/signature_check.h"

// `form`: "rsa" (as long as the modulus), "raw" (DSA r||s of 40 bytes),
// "der" (DER DSA-Sig-Value) or "mpint" (ECDSA: mpint r, mpint s).
inline void expect_verifies(const SecureBytes &blob, EVP_PKEY *pub, const char *name, const char *md,
                            const std::string &form, const Bytes &data)
{
    ParsedBlob parsed = parse_blob(blob);
    EXPECT_EQ(parsed.name, name);
    Bytes sig = parsed.sig;
    if (form == "raw") {
        ASSERT_EQ(sig.size(), 40u);
        sig = der_from_rs(Bytes(parsed.sig.begin(), parsed.sig.begin() + 20), Bytes(parsed.sig.begin() + 20, parsed.sig.end()));
    } else if (form == "mpint") {
        size_t pos = 0;
        Bytes r = take_string(parsed.sig, &pos), s = take_string(parsed.sig, &pos);
        sig = der_from_rs(r, s);
    } else if (form == "rsa") {
        EXPECT_EQ(sig.size(), static_cast<size_t>(EVP_PKEY_get_size(pub)));
    }
    EXPECT_TRUE(openssl_verifies(pub, md, sig, data)) << name << " " << md;
}
