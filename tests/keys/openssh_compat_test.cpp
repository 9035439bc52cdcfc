// Keys made by OpenSSH's own ssh-keygen: their blobs and fingerprints must
// come out exactly as ssh-keygen writes and shows them; keys made here are
// keys ssh-keygen reads with the same fingerprint.
#include <gtest/gtest.h>

#include "keys/key_blob.h"
#include "keys/key_fingerprint.h"
#include "keys/public_key_format.h"
#include "support/tool_run.h"

TEST(OpensshCompatibility, BlobsAndFingerprintsMatchSshKeygen)
{
    TempFolder folder;
    struct Case { const char *type; int bits; int key_type; bool ours; };
    const Case cases[] = {
        {"rsa", 1024, KEY_RSA, false},   {"rsa", 2048, KEY_RSA, true},     {"rsa", 3072, KEY_RSA, false},
        {"rsa", 4096, KEY_RSA, false},   {"dsa", 1024, KEY_DSA, true},
        {"ecdsa", 256, KEY_ECDSA, false}, {"ecdsa", 384, KEY_ECDSA, true}, {"ecdsa", 521, KEY_ECDSA, false},
        {"ed25519", 256, KEY_ED25519, true},
    };
    for (const Case &c : cases) {
        std::string file = folder.path(std::string(c.type) + std::to_string(c.bits));
        SCOPED_TRACE(file);
        ToolResult made = run_tool("ssh-keygen -q -N '' -C test -t " + std::string(c.type) + " -b " +
                                   std::to_string(c.bits) + " -f " + file);
        ASSERT_EQ(made.status, 0) << made.output;

        Bytes blob = public_line_blob(file + ".pub");
        KeyPtr key = key_from_blob(blob.data(), static_cast<uint32_t>(blob.size()));
        ASSERT_NE(key, nullptr);
        EXPECT_EQ(key->type, c.key_type);
        EXPECT_EQ(key_size(key.get()), static_cast<unsigned>(c.bits));
        SecureBytes written;
        uint32_t len = key_to_blob(key.get(), &written, nullptr, key_ssh_name(key.get()));
        EXPECT_EQ(len, blob.size());
        EXPECT_EQ(Bytes(written.begin(), written.end()), blob);
        EXPECT_NE(key_equal(key.get(), key_from_blob(written.data(), len).get()), 0);

        std::string md5 = run_tool("ssh-keygen -l -E md5 -f " + file + ".pub").output;
        std::string sha256 = run_tool("ssh-keygen -l -E sha256 -f " + file + ".pub").output;
        std::string bubble = run_tool("ssh-keygen -B -f " + file + ".pub").output;
        EXPECT_EQ(key_fingerprint(key.get(), SSH_FP_MD5, SSH_FP_HEX), word_after(md5, "MD5:"));
        EXPECT_EQ(key_fingerprint(key.get(), SSH_FP_SHA256, SSH_FP_BASE64), word_after(sha256, "SHA256:"));
        EXPECT_EQ(key_fingerprint(key.get(), SSH_FP_SHA1, SSH_FP_BUBBLEBABBLE), word_after(bubble, " "));
        if (!c.ours)
            continue;

        // The other direction: a key generated here, its blob in a public
        // key line that ssh-keygen reads.
        KeyPtr ours = key_generate(c.key_type, static_cast<unsigned>(c.bits));
        ASSERT_NE(ours, nullptr);
        std::ofstream(file + ".ours") << key_line(ours.get(), false) << " test\n";
        if (c.key_type == KEY_RSA)  // chosen as rsa-sha2-512, it still hashes as ssh-rsa
            ours->sigalg = signature_algorithm_by_name("rsa-sha2-512");
        std::string shown = run_tool("ssh-keygen -l -E sha256 -f " + file + ".ours").output;
        EXPECT_EQ(word_after(shown, "SHA256:"), key_fingerprint(ours.get(), SSH_FP_SHA256, SSH_FP_BASE64)) << shown;
    }
}
