#include <gtest/gtest.h>

#include <fstream>

#include "keys/key_blob.h"
#include "keys/key_fingerprint.h"
#include "keys/public_key_format.h"
#include "support/log_capture.h"
#include "support/tool_run.h"

TEST(PublicKeyFormat, LinesAndBlocksMatchOpenSsh)
{
    TempFolder folder;
    for (const char *type : {"rsa", "ecdsa", "dsa"}) {
        SCOPED_TRACE(type);
        std::string file = folder.path(type), ours = folder.path("ours.secsh"), theirs = folder.path("theirs.secsh");
        ASSERT_EQ(run_tool(std::string("ssh-keygen -q -N '' -C 'me@there' -t ") + type + " -f " + file).status, 0);
        std::string pub = read_file_text(file + ".pub");
        std::string fields = pub.substr(0, pub.rfind(' '));
        const char *cursor = pub.c_str();
        KeyPtr key = key_new(KEY_UNSPEC);
        ASSERT_EQ(key_read(key.get(), &cursor), 1);
        EXPECT_STREQ(cursor, " me@there\n");
        EXPECT_EQ(key_line(key.get(), false), fields);
        EXPECT_EQ(key_line(key.get(), true), fields + " " + user_at_host() + "\n");

        // OpenSSH reads our block, and we read OpenSSH's.
        std::ofstream(ours) << key_secsh_block(key.get(), nullptr);
        ToolResult imported = run_tool("ssh-keygen -i -f " + ours);
        ASSERT_EQ(imported.status, 0);
        EXPECT_EQ(imported.output.substr(0, fields.size()), fields);
        ASSERT_EQ(run_tool("ssh-keygen -e -f " + file + ".pub > " + theirs).status, 0);
        std::string comment;
        KeyPtr back = key_read_secsh(read_file_text(theirs), &comment);
        ASSERT_TRUE(back);
        EXPECT_TRUE(key_equal(back.get(), key.get()));
        EXPECT_NE(comment.find("-bit"), std::string::npos) << comment;
    }

    // Type names, certificate references and a key of another type.
    for (auto [text, line] : {std::pair{"ssh-rsa\tAAAA", "key_get_type: missing whitespace"},
                              {"ssh-rsa ", "key_get_type: short string"}, {"ssh-foo AAAA", "key_get_type: missing keytype"}}) {
        LogCapture log;
        EXPECT_EQ(key_get_type(&text, nullptr), KEY_UNSPEC);
        EXPECT_TRUE(log.contains(line)) << line;
    }

    const char *reference = "ssh-rsa#CERT_SYSTEM q80= comment";
    uint32_t source = 0;
    EXPECT_EQ(key_get_type(&reference, &source), KEY_RSA);
    EXPECT_EQ(source, CERT_SOURCE_SYSTEM);
    EXPECT_STREQ(reference, "q80= comment");

    // A reference whose certificate is not at hand reads as nothing.
    KeyPtr key = key_new(KEY_UNSPEC);
    const char *line = "x509v3-sign-rsa#CERT_PKCS11 q80=";
    EXPECT_EQ(key_read(key.get(), &line), -1);
    KeyPtr dsa = key_new(KEY_DSA);
    const char *rsa_line = "ssh-rsa AAAA";
    EXPECT_EQ(key_read(dsa.get(), &rsa_line), -2);
}

TEST(PublicKeyFormat, BlockLinesOfSeventy)
{
    // A line end after every 70 characters and one at the end; 105 bytes
    // give exactly 140 characters: two full lines and an empty one.
    for (auto [bytes, ends] : {std::pair{51u, std::vector<size_t>{68}}, {53u, {70, 73}}, {105u, {70, 141, 142}}}) {
        Bytes data(bytes, 0xA5);
        std::string lines = base64_lines(data.data(), data.size());
        std::vector<size_t> at;
        for (size_t i = lines.find('\n'); i != std::string::npos; i = lines.find('\n', i + 1))
            at.push_back(i);
        EXPECT_EQ(at, ends) << bytes;
    }

    uint8_t out[8];
    EXPECT_EQ(uudecode("  YWJj rest", out, sizeof out), 3);
    EXPECT_EQ(std::string(reinterpret_cast<char *>(out), 3), "abc");
    EXPECT_LT(uudecode("YW*j", out, sizeof out), 0);
    EXPECT_LT(uudecode("YWJjZGVmZ2hp", out, 4), 0);
}
