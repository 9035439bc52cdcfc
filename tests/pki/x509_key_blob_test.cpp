#include <gtest/gtest.h>

#include <openssl/pem.h>

#include "crypto/crypto_module.h"
#include "keys/key_blob.h"
#include "keys/key_fingerprint.h"
#include "pki/x509_key_blob.h"
#include "support/log_capture.h"
#include "support/test_pki.h"

namespace {

// Certificates made with the openssl command: the test PKI's leaves and CAs.
struct X509KeyBlob : ::testing::Test {
    static inline TestPki *pki = nullptr;
    static void SetUpTestSuite()
    {
        pki = new TestPki;
        for (auto [name, opt] : {std::pair{"rsa1024", "RSA:1024"}, {"rsa2048", "RSA:2048"}, {"dsa", "DSA"},
                                 {"p256", "EC:P-256"}, {"p384", "EC:P-384"}, {"p521", "EC:P-521"}})
            pki->leaf(name, opt);
    }
    static void TearDownTestSuite() { delete pki; }

    static X509Ptr load(const std::string &name)
    {
        BioPtr bio(BIO_new_file(pki->path(name).c_str(), "r"));
        return X509Ptr(bio ? PEM_read_bio_X509(bio.get(), nullptr, nullptr, nullptr) : nullptr);
    }
};

Bytes der(const X509 *cert)
{
    Bytes out(static_cast<size_t>(i2d_X509(cert, nullptr)));
    uint8_t *p = out.data();
    i2d_X509(cert, &p);
    return out;
}

Bytes rfc6187_blob(const Key *key, const char *name, STACK_OF(X509) *chain = nullptr, PkiObject *pki = nullptr)
{
    SecureBytes blob;
    uint32_t len = 0;
    int result = ssh_pki_x509key_to_rfc6187_pubkey_blob(key, chain, &blob, &len, name, pki);
    EXPECT_EQ(result, static_cast<int>(len));
    return Bytes(blob.begin(), blob.end());
}

// The expected RFC 6187 layout for `name` and certificates.
Bytes expected_rfc6187(const char *name, std::initializer_list<const X509 *> certs)
{
    Buffer b;
    buffer_put_cstring(&b, name);
    buffer_put_int(&b, static_cast<uint32_t>(certs.size()));
    for (const X509 *cert : certs) {
        Bytes d = der(cert);
        buffer_put_string(&b, d.data(), static_cast<uint32_t>(d.size()));
    }
    buffer_put_int(&b, 0);
    return buffer_bytes(b);
}

KeyPtr read(const Bytes &blob) { return ssh_pki_x509key_from_blob(blob.data(), static_cast<uint32_t>(blob.size())); }

}  // namespace

TEST_F(X509KeyBlob, LayoutsForEveryKeyType)
{
    for (auto [name, type, rfc_name, nid] : {std::tuple{"rsa1024", KEY_X509_RSA, "x509v3-ssh-rsa", -1},
                                               {"rsa2048", KEY_X509_RSA, "x509v3-rsa2048-sha256", -1},
                                               {"dsa", KEY_X509_DSA, nullptr, -1},
                                               {"p256", KEY_X509_ECDSA, "x509v3-ecdsa-sha2-nistp256", 415},
                                               {"p384", KEY_X509_ECDSA, "x509v3-ecdsa-sha2-nistp384", 715},
                                               {"p521", KEY_X509_ECDSA, "x509v3-ecdsa-sha2-nistp521", 716}}) {
        SCOPED_TRACE(name);
        X509Ptr cert = load(std::string(name) + ".crt");
        KeyPtr key = x509key_from_certificate(x509_ref(cert.get()), nullptr);
        ASSERT_TRUE(cert && key);
        EXPECT_EQ(std::pair(key->type, key->ecdsa_nid), std::pair(int(type), nid));
        EXPECT_STREQ(key->sigalg->name, key_ssh_name(key.get()));

        // Plain layout: the DER alone, read back under a name given aside.
        SecureBytes plain;
        uint32_t plain_len = key_to_blob(key.get(), &plain, nullptr, "x509v3-sign-rsa");
        EXPECT_EQ(Bytes(plain.begin(), plain.end()), der(cert.get()));
        KeyPtr from_plain = key_from_blob(plain.data(), plain_len, "x509v3-sign-rsa", CERT_SOURCE_SYSTEM);
        ASSERT_TRUE(from_plain && from_plain->cert_source == CERT_SOURCE_SYSTEM);
        EXPECT_NE(key_equal(from_plain.get(), key.get()), 0);
        if (!rfc_name)
            continue;

        // RFC 6187 layout: without a PKI chain, the certificate alone.
        SecureBytes blob;
        uint32_t len = key_to_blob(key.get(), &blob, nullptr, rfc_name);
        EXPECT_EQ(Bytes(blob.begin(), blob.end()), expected_rfc6187(rfc_name, {cert.get()}));
        KeyPtr back = key_from_blob(blob.data(), len);
        ASSERT_TRUE(back && back->type == type);
        EXPECT_STREQ(back->sigalg->name, rfc_name);
        EXPECT_NE(key_equal(back.get(), key.get()), 0);
    }
}

TEST_F(X509KeyBlob, ChainOrderAndNames)
{
    X509Ptr root = load("root.crt"), inter = load("inter.crt"), leaf = load("p256.crt");
    ASSERT_TRUE(root && inter && leaf);
    const char *name = "x509v3-ecdsa-sha2-nistp256";
    KeyPtr key = x509key_from_certificate(x509_ref(leaf.get()), nullptr);
    X509StackPtr chain(sk_X509_new_null()), foreign(sk_X509_new_null());
    for (X509 *c : {leaf.get(), inter.get(), root.get()})
        sk_X509_push(chain.get(), x509_ref(c).release());
    sk_X509_push(foreign.get(), x509_ref(root.get()).release());
    LogCapture log;
    Bytes blob = rfc6187_blob(key.get(), name, chain.get());
    EXPECT_EQ(blob, expected_rfc6187(name, {leaf.get(), inter.get(), root.get()}));
    EXPECT_TRUE(log.contains("ssh RFC6187 pubkey: sending 3 certificates in the chain."));
    // A list that does not hold the certificate is not used.
    EXPECT_EQ(rfc6187_blob(key.get(), name, foreign.get()), expected_rfc6187(name, {leaf.get()}));

    // Without a list, the crypto module's chain: the certificate alone.
    PkiObject *pki_object = crypto_module_get()->pki_new();
    EXPECT_EQ(rfc6187_blob(key.get(), name, nullptr, pki_object), expected_rfc6187(name, {leaf.get()}));
    crypto_module_get()->pki_delete(pki_object);

    // Only the first certificate of a read chain counts; the name is read
    // in any letter case; the plain names are not RFC 6187.
    KeyPtr back = read(blob);
    ASSERT_NE(back, nullptr);
    EXPECT_EQ(X509_cmp(back->cert.get(), leaf.get()), 0);
    EXPECT_NE(read(expected_rfc6187("X509V3-ECDSA-SHA2-NISTP256", {leaf.get()})), nullptr);
    EXPECT_EQ(read(expected_rfc6187("x509v3-sign-rsa", {leaf.get()})), nullptr);
}

// Two certificates of one key are the same identity; a plain key with that
// key, or another key, is not.
TEST_F(X509KeyBlob, IdentityComparisonAndRefusals)
{
    pki->ok("openssl req -x509 -new -key rsa2048.key -subj /CN=first -days 30 -out first.pem && "
            "openssl req -x509 -new -key rsa2048.key -subj /CN=second -set_serial 99 -days 30 -out second.pem && "
            "openssl req -x509 -newkey ed25519 -nodes -keyout ed.key -subj /CN=ed -days 30 -out ed.pem");
    KeyPtr a = x509key_from_certificate(load("first.pem"), nullptr);
    KeyPtr b = x509key_from_certificate(load("second.pem"), nullptr);
    KeyPtr c = x509key_from_certificate(load("rsa1024.crt"), nullptr);
    ASSERT_TRUE(a && b && c);
    EXPECT_NE(key_equal(a.get(), b.get()), 0);
    EXPECT_EQ(key_equal(a.get(), c.get()), 0);
    KeyPtr plain = key_from_private(a.get());
    ASSERT_NE(plain, nullptr);
    plain->type = KEY_RSA;
    EXPECT_EQ(key_equal(plain.get(), a.get()), 0);
    EXPECT_STREQ(key_type(a.get()), "RSA+cert");
    a->cert_source = CERT_SOURCE_TARNWELL;
    EXPECT_EQ(key_description(a.get()), "2048-bit, X.509 name: \"/CN=first\"");

    // A certificate of a key type SSH has no X.509 name for.
    LogCapture log;
    X509Ptr ed = load("ed.pem");
    ASSERT_NE(ed, nullptr);
    EXPECT_EQ(x509key_from_certificate(std::move(ed), nullptr), nullptr);
    EXPECT_TRUE(log.contains("ssh_pki_x509key_from_blob: unknown key"));
}
