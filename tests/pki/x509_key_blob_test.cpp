#include <gtest/gtest.h>

#include <openssl/pem.h>

#include "crypto/crypto_module.h"
#include "keys/key_blob.h"
#include "keys/key_fingerprint.h"
#include "keys/kvl.h"
#include "pki/x509_key_blob.h"
#include "support/log_capture.h"
#include "support/tool_run.h"

namespace {

// Certificates made with the openssl command in a private folder.
class Certificates {
public:
    // A self-signed certificate for a new key made by `genpkey_args`.
    std::string self_signed(const std::string &name, const std::string &genpkey_args)
    {
        std::string key = folder_.path(name + ".key");
        run(genpkey_args + " -out " + key);
        return sign(name, key, "", "");
    }
    // A certificate for an existing key, issued by `issuer` (self-signed
    // when empty).
    std::string sign(const std::string &name, const std::string &key, const std::string &issuer, const std::string &ext)
    {
        std::string cert = folder_.path(name + ".pem");
        if (issuer.empty()) {
            run("openssl req -x509 -new -key " + key + " -subj /CN=" + name + " -days 30 " + ext + " -out " + cert);
        } else {
            std::string csr = folder_.path(name + ".csr");
            run("openssl req -new -key " + key + " -subj /CN=" + name + " -out " + csr);
            run("openssl x509 -req -in " + csr + " -CA " + issuer + ".pem -CAkey " + issuer + ".key -set_serial " +
                std::to_string(++serial_) + " -days 30 " + ext + " -out " + cert);
        }
        return cert;
    }
    std::string key_path(const std::string &name) { return folder_.path(name + ".key"); }
    std::string path(const std::string &name) { return folder_.path(name); }

    static X509Ptr load(const std::string &pem)
    {
        std::string data = read_file_text(pem);
        BIO *bio = BIO_new_mem_buf(data.data(), static_cast<int>(data.size()));
        X509Ptr cert(PEM_read_bio_X509(bio, nullptr, nullptr, nullptr));
        BIO_free(bio);
        return cert;
    }
    static Bytes der(const X509 *cert)
    {
        int len = i2d_X509(cert, nullptr);
        Bytes out(static_cast<size_t>(len));
        uint8_t *p = out.data();
        i2d_X509(cert, &p);
        return out;
    }

private:
    void run(const std::string &command)
    {
        ToolResult r = run_tool(command);
        ASSERT_EQ(r.status, 0) << command << "\n" << r.output;
    }
    TempFolder folder_;
    int serial_ = 0;
};

Bytes rfc6187_blob(const Key *key, const char *name, STACK_OF(X509) *chain = nullptr)
{
    SecureBytes blob;
    uint32_t len = 0;
    int result = ssh_pki_x509key_to_rfc6187_pubkey_blob(key, chain, &blob, &len, name, nullptr);
    EXPECT_EQ(result, static_cast<int>(len));
    return Bytes(blob.begin(), blob.end());
}

// The expected RFC 6187 layout for `name` and DER certificates.
Bytes expected_rfc6187(const char *name, std::initializer_list<Bytes> certs)
{
    Buffer b;
    buffer_put_cstring(&b, name);
    buffer_put_int(&b, static_cast<uint32_t>(certs.size()));
    for (const Bytes &der : certs)
        buffer_put_string(&b, der.data(), static_cast<uint32_t>(der.size()));
    buffer_put_int(&b, 0);
    return buffer_bytes(b);
}

}  // namespace

TEST(X509KeyBlob, LayoutsForEveryKeyType)
{
    Certificates certs;
    struct Case { const char *name; const char *genpkey; int type; const char *rfc_name; int nid; };
    const Case cases[] = {
        {"rsa1024", "openssl genpkey -algorithm RSA -pkeyopt rsa_keygen_bits:1024", KEY_X509_RSA, "x509v3-ssh-rsa", -1},
        {"rsa2048", "openssl genpkey -algorithm RSA -pkeyopt rsa_keygen_bits:2048", KEY_X509_RSA,
         "x509v3-rsa2048-sha256", -1},
        {"dsa", "openssl genpkey -genparam -algorithm DSA -pkeyopt dsa_paramgen_bits:2048 -out /dev/stdout | "
                "openssl genpkey -paramfile /dev/stdin", KEY_X509_DSA, nullptr, -1},
        {"p256", "openssl genpkey -algorithm EC -pkeyopt ec_paramgen_curve:P-256", KEY_X509_ECDSA,
         "x509v3-ecdsa-sha2-nistp256", 415},
        {"p384", "openssl genpkey -algorithm EC -pkeyopt ec_paramgen_curve:P-384", KEY_X509_ECDSA,
         "x509v3-ecdsa-sha2-nistp384", 715},
        {"p521", "openssl genpkey -algorithm EC -pkeyopt ec_paramgen_curve:P-521", KEY_X509_ECDSA,
         "x509v3-ecdsa-sha2-nistp521", 716},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.name);
        X509Ptr cert = Certificates::load(certs.self_signed(c.name, c.genpkey));
        ASSERT_NE(cert, nullptr);
        Bytes der = Certificates::der(cert.get());
        KeyPtr key = x509key_from_certificate(x509_ref(cert.get()), nullptr);
        ASSERT_NE(key, nullptr);
        EXPECT_EQ(key->type, c.type);
        EXPECT_EQ(key->ecdsa_nid, c.nid);
        EXPECT_STREQ(key->sigalg->name, key_ssh_name(key.get()));

        // Plain layout: the DER alone, read back under a name given aside.
        Buffer plain;
        ASSERT_EQ(ssh_pki_x509key_to_blob(key.get(), &plain), 1);
        EXPECT_EQ(buffer_bytes(plain), der);
        KeyPtr from_plain = key_from_blob(der.data(), static_cast<uint32_t>(der.size()), "x509v3-sign-rsa",
                                          CERT_SOURCE_SYSTEM);
        ASSERT_NE(from_plain, nullptr);
        EXPECT_EQ(from_plain->cert_source, static_cast<uint32_t>(CERT_SOURCE_SYSTEM));
        EXPECT_NE(key_equal(from_plain.get(), key.get()), 0);

        if (!c.rfc_name)
            continue;
        // RFC 6187 layout: without a PKI chain, the certificate alone.
        Bytes blob = rfc6187_blob(key.get(), c.rfc_name);
        EXPECT_EQ(blob, expected_rfc6187(c.rfc_name, {der}));
        SecureBytes through_key_to_blob;
        key_to_blob(key.get(), &through_key_to_blob, nullptr, c.rfc_name);
        EXPECT_EQ(Bytes(through_key_to_blob.begin(), through_key_to_blob.end()), blob);

        KeyPtr read = ssh_pki_x509key_from_blob(blob.data(), static_cast<uint32_t>(blob.size()));
        ASSERT_NE(read, nullptr);
        EXPECT_EQ(read->type, c.type);
        EXPECT_STREQ(read->sigalg->name, c.rfc_name);
        EXPECT_NE(key_equal(read.get(), key.get()), 0);
        KeyPtr via_key_from_blob = key_from_blob(blob.data(), static_cast<uint32_t>(blob.size()));
        ASSERT_NE(via_key_from_blob, nullptr);
        EXPECT_NE(key_equal(via_key_from_blob.get(), key.get()), 0);
    }
}

TEST(X509KeyBlob, ChainOrderAndNames)
{
    Certificates certs;
    std::string ca_ext = "-addext basicConstraints=critical,CA:TRUE";
    certs.self_signed("root", "openssl genpkey -algorithm EC -pkeyopt ec_paramgen_curve:P-256");
    run_tool("openssl genpkey -algorithm EC -pkeyopt ec_paramgen_curve:P-256 -out " + certs.key_path("inter"));
    run_tool("openssl genpkey -algorithm EC -pkeyopt ec_paramgen_curve:P-256 -out " + certs.key_path("leaf"));
    X509Ptr root = Certificates::load(certs.path("root.pem"));
    X509Ptr inter = Certificates::load(certs.sign("inter", certs.key_path("inter"), certs.path("root"), ""));
    X509Ptr leaf = Certificates::load(certs.sign("leaf", certs.key_path("leaf"), certs.path("inter"), ""));
    ASSERT_TRUE(root && inter && leaf);

    KeyPtr key = x509key_from_certificate(x509_ref(leaf.get()), nullptr);
    X509StackPtr chain(sk_X509_new_null());
    for (X509 *c : {leaf.get(), inter.get(), root.get()})
        sk_X509_push(chain.get(), x509_ref(c).release());
    LogCapture log;
    Bytes blob = rfc6187_blob(key.get(), "x509v3-ecdsa-sha2-nistp256", chain.get());
    EXPECT_EQ(blob, expected_rfc6187("x509v3-ecdsa-sha2-nistp256", {Certificates::der(leaf.get()),
                                                                     Certificates::der(inter.get()),
                                                                     Certificates::der(root.get())}));
    EXPECT_TRUE(log.contains("ssh RFC6187 pubkey: sending 3 certificates in the chain."));
    // A list that does not hold the certificate is not used.
    X509StackPtr foreign(sk_X509_new_null());
    sk_X509_push(foreign.get(), x509_ref(root.get()).release());
    EXPECT_EQ(rfc6187_blob(key.get(), "x509v3-ecdsa-sha2-nistp256", foreign.get()),
              expected_rfc6187("x509v3-ecdsa-sha2-nistp256", {Certificates::der(leaf.get())}));

    // Without a list, the PKI's chain counts once it holds more than the
    // certificate itself.
    static X509 *issuer = nullptr;
    CryptoApi api = *crypto_module_get();
    api.pki_ca_chain = [](PkiObject *, X509 *cert) {
        STACK_OF(X509) *list = sk_X509_new_null();
        sk_X509_push(list, x509_ref(cert).release());
        if (issuer)
            sk_X509_push(list, x509_ref(issuer).release());
        return list;
    };
    crypto_module_replace_api(&api);
    PkiObject *pki = api.pki_new();
    for (X509 *above : {inter.get(), static_cast<X509 *>(nullptr)}) {
        issuer = above;
        SecureBytes with_pki;
        uint32_t len = 0;
        ssh_pki_x509key_to_rfc6187_pubkey_blob(key.get(), nullptr, &with_pki, &len, "x509v3-ecdsa-sha2-nistp256", pki);
        EXPECT_EQ(Bytes(with_pki.begin(), with_pki.end()),
                  above ? expected_rfc6187("x509v3-ecdsa-sha2-nistp256",
                                           {Certificates::der(leaf.get()), Certificates::der(inter.get())})
                        : expected_rfc6187("x509v3-ecdsa-sha2-nistp256", {Certificates::der(leaf.get())}));
    }
    api.pki_delete(pki);
    crypto_module_replace_api(nullptr);

    // Only the first certificate of a read chain counts.
    KeyPtr read = ssh_pki_x509key_from_blob(blob.data(), static_cast<uint32_t>(blob.size()));
    ASSERT_NE(read, nullptr);
    EXPECT_EQ(X509_cmp(read->cert.get(), leaf.get()), 0);

    // Letter case of the name does not matter; the plain names are not RFC 6187.
    Bytes upper = expected_rfc6187("X509V3-ECDSA-SHA2-NISTP256", {Certificates::der(leaf.get())});
    EXPECT_NE(ssh_pki_x509key_from_blob(upper.data(), static_cast<uint32_t>(upper.size())), nullptr);
    Bytes plain_named = expected_rfc6187("x509v3-sign-rsa", {Certificates::der(leaf.get())});
    EXPECT_EQ(ssh_pki_x509key_from_blob(plain_named.data(), static_cast<uint32_t>(plain_named.size())), nullptr);
}

TEST(X509KeyBlob, IdentityComparisonByPublicKey)
{
    Certificates certs;
    std::string key = certs.path("shared.key");
    run_tool("openssl genpkey -algorithm RSA -pkeyopt rsa_keygen_bits:2048 -out " + key);
    X509Ptr first = Certificates::load(certs.sign("first", key, "", ""));
    X509Ptr second = Certificates::load(certs.sign("second", key, "", "-set_serial 99"));
    X509Ptr other = Certificates::load(certs.self_signed("other", "openssl genpkey -algorithm RSA -pkeyopt rsa_keygen_bits:2048"));
    ASSERT_TRUE(first && second && other);
    EXPECT_NE(Certificates::der(first.get()), Certificates::der(second.get()));

    KeyPtr a = x509key_from_certificate(x509_ref(first.get()), nullptr);
    KeyPtr b = x509key_from_certificate(x509_ref(second.get()), nullptr);
    KeyPtr c = x509key_from_certificate(x509_ref(other.get()), nullptr);
    EXPECT_NE(key_equal(a.get(), b.get()), 0);  // same key, different certificates
    EXPECT_EQ(key_equal(a.get(), c.get()), 0);
    EXPECT_EQ(KVL::Cert(first.get()).GetPubKeyHash().size(), 20u);
    EXPECT_EQ(KVL::Cert(first.get()).GetEncoded().size(), Certificates::der(first.get()).size());

    // A plain key with the same RSA key is a different type.
    KeyPtr plain = key_from_private(a.get());
    ASSERT_NE(plain, nullptr);
    plain->type = KEY_RSA;
    EXPECT_EQ(key_equal(plain.get(), a.get()), 0);

    EXPECT_STREQ(key_type(a.get()), "RSA+cert");
    a->cert_source = CERT_SOURCE_TARNWELL;
    EXPECT_EQ(key_description(a.get()), "2048-bit, X.509 name: \"/CN=first\"");
}

TEST(X509KeyBlob, Refusals)
{
    LogCapture log;
    Buffer b;
    EXPECT_EQ(ssh_pki_x509key_to_blob(nullptr, &b), 0);
    EXPECT_TRUE(log.contains("ssh_pki_x509key_to_blob: no key"));
    EXPECT_EQ(ssh_pki_x509key_to_blob(key_generate(KEY_ECDSA, 256).get(), &b), 0);
    EXPECT_TRUE(log.contains("ssh_pki_x509key_to_blob: cannot handle key type 5"));
    EXPECT_EQ(ssh_pki_x509key_to_blob(key_new(KEY_X509_ECDSA).get(), &b), 0);
    EXPECT_TRUE(log.contains("ssh_pki_x509key_to_blob: no X509 key"));
    EXPECT_EQ(buffer_len(&b), 0u);
    EXPECT_EQ(ssh_pki_x509key_to_rfc6187_pubkey_blob(key_new(KEY_X509_ECDSA).get(), nullptr, nullptr, nullptr,
                                                     "x509v3-ecdsa-sha2-nistp256", nullptr),
              0);
    EXPECT_TRUE(log.contains("ssh_pki_x509key_to_rfc6187_pubkey_blob: Invalid parameter."));

    Certificates certs;
    X509Ptr ed = Certificates::load(certs.self_signed("ed", "openssl genpkey -algorithm ED25519"));
    ASSERT_NE(ed, nullptr);
    EXPECT_EQ(x509key_from_certificate(std::move(ed), nullptr), nullptr);
    EXPECT_TRUE(log.contains("ssh_pki_x509key_from_blob: unknown key"));
}
