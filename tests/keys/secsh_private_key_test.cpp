#include <gtest/gtest.h>

#include <sstream>

#include <openssl/pem.h>

#include "keys/ossl_ptr.h"
#include "keys/secsh_private_key.h"
#include "support/bytes.h"
#include "support/log_capture.h"
#include "support/tool_run.h"

namespace {

// The base64 body of a "---- BEGIN SSH2 ENCRYPTED PRIVATE KEY ----" file:
// the header lines (with a colon) are skipped.
Bytes secsh_body(const std::string &text)
{
    std::istringstream lines(text);
    std::string line, base64;
    while (std::getline(lines, line))
        if (line.rfind("----", 0) != 0 && line.find(':') == std::string::npos)
            base64 += line;
    return base64_decode(base64);
}

}  // namespace

TEST(SecshPrivateKey, DecodesPuttygenRsaAndDsaKeys)
{
    if (system("command -v puttygen > /dev/null") != 0)
        GTEST_SKIP() << "puttygen is not installed";
    TempFolder folder;
    for (const char *type : {"rsa", "dsa"}) {
        std::string base = folder.path(type);
        std::string command = std::string("puttygen -q -t ") + type + " -b 1024 --new-passphrase /dev/null -o " +
                              base + ".ppk 2>/dev/null && puttygen " + base + ".ppk -O private-sshcom -o " + base +
                              ".sshcom && puttygen " + base + ".ppk -O private-openssh -o " + base + ".pem";
        ASSERT_EQ(system(command.c_str()), 0) << command;

        Bytes blob = secsh_body(read_file_text(base + ".sshcom"));
        SecshPrivateKey key;
        ASSERT_TRUE(secsh_private_key_decode(blob.data(), blob.size(), &key)) << type;
        EXPECT_EQ(key.type, std::string(type) == "rsa" ? 1 : 2);
        BioPtr bio(BIO_new_file((base + ".pem").c_str(), "r"));
        PkeyPtr reference(PEM_read_bio_PrivateKey(bio.get(), nullptr, nullptr, const_cast<char *>("")));
        PkeyPtr decoded(key.pkey);
        ASSERT_NE(reference, nullptr);
        EXPECT_EQ(EVP_PKEY_eq(decoded.get(), reference.get()), 1) << type;

        // A damaged copy is refused, never crashes.
        blob[0] ^= 0xff;
        LogCapture log;
        EXPECT_FALSE(secsh_private_key_decode(blob.data(), blob.size(), &key));
        EXPECT_TRUE(log.contains("secsh_private_key_decode: bad magic number"));
        blob[0] ^= 0xff;
        blob.resize(blob.size() / 2);
        EXPECT_FALSE(secsh_private_key_decode(blob.data(), blob.size(), &key));
    }
}

TEST(SecshPrivateKey, RefusesEncryptedAndUnknownKeys)
{
    LogCapture log;
    SecshPrivateKey key;
    for (auto [type, cipher, line] :
         {std::tuple{"if-modn{sign{rsa-pkcs1-sha1},encrypt{rsa-pkcs1v2-oaep}}", "3des-cbc",
                     "encrypted key (cipher 3des-cbc) not supported"},
          {"ssh-ed25519", "none", "unsupported key type ssh-ed25519"}}) {
        Buffer b;
        buffer_put_int(&b, SECSH_PRIVATE_KEY_MAGIC);
        buffer_put_int(&b, 0);
        buffer_put_cstring(&b, type);
        buffer_put_cstring(&b, cipher);
        buffer_put_int(&b, 4);
        buffer_put_int(&b, 0);
        EXPECT_FALSE(secsh_private_key_decode(buffer_ptr(&b), buffer_len(&b), &key));
        EXPECT_TRUE(log.contains(line));
    }

    // The blob holds at least its magic number and length field, and at
    // least as many bytes as that field says.
    Bytes head = hex_bytes("3f6ff9eb 00000008");
    EXPECT_FALSE(secsh_private_key_decode(head.data(), 7, &key));
    EXPECT_TRUE(log.contains("secsh_private_key_decode: blob of 7 bytes is not a private key"));
    EXPECT_FALSE(secsh_private_key_decode(head.data(), 8, &key));
    EXPECT_FALSE(log.contains("blob of 8 bytes") || log.contains("than its length field (8)"));
    head[7] = 9;
    EXPECT_FALSE(secsh_private_key_decode(head.data(), 8, &key));
    EXPECT_TRUE(log.contains("secsh_private_key_decode: blob is shorter (8) than its length field (9)"));
}
