// OpenSSH-format private key files as ssh-keygen writes them.
#include <gtest/gtest.h>

#include "keys/key_blob.h"
#include "keys/openssh_private_key.h"
#include "keys/public_key_format.h"
#include "support/tool_run.h"

namespace {

OpensshKeyResult read_text(const std::string &text, OpensshPrivateKey *key, std::string *why)
{
    return openssh_private_key_read(text.data(), text.size(), key, why);
}

// The file's text with its decoded body changed by `change`.
std::string altered(const std::string &file, void (*change)(Bytes *))
{
    std::string text = read_file_text(file), body;
    size_t begin = text.find('\n') + 1, end = text.find("-----END");
    for (char c : text.substr(begin, end - begin))
        if (c != '\n')
            body += c;
    Bytes raw = base64_decode(body);
    change(&raw);
    return text.substr(0, begin) + base64_lines(raw.data(), raw.size()) + text.substr(end);
}

}  // namespace

// RSA, ECDSA and Ed25519 files are also read end to end by tagent's tests.
TEST(OpensshPrivateKey, ReadsPlainFilesAndRefusesEncryptedAndDamagedOnesWithTheirReason)
{
    TempFolder folder;
    std::string plain = folder.path("plain"), locked = folder.path("locked"), dsa = folder.path("dsa"), rsa = folder.path("rsa");
    // RSA 4096 has 513-byte numbers.
    ASSERT_EQ(run_tool("ssh-keygen -q -N '' -C abc -t ed25519 -f " + plain + " && ssh-keygen -q -N '' -C abc -t dsa -f " +
                       dsa + " && ssh-keygen -q -N '' -C abc -t rsa -b 4096 -f " + rsa +
                       " && ssh-keygen -q -N secret -a 2 -t ed25519 -f " + locked).status, 0);
    OpensshPrivateKey key;
    std::string why;
    for (const std::string &file : {plain, dsa, rsa}) {
        ASSERT_EQ(read_text(read_file_text(file), &key, &why), OpensshKeyResult::ok) << why;
        EXPECT_EQ(key.comment, "abc");
        Bytes pub = public_line_blob(file + ".pub");
        EXPECT_NE(key_equal(key.key.get(), key_from_blob(pub.data(), static_cast<uint32_t>(pub.size())).get()), 0);
    }
    EXPECT_EQ(read_text(read_file_text(locked), &key, &why), OpensshKeyResult::encrypted);
    EXPECT_EQ(why, "encrypted with aes256-ctr");

    // Offsets in an unencrypted Ed25519 file: magic 0-14, "none", "none",
    // "" 15-34, count 35-38, public blob 39-93, private section length
    // 94-97, check numbers 98-105, key type 106-120, public key 121-156.
    struct Case { std::string text; const char *why; };
    const Case cases[] = {
        {"no key here", "no readable OpenSSH private key block"},
        {altered(plain, [](Bytes *b) { (*b)[0] = 'O'; }),
         "the OpenSSH private key block does not begin with its magic text"},
        {altered(plain, [](Bytes *b) { (*b)[38] = 2; }), "the file holds 2 keys; only one is read"},
        {altered(plain, [](Bytes *b) { (*b)[38] = 0; }), "the file holds 0 keys; only one is read"},
        {altered(plain, [](Bytes *b) { (*b)[102] ^= 1; }), "the private section's check numbers differ"},
        {altered(plain, [](Bytes *b) { (*b)[117] = 'x'; }), "key type \"ssh-ed2x519\" is not supported"},
        {altered(plain, [](Bytes *b) { (*b)[93] ^= 1; }), "the public key does not match the private key"},
        {altered(plain, [](Bytes *b) { (*b)[130] ^= 1; }), "the ssh-ed25519 private key fields are damaged"},
        {altered(plain, [](Bytes *b) { b->back() ^= 0x40; }), "the private section's padding is damaged"},
        {altered(plain, [](Bytes *b) { b->resize(120); }), "the OpenSSH private key is cut short"},
    };
    for (const Case &c : cases) {
        EXPECT_EQ(read_text(c.text, &key, &why), OpensshKeyResult::bad) << c.why;
        EXPECT_EQ(why, c.why);
    }
}
