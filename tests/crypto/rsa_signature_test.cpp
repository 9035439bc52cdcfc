#include <gtest/gtest.h>

#include <openssl/obj_mac.h>

#include "crypto/rsa_signature.h"
#include "crypto/signature_check.h"
#include "crypto/signature_types.h"
#include "pki/key_signer.h"
#include "support/fips_environment.h"
#include "support/log_capture.h"

namespace {

const Bytes DATA = text_bytes("session id and user auth request");

SecureBytes rsa_sign(const Key *key, const Bytes &data = DATA)
{
    SecureBytes blob;
    EXPECT_EQ(ssh_rsa_sign(key, &blob, data.data(), data.size(), 0), 0);
    return blob;
}

int rsa_verify(const Key *key, const Bytes &blob, const Bytes &data = DATA)
{
    return ssh_rsa_verify(key, blob.data(), blob.size(), data.data(), data.size(), 0);
}

struct SigtypeSetting {
    explicit SigtypeSetting(int value) { set_x509rsa_sigtype(value); }
    ~SigtypeSetting() { set_x509rsa_sigtype(X509RSA_SIGTYPE_DEFAULT); }
};

}  // namespace

TEST(RsaSignature, EveryAlgorithmVerifiesIndependently)
{
    KeyPtr key = signing_key(KEY_RSA, 2048);
    const std::pair<const char *, const char *> algorithms[] = {
        {"ssh-rsa", "SHA1"}, {"rsa-sha2-256", "SHA256"}, {"rsa-sha2-512", "SHA512"},
        {SSH_RSA_SHA256_VENDOR_ALIAS, "SHA256"}};
    for (auto [name, md] : algorithms) {
        SCOPED_TRACE(name);
        key->sigalg = signature_algorithm_by_name(name);
        LogCapture log;
        ParsedBlob blob = parse_blob(rsa_sign(key.get()));
        EXPECT_EQ(blob.name, name);
        EXPECT_EQ(blob.sig.size(), 256u);
        EXPECT_TRUE(openssl_verifies(key->pkey.get(), md, blob.sig, DATA));
        EXPECT_TRUE(log.contains(std::string("creating signature using RSA with ") + md + "."));

        EXPECT_EQ(rsa_verify(key.get(), signature_blob(name, blob.sig)), 1);
        EXPECT_TRUE(log.contains("ssh_rsa_verify: signature correct"));
        EXPECT_EQ(rsa_verify(key.get(), signature_blob(name, blob.sig), text_bytes("other")), 0);
        EXPECT_TRUE(log.contains("ssh_rsa_verify: signature incorrect"));
        // A signature OpenSSL made by itself is accepted too.
        EXPECT_EQ(rsa_verify(key.get(), signature_blob(name, openssl_sign(key->pkey.get(), md, DATA))), 1);
    }
    // Without a selected row the key signs under its own name.
    key->sigalg = nullptr;
    EXPECT_EQ(parse_blob(rsa_sign(key.get())).name, "ssh-rsa");
}

TEST(RsaSignature, ShortSignaturesArePaddedToTheModulus)
{
    KeyPtr key = signing_key(KEY_RSA, 1023, "rsa-sha2-256");
    ASSERT_EQ(EVP_PKEY_get_size(key->pkey.get()), 128);
    Bytes data;
    ParsedBlob blob;
    for (int i = 0; i < 5000 && (blob.sig.empty() || blob.sig[0] != 0); ++i) {
        data = text_bytes("attempt " + std::to_string(i));
        blob = parse_blob(rsa_sign(key.get(), data));
    }
    ASSERT_EQ(blob.sig[0], 0) << "no signature with a leading zero byte found";
    EXPECT_EQ(blob.sig.size(), 128u);
    EXPECT_TRUE(openssl_verifies(key->pkey.get(), "SHA256", blob.sig, data));

    LogCapture log;
    Bytes shorter(blob.sig.begin() + 1, blob.sig.end());
    EXPECT_EQ(rsa_verify(key.get(), signature_blob("rsa-sha2-256", shorter), data), 1);
    EXPECT_TRUE(log.contains("ssh_rsa_verify: add padding: modlen 128 > len 127"));
    Bytes longer = blob.sig;
    longer.insert(longer.begin(), 0);
    EXPECT_EQ(rsa_verify(key.get(), signature_blob("rsa-sha2-256", longer), data), -1);
    EXPECT_TRUE(log.contains("ssh_rsa_verify: len 129 > modlen 128"));
}

TEST(RsaSignature, BlobChecksOfVerification)
{
    LogCapture log;
    KeyPtr small = signing_key(KEY_RSA, 512, "ssh-rsa");
    ParsedBlob made = parse_blob(rsa_sign(small.get()));  // signing is allowed outside FIPS mode
    EXPECT_TRUE(openssl_verifies(small->pkey.get(), "SHA1", made.sig, DATA));
    EXPECT_EQ(rsa_verify(small.get(), signature_blob("ssh-rsa", made.sig)), -1);
    EXPECT_TRUE(log.contains("ssh_rsa_verify: RSA modulus too small: 512 < minimum 768 bits"));

    KeyPtr key = signing_key(KEY_RSA, 1024, "rsa-sha2-256");
    Bytes sig = parse_blob(rsa_sign(key.get())).sig;
    EXPECT_EQ(rsa_verify(key.get(), signature_blob("RSA-SHA2-256", sig)), 1);
    EXPECT_EQ(rsa_verify(key.get(), signature_blob("ssh-rsa", sig)), -1);
    EXPECT_TRUE(log.contains("ssh_rsa_verify: cannot handle type ssh-rsa"));
    Bytes trailing = signature_blob("rsa-sha2-256", sig);
    trailing.push_back(7);
    EXPECT_EQ(rsa_verify(key.get(), trailing), -1);
    EXPECT_TRUE(log.contains("ssh_rsa_verify: remaining bytes in signature 1"));
}

TEST(RsaSignature, SigtypeZeroSignsWithMd5UnderTheRowName)
{
    KeyPtr key = signing_key(KEY_RSA, 2048, "rsa-sha2-512");
    LogCapture log;
    {
        SigtypeSetting md5(0);
        ParsedBlob blob = parse_blob(rsa_sign(key.get()));
        EXPECT_EQ(blob.name, "rsa-sha2-512");
        EXPECT_TRUE(openssl_verifies(key->pkey.get(), "MD5", blob.sig, DATA));
        EXPECT_FALSE(openssl_verifies(key->pkey.get(), "SHA512", blob.sig, DATA));
        // Verification keeps the row's hash.
        EXPECT_EQ(rsa_verify(key.get(), signature_blob("rsa-sha2-512", blob.sig)), 0);
        EXPECT_TRUE(log.contains("bad decrypted len: 34 != 19 + 64"));

        FipsEnvironment fips;
        SecureBytes refused;
        EXPECT_EQ(ssh_rsa_sign(key.get(), &refused, DATA.data(), DATA.size(), 0), -1);
        EXPECT_TRUE(refused.empty());
        EXPECT_TRUE(log.contains("FIPS: MD5 and SHA1 signatures not allowed."));
    }
}

TEST(RsaSignature, FipsRules)
{
    KeyPtr sha1 = signing_key(KEY_RSA, 2048, "ssh-rsa");
    KeyPtr short_key = signing_key(KEY_RSA, 1024, "rsa-sha2-256");
    KeyPtr sha256 = signing_key(KEY_RSA, 2048, "rsa-sha2-256");
    Bytes made = parse_blob(rsa_sign(sha1.get())).sig;
    LogCapture log;
    FipsEnvironment fips;
    SecureBytes blob;
    EXPECT_EQ(ssh_rsa_sign(sha1.get(), &blob, DATA.data(), DATA.size(), 0), -1);
    EXPECT_TRUE(log.contains("FIPS: MD5 and SHA1 signatures not allowed."));
    EXPECT_EQ(rsa_verify(sha1.get(), signature_blob("ssh-rsa", made)), 1);  // verification stays allowed
    EXPECT_EQ(ssh_rsa_sign(short_key.get(), &blob, DATA.data(), DATA.size(), 0), -1);
    EXPECT_TRUE(log.contains("Invalid key length 1024. In FIPS mode, RSA key length must be 2048, 3072, 4096 or 8192."));
    EXPECT_TRUE(blob.empty());
    SecureBytes allowed = rsa_sign(sha256.get());
    EXPECT_EQ(rsa_verify(sha256.get(), Bytes(allowed.begin(), allowed.end())), 1);

    uint8_t md5_digest[16] = {};
    EXPECT_EQ(rsa_verify_digest_info(NID_md5, md5_digest, 16, made.data(), made.size(), sha1->pkey.get()), 0);
    EXPECT_TRUE(log.contains("FIPS: Invalid operation.  RSA signature must be SHA1 based."));
}

TEST(RsaSignature, DigestInfoChecks)
{
    KeyPtr key = signing_key(KEY_RSA, 1024);
    uint8_t digest[32];
    for (int i = 0; i < 32; ++i)
        digest[i] = uint8_t(i);
    Bytes info = hex_bytes("3031300d060960864801650304020105000420");
    info.insert(info.end(), digest, digest + 32);
    // Signs a prepared DigestInfo block as it stands.
    auto sign_raw = [&](const Bytes &block) {
        PkeyCtxPtr ctx(EVP_PKEY_CTX_new_from_pkey(nullptr, key->pkey.get(), nullptr));
        Bytes sig(128);
        size_t len = sig.size();
        EXPECT_EQ(EVP_PKEY_sign_init(ctx.get()), 1);
        EXPECT_EQ(EVP_PKEY_CTX_set_rsa_padding(ctx.get(), RSA_PKCS1_PADDING), 1);
        EXPECT_EQ(EVP_PKEY_sign(ctx.get(), sig.data(), &len, block.data(), block.size()), 1);
        return sig;
    };
    EVP_PKEY *pkey = key->pkey.get();
    Bytes good = sign_raw(info);
    LogCapture log;
    EXPECT_EQ(rsa_verify_digest_info(NID_sha256, digest, 32, good.data(), good.size(), pkey), 1);
    EXPECT_EQ(rsa_verify_digest_info(NID_sha384, digest, 32, good.data(), good.size(), pkey), 0);
    EXPECT_TRUE(log.lines().empty());  // no DigestInfo for SHA-384, silently
    EXPECT_EQ(rsa_verify_digest_info(NID_sha256, digest, 31, good.data(), good.size(), pkey), 0);
    EXPECT_TRUE(log.contains("bad hashlen"));
    EXPECT_EQ(rsa_verify_digest_info(NID_sha256, digest, 32, good.data(), 0, pkey), 0);
    EXPECT_TRUE(log.contains("bad siglen"));
    Bytes other_oid = info;
    other_oid[18 - 2] ^= 1;
    Bytes wrong_oid = sign_raw(other_oid);
    EXPECT_EQ(rsa_verify_digest_info(NID_sha256, digest, 32, wrong_oid.data(), wrong_oid.size(), pkey), 0);
    EXPECT_TRUE(log.contains("oid mismatch"));
    digest[31] ^= 1;
    EXPECT_EQ(rsa_verify_digest_info(NID_sha256, digest, 32, good.data(), good.size(), pkey), 0);
    EXPECT_TRUE(log.contains("hash mismatch"));
    Bytes garbage(128, 0x5a);
    EXPECT_EQ(rsa_verify_digest_info(NID_sha256, digest, 32, garbage.data(), garbage.size(), pkey), 0);
    EXPECT_TRUE(log.contains("EVP_PKEY_decrypt failed: "));
}
