// Keys made by OpenSSH's own ssh-keygen: their blobs and fingerprints must
// come out exactly as ssh-keygen writes and shows them.
#include <gtest/gtest.h>

#include "keys/key_blob.h"
#include "keys/key_fingerprint.h"
#include "support/tool_run.h"

TEST(OpensshCompatibility, BlobsAndFingerprintsMatchSshKeygen)
{
    TempFolder folder;
    ASSERT_FALSE(folder.path().empty());
    struct Case { const char *type; int bits; int key_type; };
    const Case cases[] = {
        {"rsa", 1024, KEY_RSA},   {"rsa", 2048, KEY_RSA},     {"rsa", 3072, KEY_RSA},
        {"rsa", 4096, KEY_RSA},   {"dsa", 1024, KEY_DSA},
        {"ecdsa", 256, KEY_ECDSA}, {"ecdsa", 384, KEY_ECDSA}, {"ecdsa", 521, KEY_ECDSA},
        {"ed25519", 256, KEY_ED25519},
    };
    for (const Case &c : cases) {
        std::string file = folder.path(std::string(c.type) + std::to_string(c.bits));
        SCOPED_TRACE(file);
        ToolResult made = run_tool("ssh-keygen -q -N '' -C test -t " + std::string(c.type) + " -b " +
                                   std::to_string(c.bits) + " -f " + file);
        ASSERT_EQ(made.status, 0) << made.output;

        Bytes blob = public_line_blob(file + ".pub");
        ASSERT_FALSE(blob.empty());
        KeyPtr key = key_from_blob(blob.data(), static_cast<uint32_t>(blob.size()));
        ASSERT_NE(key, nullptr);
        EXPECT_EQ(key->type, c.key_type);
        EXPECT_EQ(key_size(key.get()), static_cast<unsigned>(c.bits));

        SecureBytes written;
        uint32_t len = key_to_blob(key.get(), &written, nullptr, key_ssh_name(key.get()));
        EXPECT_EQ(len, blob.size());
        EXPECT_EQ(Bytes(written.begin(), written.end()), blob);

        KeyPtr again = key_from_blob(written.data(), len);
        ASSERT_NE(again, nullptr);
        EXPECT_NE(key_equal(key.get(), again.get()), 0);

        std::string md5 = run_tool("ssh-keygen -l -E md5 -f " + file + ".pub").output;
        std::string sha256 = run_tool("ssh-keygen -l -E sha256 -f " + file + ".pub").output;
        std::string bubble = run_tool("ssh-keygen -B -f " + file + ".pub").output;
        EXPECT_EQ(key_fingerprint(key.get(), SSH_FP_MD5, SSH_FP_HEX), word_after(md5, "MD5:"));
        EXPECT_EQ(key_fingerprint(key.get(), SSH_FP_SHA256, SSH_FP_BASE64), word_after(sha256, "SHA256:"));
        EXPECT_EQ(key_fingerprint(key.get(), SSH_FP_SHA1, SSH_FP_BUBBLEBABBLE), word_after(bubble, " "));
    }
}

TEST(OpensshCompatibility, GeneratedKeysReadBackBySshKeygen)
{
    // The other direction: blobs written here are keys ssh-keygen accepts
    // with the same fingerprint.
    TempFolder folder;
    for (auto [type, bits] : {std::pair{KEY_RSA, 2048u}, std::pair{KEY_DSA, 1024u}, std::pair{KEY_ECDSA, 384u},
                              std::pair{KEY_ED25519, 256u}}) {
        KeyPtr key = key_generate(type, bits);
        ASSERT_NE(key, nullptr);
        SecureBytes blob;
        uint32_t len = key_to_blob(key.get(), &blob, nullptr, key_ssh_name(key.get()));
        std::string path = folder.path("key" + std::to_string(type) + ".pub");
        std::string b64(4 * ((len + 2) / 3) + 1, '\0');
        b64.resize(static_cast<size_t>(EVP_EncodeBlock(reinterpret_cast<unsigned char *>(b64.data()), blob.data(),
                                                       static_cast<int>(len))));
        std::ofstream(path) << key_ssh_name(key.get()) << " " << b64 << " test\n";
        std::string shown = run_tool("ssh-keygen -l -E sha256 -f " + path).output;
        EXPECT_EQ(word_after(shown, "SHA256:"), key_fingerprint(key.get(), SSH_FP_SHA256, SSH_FP_BASE64)) << shown;
    }
}
