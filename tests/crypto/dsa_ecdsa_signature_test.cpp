#include <gtest/gtest.h>

#include "crypto/dsa_signature.h"
#include "crypto/ecdsa_signature.h"
#include "crypto/signature_check.h"
#include "support/fips_environment.h"
#include "support/log_capture.h"

namespace {

const Bytes DATA = text_bytes("data to be signed");

const Key *dsa_key()
{
    static KeyPtr key = signing_key(KEY_DSA, 1024);
    return key.get();
}

int dss_verify(const Bytes &blob, const Bytes &data = DATA)
{
    return ssh_dss_verify(dsa_key(), blob.data(), blob.size(), data.data(), data.size(), 0);
}

int ecdsa_verify(const Key *key, const Bytes &blob, const Bytes &data = DATA)
{
    return ssh_ecdsa_verify(key, blob.data(), blob.size(), data.data(), data.size(), 0);
}

// The mpints r and s of an ECDSA signature string, as DER.
Bytes ecdsa_inner_to_der(const Bytes &inner)
{
    size_t pos = 0;
    Bytes r = take_string(inner, &pos);
    Bytes s = take_string(inner, &pos);
    EXPECT_EQ(pos, inner.size());
    return der_from_rs(r, s);
}

Bytes ecdsa_inner(const Bytes &r, const Bytes &s)
{
    Bytes inner;
    put_string(&inner, r);
    put_string(&inner, s);
    return inner;
}

}  // namespace

TEST(DsaSignature, SignsAndVerifies)
{
    LogCapture log;
    SecureBytes made;
    ASSERT_EQ(ssh_dss_sign(dsa_key(), &made, DATA.data(), DATA.size(), 1), 0) << ::testing::PrintToString(log.lines());
    EXPECT_TRUE(log.contains("creating signature using DSA with SHA1 ASN1 hash (ignoring the setting DSA signature type "
                             "for user keys)."));
    ParsedBlob blob = parse_blob(made);
    EXPECT_EQ(blob.name, "ssh-dss");
    ASSERT_EQ(blob.sig.size(), SIGBLOB_LEN);
    Bytes r(blob.sig.begin(), blob.sig.begin() + 20), s(blob.sig.begin() + 20, blob.sig.end());
    EXPECT_TRUE(openssl_verifies(dsa_key()->pkey.get(), "SHA1", der_from_rs(r, s), DATA));

    EXPECT_EQ(dss_verify(signature_blob("ssh-dss", blob.sig)), 1);
    EXPECT_TRUE(log.contains("ssh_dss_verify: signature correct"));
    EXPECT_EQ(dss_verify(signature_blob("ssh-dss", blob.sig), text_bytes("other")), 0);
    EXPECT_TRUE(log.contains("ssh_dss_verify: signature incorrect"));
    // OpenSSL's own signature, cut into its 20-byte halves, is accepted.
    rs_from_der(openssl_sign(dsa_key()->pkey.get(), "SHA1", DATA), 20, &r, &s);
    r.insert(r.end(), s.begin(), s.end());
    EXPECT_EQ(dss_verify(signature_blob("ssh-dss", r)), 1);

    EXPECT_EQ(dss_verify(signature_blob("SSH-DSS", blob.sig)), -1);  // exact name only
    EXPECT_TRUE(log.contains("ssh_dss_verify: cannot handle type SSH-DSS"));
    Bytes longer = blob.sig;
    longer.push_back(0);
    EXPECT_EQ(dss_verify(signature_blob("ssh-dss", longer)), -1);
    EXPECT_TRUE(log.contains("bad sigbloblen 41 != SIGBLOB_LEN"));
    Bytes trailing = signature_blob("ssh-dss", blob.sig);
    trailing.push_back(1);
    EXPECT_EQ(dss_verify(trailing), -1);
    EXPECT_TRUE(log.contains("ssh_dss_verify: remaining bytes in signature 1"));
}

TEST(DsaSignature, FipsModeReportsSuccessWithoutABlob)
{
    LogCapture log;
    FipsEnvironment fips;
    SecureBytes blob;
    EXPECT_EQ(ssh_dss_sign(dsa_key(), &blob, DATA.data(), DATA.size(), 0), 0);
    EXPECT_TRUE(blob.empty());
    EXPECT_TRUE(log.contains("ssh_DSA_do_sign: FIPS does not allow DSA keys"));
}

TEST(EcdsaSignature, EveryCurveVerifiesIndependently)
{
    const std::tuple<unsigned, const char *, const char *> curves[] = {
        {256, "ecdsa-sha2-nistp256", "SHA256"}, {384, "ecdsa-sha2-nistp384", "SHA384"},
        {521, "ecdsa-sha2-nistp521", "SHA512"}};
    for (auto [bits, name, md] : curves) {
        SCOPED_TRACE(name);
        KeyPtr key = signing_key(KEY_ECDSA, bits);
        LogCapture log;
        SecureBytes made;
        ASSERT_EQ(ssh_ecdsa_sign(key.get(), &made, DATA.data(), DATA.size(), 0), SSH_ECDSA_OK);
        EXPECT_TRUE(log.contains(std::string("creating signature using ECDSA with ") + md + "."));
        ParsedBlob blob = parse_blob(made);
        EXPECT_EQ(blob.name, name);
        EXPECT_TRUE(openssl_verifies(key->pkey.get(), md, ecdsa_inner_to_der(blob.sig), DATA));
        EXPECT_EQ(ecdsa_verify(key.get(), signature_blob(name, blob.sig)), 1);
        EXPECT_TRUE(log.contains("ssh_ecdsa_verify: signature correct"));
        EXPECT_EQ(ecdsa_verify(key.get(), signature_blob(name, blob.sig), text_bytes("x")), 0);
        EXPECT_TRUE(log.contains("ssh_ecdsa_verify: signature incorrect"));
        Bytes r, s;
        rs_from_der(openssl_sign(key->pkey.get(), md, DATA), (bits + 7) / 8, &r, &s);
        EXPECT_EQ(ecdsa_verify(key.get(), signature_blob(name, ecdsa_inner(r, s))), 1);
    }
}

TEST(EcdsaSignature, X509IdentitySignsUnderThePlainName)
{
    KeyPtr identity = key_new(KEY_X509_ECDSA);
    KeyPtr plain = signing_key(KEY_ECDSA, 384);
    identity->pkey = std::move(plain->pkey);
    identity->ecdsa_nid = KEY_NID_P384;
    LogCapture log;
    SecureBytes made;
    ASSERT_EQ(ssh_ecdsa_sign(identity.get(), &made, DATA.data(), DATA.size(), 0), SSH_ECDSA_OK);
    EXPECT_TRUE(log.contains("creating signature using ECDSA with SHA384."));
    ParsedBlob blob = parse_blob(made);
    EXPECT_EQ(blob.name, "ecdsa-sha2-nistp384");
    EXPECT_TRUE(openssl_verifies(identity->pkey.get(), "SHA384", ecdsa_inner_to_der(blob.sig), DATA));
}

TEST(EcdsaSignature, BlobChecksOfVerification)
{
    KeyPtr key = signing_key(KEY_ECDSA, 256);
    Bytes r, s, signed_data;
    // Find a signature whose r has its top bit set: it travels with a zero byte in front.
    for (int i = 0; i < 200 && (r.empty() || r[0] != 0); ++i) {
        signed_data = text_bytes("try " + std::to_string(i));
        SecureBytes made;
        ASSERT_EQ(ssh_ecdsa_sign(key.get(), &made, signed_data.data(), signed_data.size(), 0), SSH_ECDSA_OK);
        Bytes inner = parse_blob(made).sig;
        size_t pos = 0;
        r = take_string(inner, &pos);
        s = take_string(inner, &pos);
    }
    ASSERT_EQ(r.size(), 33u);
    ASSERT_EQ(r[0], 0);
    ASSERT_GE(r[1], 0x80);
    Bytes inner = ecdsa_inner(r, s);
    EXPECT_TRUE(openssl_verifies(key->pkey.get(), "SHA256", ecdsa_inner_to_der(inner), signed_data));
    EXPECT_EQ(ecdsa_verify(key.get(), signature_blob("ECDSA-SHA2-NISTP256", inner), signed_data), 1);

    LogCapture log;
    Bytes third = inner;
    put_string(&third, Bytes{1});
    EXPECT_EQ(ecdsa_verify(key.get(), signature_blob("ecdsa-sha2-nistp256", third), signed_data), 0);
    EXPECT_TRUE(log.contains("ssh_ecdsa_parse_sig: data remaining in sigature buffer."));
    EXPECT_TRUE(log.contains("ssh_ecdsa_verify: signature incorrect"));

    EXPECT_EQ(ecdsa_verify(key.get(), signature_blob("ecdsa-sha2-nistp384", inner)), SSH_ECDSA_ERROR);
    EXPECT_TRUE(log.contains("ssh_ecdsa_verify: signature algorithm does not match key type."));
    Bytes trailing = signature_blob("ecdsa-sha2-nistp256", inner);
    trailing.push_back(0);
    EXPECT_EQ(ecdsa_verify(key.get(), trailing), SSH_ECDSA_ERROR);
    EXPECT_TRUE(log.contains("ssh_ecdsa_verify: data remaining in sigature buffer."));
    Bytes cut = signature_blob("ecdsa-sha2-nistp256", inner);
    cut.resize(cut.size() - 1);
    EXPECT_EQ(ecdsa_verify(key.get(), cut), SSH_ECDSA_ERROR);
    EXPECT_TRUE(log.contains("ssh_ecdsa_verify: failed to parse signature blob"));

    SecureBytes empty;
    EXPECT_EQ(ssh_ecdsa_parse_sig(&empty), -1);
    SecureBytes one_number(inner.begin(), inner.begin() + 4 + 33);
    EXPECT_EQ(ssh_ecdsa_parse_sig(&one_number), -1);
    EXPECT_TRUE(log.contains("ssh_ecdsa_parse_sig: failed to set signature data."));

    KeyPtr rsa = signing_key(KEY_RSA, 1024);
    SecureBytes made;
    EXPECT_EQ(ssh_ecdsa_sign(rsa.get(), &made, DATA.data(), DATA.size(), 0), SSH_ECDSA_BAD_KEY);
    EXPECT_TRUE(log.contains("ssh_ecdsa_sign: invalid key parameter."));
    EXPECT_EQ(ecdsa_verify(rsa.get(), trailing), SSH_ECDSA_BAD_KEY);
    EXPECT_TRUE(log.contains("ssh_ecdsa_verify: invalid key parameter."));
}
