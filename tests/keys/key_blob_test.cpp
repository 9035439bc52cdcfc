#include <gtest/gtest.h>

#include <cstring>

#include "keys/key_blob.h"
#include "support/bytes.h"
#include "support/log_capture.h"

namespace {

Bytes blob_of(const Key *key, const char *name)
{
    SecureBytes blob;
    key_to_blob(key, &blob, nullptr, name);
    return Bytes(blob.begin(), blob.end());
}

KeyPtr read_blob(const Bytes &blob) { return key_from_blob(blob.data(), static_cast<uint32_t>(blob.size())); }

// A blob from its name and strings.
Bytes blob_from(const char *name, std::initializer_list<Bytes> strings)
{
    Buffer b;
    buffer_put_cstring(&b, name);
    for (const Bytes &s : strings)
        buffer_put_string(&b, s.data(), static_cast<uint32_t>(s.size()));
    return buffer_bytes(b);
}

Bytes text(const char *t) { return Bytes(t, t + strlen(t)); }

}  // namespace

// Every type's blob against ssh-keygen's is in the OpenSSH tests.
TEST(KeyBlob, RsaLayoutAndTheName)
{
    // A key read under rsa-sha2-512 keeps that name; its blob name stays ssh-rsa.
    KeyPtr key = key_generate(KEY_RSA, 2048);
    Bytes blob = blob_of(key.get(), "ssh-rsa");
    Bytes head = hex_bytes("00000007 7373682d727361 00000003 010001 00000101 00");
    EXPECT_EQ(Bytes(blob.begin(), blob.begin() + static_cast<long>(head.size())), head);
    EXPECT_EQ(blob.size(), 11u + 7 + 4 + 257);
    KeyPtr read = read_blob(blob_of(key.get(), "rsa-sha2-512"));
    ASSERT_NE(read, nullptr);
    EXPECT_STREQ(key_ssh_name(read.get()), "rsa-sha2-512");
    EXPECT_STREQ(key_blob_type_name(read.get()), "ssh-rsa");

    // Extra bytes after a key are logged and passed over; an unknown
    // algorithm is a key of no type, for the caller to judge.
    LogCapture log;
    blob.push_back(1);
    EXPECT_NE(key_equal(read_blob(blob).get(), key.get()), 0);
    EXPECT_TRUE(log.contains("key_from_blob: remaining bytes in key blob 1"));
    KeyPtr unknown = read_blob(blob_from("ssh-foo", {Bytes{7}}));
    ASSERT_NE(unknown, nullptr);
    EXPECT_EQ(unknown->type, KEY_UNSPEC);
}

TEST(KeyBlob, RefusalsAndTheirLogLines)
{
    KeyPtr p256 = key_generate(KEY_ECDSA, 256);
    Bytes point = blob_of(p256.get(), "ecdsa-sha2-nistp256");
    point.erase(point.begin(), point.begin() + 4 + 19 + 4 + 8 + 4);
    ASSERT_EQ(point.size(), 65u);
    Bytes compressed(point.begin(), point.begin() + 33), off_curve = point;
    compressed[0] = 0x02;
    off_curve[64] ^= 1;
    Bytes ed = blob_of(key_generate(KEY_ED25519, 0).get(), "ssh-ed25519");
    ASSERT_EQ(ed.size(), 19u + 32);
    Bytes ed_point(ed.begin() + 19, ed.end());
    Bytes ed_long = ed_point;
    ed_long.push_back(0);
    Buffer huge_rsa;
    buffer_put_cstring(&huge_rsa, "ssh-rsa");
    buffer_put_int(&huge_rsa, 8193);

    struct Case { Bytes blob; const char *line; };
    const Case cases[] = {
        {blob_from("ecdsa-sha2-nistp256", {text("nistp384"), point}),
         "key_from_blob_sig: ssh alg identifier does not match blob curve name."},
        {blob_from("ecdsa-sha2-nistp256", {text("nistp256"), compressed}),
         "get_ec_from_blob: Point conversion is uncompressed."},
        {blob_from("ecdsa-sha2-nistp256", {text("nistp256"), off_curve}), "get_ec_from_blob: unable to decode point."},
        {blob_from("ecdsa-sha2-nistp256", {text("nistp256"), Bytes(133, 4)}),
         "get_ec_from_blob: unable to decode point."},
        {blob_from("ecdsa-sha2-nistp256", {text("nistp256"), Bytes(134, 4)}), "get_ec_from_blob: Point length too large."},
        {blob_from("ecdsa-sha2-nistp256", {text("nistp256"), Bytes()}), "get_ec_from_blob: Point length too large."},
        {blob_from("ecdsa-sha2-nistp999", {text("nistp999"), point}), "key_from_blob_sig: invalid curve."},
        {blob_from("ecdsa-sha2-nistp256", {}), "key_from_blob_sig: invalid blob format."},
        {blob_from("ssh-ed25519", {Bytes(ed_point.begin(), ed_point.end() - 1)}), "key_from_blob: invalid Ed25519 key"},
        {blob_from("ssh-ed25519", {ed_long}), "key_from_blob: invalid Ed25519 key"},
        {blob_from("ssh-ed25519", {}), "key_from_blob: invalid Ed25519 key"},
        {blob_from("null", {Bytes()}), "key_from_blob: cannot handle type null"},
        {blob_from("x509v3-sign-rsa", {Bytes()}), "key_from_blob: cannot handle type x509v3-sign-rsa"},
        {blob_from("x509v3-ecdsa-sha2-nistp256", {Bytes()}), "key_from_blob: cannot handle type x509v3-ecdsa"},
    };
    for (const Case &c : cases) {
        LogCapture log;
        EXPECT_EQ(read_blob(c.blob), nullptr) << c.line;
        EXPECT_TRUE(log.contains(c.line)) << c.line;
    }
    // Big numbers past the buffer's limit are fatal, as everywhere else.
    buffer_append_space(&huge_rsa, 8193);
    EXPECT_THROW(read_blob(buffer_bytes(huge_rsa)), FatalError);

    LogCapture log;
    EXPECT_EQ(key_to_blob(nullptr, nullptr, nullptr, "ssh-rsa"), 0u);
    EXPECT_EQ(key_to_blob(key_new(KEY_ECDSA).get(), nullptr, nullptr, "ecdsa-sha2-nistp256"),
              static_cast<uint32_t>(KEY_EC_BAD_KEY));
    EXPECT_EQ(key_to_blob(key_new(KEY_UNSPEC).get(), nullptr, nullptr, "ssh-rsa"), 0u);
    EXPECT_TRUE(log.contains("key_to_blob: unsupported key type 8"));
    EXPECT_EQ(get_ec_from_blob(point.data(), 65, nullptr, nullptr), 0);
}
