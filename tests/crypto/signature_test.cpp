#include <gtest/gtest.h>

#include <map>

#include <openssl/obj_mac.h>

#include "crypto/crypto_module.h"
#include "crypto/ecdsa_signature.h"
#include "crypto/rsa_signature.h"
#include "crypto/signature_check.h"
#include "crypto/signature_types.h"
#include "pki/key_signer.h"
#include "support/fips_environment.h"
#include "support/log_capture.h"

namespace {

const Bytes DATA = text_bytes("session id and user auth request");

// One key per type and size for the whole program: generation is slow.
Key *shared_key(int type, unsigned bits)
{
    static std::map<std::pair<int, unsigned>, KeyPtr> keys;
    KeyPtr &key = keys[{type, bits}];
    if (!key)
        key = key_generate(type, bits);
    key->sigalg = nullptr;
    return key.get();
}

SecureBytes sign(const Key *key, const Bytes &data = DATA, int expected = 0)
{
    SecureBytes blob;
    EXPECT_EQ(key_sign(nullptr, 0, key, &blob, data.data(), data.size(), nullptr, 0), expected);
    return blob;
}

int verify(const Key *key, const Bytes &blob, const Bytes &data = DATA)
{
    return key_verify(key, blob.data(), blob.size(), data.data(), data.size());
}

}  // namespace

// Every algorithm: OpenSSL verifies what the agent signs, so does the
// agent, and nothing verifies over other data.
TEST(Signature, EveryAlgorithmAgreesWithOpenSsl)
{
    for (auto [type, bits, algorithm, md, form] :
         {std::tuple{KEY_RSA, 2048u, "ssh-rsa", "SHA1", "rsa"},
          {KEY_RSA, 2048, "rsa-sha2-256", "SHA256", "rsa"},
          {KEY_RSA, 2048, "rsa-sha2-512", "SHA512", "rsa"},
          {KEY_RSA, 2048, SSH_RSA_SHA256_VENDOR_ALIAS, "SHA256", "rsa"},
          {KEY_RSA, 3072, nullptr, "SHA1", "rsa"},
          {KEY_DSA, 1024, "ssh-dss", "SHA1", "raw"},
          {KEY_ECDSA, 256, "ecdsa-sha2-nistp256", "SHA256", "mpint"},
          {KEY_ECDSA, 384, "ecdsa-sha2-nistp384", "SHA384", "mpint"},
          {KEY_ECDSA, 521, "ecdsa-sha2-nistp521", "SHA512", "mpint"},
          {KEY_ED25519, 256, "ssh-ed25519", nullptr, "ed"}}) {
        SCOPED_TRACE(algorithm ? algorithm : "no row");
        Key *key = shared_key(type, bits);
        key->sigalg = algorithm ? signature_algorithm_by_name(algorithm) : nullptr;
        SecureBytes blob = sign(key);
        // Without a selected row the key signs under its own name.
        const char *name = algorithm ? algorithm : "ssh-rsa";
        expect_verifies(blob, key->pkey.get(), name, md, form, DATA);
        EXPECT_EQ(verify(key, Bytes(blob.begin(), blob.end())), 1);
        EXPECT_EQ(verify(key, Bytes(blob.begin(), blob.end()), text_bytes("other")), 0);
    }
    // A certificate identity's ECDSA key signs under the plain name.
    KeyPtr identity = key_new(KEY_X509_ECDSA);
    identity->pkey.reset(EVP_PKEY_dup(shared_key(KEY_ECDSA, 384)->pkey.get()));
    identity->ecdsa_nid = KEY_NID_P384;
    SecureBytes made;
    ASSERT_EQ(ssh_ecdsa_sign(identity.get(), &made, DATA.data(), DATA.size(), 0), SSH_ECDSA_OK);
    expect_verifies(made, identity->pkey.get(), "ecdsa-sha2-nistp384", "SHA384", "mpint", DATA);
}

// Blob variants, each verified alone: the result and the log line.
struct Variant {
    const Key *key;
    Bytes blob, data;
    int result;
    const char *line;
};

void expect_variants(std::initializer_list<Variant> variants)
{
    for (const Variant &v : variants) {
        LogCapture log;
        EXPECT_EQ(verify(v.key, v.blob, v.data), v.result) << v.line;
        EXPECT_TRUE(!*v.line || log.contains(v.line)) << v.line;
    }
}

Bytes plus(Bytes bytes, const Bytes &more)
{
    bytes.insert(bytes.end(), more.begin(), more.end());
    return bytes;
}

Bytes resized(Bytes bytes, size_t size) { return bytes.resize(size), bytes; }

TEST(Signature, RsaLengthsAndBlobChecks)
{
    // A signature whose first byte is zero is still as long as the modulus;
    // a shorter one is padded on verification, a longer one refused.
    Key *key = shared_key(KEY_RSA, 1023);
    key->sigalg = signature_algorithm_by_name("rsa-sha2-256");
    ASSERT_EQ(EVP_PKEY_get_size(key->pkey.get()), 128);
    Bytes data, sig;
    for (int i = 0; i < 5000 && (sig.empty() || sig[0] != 0); ++i)
        sig = parse_blob(sign(key, data = text_bytes("attempt " + std::to_string(i)))).sig;
    ASSERT_EQ(sig.size(), 128u);
    ASSERT_EQ(sig[0], 0) << "no signature with a leading zero byte found";
    EXPECT_TRUE(openssl_verifies(key->pkey.get(), "SHA256", sig, data));
    Bytes good = signature_blob("rsa-sha2-256", sig);
    expect_variants({
        {key, signature_blob("rsa-sha2-256", Bytes(sig.begin() + 1, sig.end())), data, 1,
         "ssh_rsa_verify: add padding: modlen 128 > len 127"},
        {key, signature_blob("rsa-sha2-256", plus({0}, sig)), data, -1, "ssh_rsa_verify: len 129 > modlen 128"},
        {key, signature_blob("RSA-SHA2-256", sig), data, 1, ""},
        {key, signature_blob("ssh-rsa", sig), data, -1, "ssh_rsa_verify: cannot handle type ssh-rsa"},
        {key, plus(good, {7}), data, -1, "ssh_rsa_verify: remaining bytes in signature 1"},
        {key, Bytes(), data, -1, ""},
    });

    // Moduli from 768 bits verify; smaller ones sign but never verify.
    for (auto [bits, result] : {std::pair{512u, -1}, {767u, -1}, {768u, 1}}) {
        Key *k = shared_key(KEY_RSA, bits);
        Bytes made = parse_blob(sign(k)).sig;
        EXPECT_TRUE(openssl_verifies(k->pkey.get(), "SHA1", made, DATA));
        expect_variants({{k, signature_blob("ssh-rsa", made), DATA, result,
                          bits == 767 ? "ssh_rsa_verify: RSA modulus too small: 767 < minimum 768 bits" : ""}});
    }

    // Signature type 0 signs RSA with MD5 under the row's name; verification
    // keeps the row's hash.
    Key *rsa = shared_key(KEY_RSA, 2048);
    rsa->sigalg = signature_algorithm_by_name("rsa-sha2-512");
    set_x509rsa_sigtype(0);
    ParsedBlob md5_blob = parse_blob(sign(rsa));
    set_x509rsa_sigtype(X509RSA_SIGTYPE_DEFAULT);
    EXPECT_EQ(md5_blob.name, "rsa-sha2-512");
    EXPECT_TRUE(openssl_verifies(rsa->pkey.get(), "MD5", md5_blob.sig, DATA));
    expect_variants({{rsa, signature_blob("rsa-sha2-512", md5_blob.sig), DATA, 0, "bad decrypted len: 34 != 19 + 64"}});
}

TEST(Signature, DsaAndEcdsaBlobChecks)
{
    Key *dsa = shared_key(KEY_DSA, 1024), *ec = shared_key(KEY_ECDSA, 256), *rsa = shared_key(KEY_RSA, 1024);
    Key *ed = shared_key(KEY_ED25519, 0);
    Bytes sig = parse_blob(sign(dsa)).sig, ed_sig = parse_blob(sign(ed)).sig;
    // An r with its top bit set travels with a zero byte in front.
    Bytes r, signed_data, inner;
    for (int i = 0; i < 200 && (r.empty() || r[0] != 0); ++i)
        r = strings_of(inner = parse_blob(sign(ec, signed_data = text_bytes("try " + std::to_string(i)))).sig).at(0);
    ASSERT_EQ(r.size(), 33u);
    ASSERT_GE(r[1], 0x80);
    KeyPtr unknown = key_new(KEY_UNSPEC);
    Bytes ec_blob = signature_blob("ecdsa-sha2-nistp256", inner);
    expect_variants({
        {dsa, signature_blob("SSH-DSS", sig), DATA, -1, "ssh_dss_verify: cannot handle type SSH-DSS"},  // exact name
        {dsa, signature_blob("ssh-dss", resized(sig, 39)), DATA, -1, "bad sigbloblen 39 != SIGBLOB_LEN"},
        {dsa, signature_blob("ssh-dss", resized(sig, 41)), DATA, -1, "bad sigbloblen 41 != SIGBLOB_LEN"},
        {dsa, plus(signature_blob("ssh-dss", sig), {1}), DATA, -1, "ssh_dss_verify: remaining bytes in signature 1"},
        {ec, signature_blob("ECDSA-SHA2-NISTP256", inner), signed_data, 1, ""},
        {ec, signature_blob("ecdsa-sha2-nistp256", plus(inner, frame({1}))), signed_data, 0,
         "ssh_ecdsa_parse_sig: data remaining in sigature buffer."},
        // One byte more after the numbers, or after the signature string.
        {ec, signature_blob("ecdsa-sha2-nistp256", plus(inner, {0})), signed_data, 0, ""},
        {ec, plus(ec_blob, {0}), signed_data, -1, ""},
        {ec, resized(ec_blob, ec_blob.size() - 1), signed_data, -1, "ssh_ecdsa_verify: failed to parse signature blob"},
        {rsa, ec_blob, DATA, -1, ""},
        {ed, signature_blob("ssh-ed25519", resized(ed_sig, 63)), DATA, -1, "ssh_ed25519_verify: malformed signature blob"},
        {ed, signature_blob("ssh-ed25519", resized(ed_sig, 65)), DATA, -1, "ssh_ed25519_verify: malformed signature blob"},
        {unknown.get(), inner, DATA, -1, "key_verify: illegal key type 8"},
    });
}

// Under FIPS rules: no MD5 or SHA-1 RSA signatures, RSA keys of the listed
// sizes only, DSA signs nothing (and says it succeeded), Ed25519 only where
// the module's FIPS implementation has it; verification stays allowed.
TEST(Signature, FipsRules)
{
    Key *rsa = shared_key(KEY_RSA, 2048);
    rsa->sigalg = signature_algorithm_by_name("ssh-rsa");
    Bytes sha1_made = parse_blob(sign(rsa)).sig;
    Key *ed = shared_key(KEY_ED25519, 256);
    SecureBytes ed_made = sign(ed);
    LogCapture log;
    FipsEnvironment fips;
    rsa->sigalg = signature_algorithm_by_name("ssh-rsa");
    EXPECT_TRUE(sign(rsa, DATA, -1).empty());
    EXPECT_TRUE(log.contains("FIPS: MD5 and SHA1 signatures not allowed."));
    EXPECT_EQ(verify(rsa, signature_blob("ssh-rsa", sha1_made)), 1);
    for (auto [bits, result] : {std::pair{1024u, -1}, {2048u, 0}, {3072u, 0}, {4096u, 0}}) {
        Key *k = shared_key(KEY_RSA, bits);
        k->sigalg = signature_algorithm_by_name("rsa-sha2-256");
        SecureBytes blob = sign(k, DATA, result);
        EXPECT_EQ(blob.empty(), result != 0) << bits;
    }
    EXPECT_TRUE(log.contains("Invalid key length 1024. In FIPS mode, RSA key length must be 2048, 3072, 4096 or 8192."));
    EXPECT_TRUE(sign(shared_key(KEY_DSA, 1024)).empty());
    EXPECT_TRUE(log.contains("ssh_DSA_do_sign: FIPS does not allow DSA keys"));
    EXPECT_TRUE(sign(ed, DATA, -1).empty());
    EXPECT_TRUE(log.contains("ssh_ed25519_sign: FIPS does not allow Ed25519 keys"));
    EXPECT_EQ(verify(ed, Bytes(ed_made.begin(), ed_made.end())), 1);
    CryptoApi api = *crypto_module_get();
    api.fips_provides_signature = [](const char *) { return 1; };
    crypto_module_replace_api(&api);
    EXPECT_FALSE(sign(ed).empty());
    crypto_module_replace_api(nullptr);

    uint8_t md5_digest[16] = {};
    EXPECT_EQ(rsa_verify_digest_info(NID_md5, md5_digest, 16, sha1_made.data(), sha1_made.size(), rsa->pkey.get()), 0);
    EXPECT_TRUE(log.contains("FIPS: Invalid operation.  RSA signature must be SHA1 based."));
}
