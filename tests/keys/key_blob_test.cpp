#include <gtest/gtest.h>

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

// An ECDSA blob from its parts.
Bytes ecdsa_blob(const char *name, const char *curve, const Bytes &point)
{
    Buffer b;
    buffer_put_cstring(&b, name);
    buffer_put_cstring(&b, curve);
    buffer_put_string(&b, point.data(), static_cast<uint32_t>(point.size()));
    return buffer_bytes(b);
}

// The point string of a P-256 key's blob.
Bytes p256_point()
{
    KeyPtr key = key_generate(KEY_ECDSA, 256);
    Buffer b;
    Bytes blob = blob_of(key.get(), "ecdsa-sha2-nistp256");
    buffer_append(&b, blob.data(), static_cast<uint32_t>(blob.size()));
    buffer_get_string(&b);
    buffer_get_string(&b);
    SecureBytes point = buffer_get_string(&b);
    return Bytes(point.begin(), point.end());
}

}  // namespace

TEST(KeyBlob, RsaLayoutAndNameKeptFromBlob)
{
    KeyPtr key = key_generate(KEY_RSA, 2048);
    Bytes blob = blob_of(key.get(), "ssh-rsa");
    Bytes head = hex_bytes("00000007 7373682d727361 00000003 010001 00000101 00");
    ASSERT_GT(blob.size(), head.size());
    EXPECT_EQ(Bytes(blob.begin(), blob.begin() + static_cast<long>(head.size())), head);
    EXPECT_EQ(blob.size(), 11u + 7 + 4 + 257);

    // A key read under rsa-sha2-512 keeps that name but hashes as ssh-rsa.
    Bytes renamed = blob_of(key.get(), "rsa-sha2-512");
    KeyPtr read = read_blob(renamed);
    ASSERT_NE(read, nullptr);
    EXPECT_STREQ(key_ssh_name(read.get()), "rsa-sha2-512");
    EXPECT_STREQ(key_blob_type_name(read.get()), "ssh-rsa");
    EXPECT_NE(key_equal(read.get(), key.get()), 0);
}

TEST(KeyBlob, RoundTripsEveryType)
{
    for (auto [type, bits] : {std::pair{KEY_RSA, 1024u}, std::pair{KEY_DSA, 1024u}, std::pair{KEY_ECDSA, 256u},
                              std::pair{KEY_ECDSA, 384u}, std::pair{KEY_ECDSA, 521u}}) {
        KeyPtr key = key_generate(type, bits);
        Bytes blob = blob_of(key.get(), key_ssh_name(key.get()));
        KeyPtr read = read_blob(blob);
        ASSERT_NE(read, nullptr);
        EXPECT_EQ(read->type, type);
        EXPECT_EQ(read->ecdsa_nid, key->ecdsa_nid);
        EXPECT_NE(key_equal(read.get(), key.get()), 0);
        EXPECT_EQ(blob_of(read.get(), key_ssh_name(read.get())), blob);
    }
}

TEST(KeyBlob, RefusalsAndTheirLogLines)
{
    LogCapture log;
    Bytes point = p256_point();
    ASSERT_EQ(point.size(), 65u);

    EXPECT_EQ(read_blob(ecdsa_blob("ecdsa-sha2-nistp256", "nistp384", point)), nullptr);
    EXPECT_TRUE(log.contains("key_from_blob_sig: ssh alg identifier does not match blob curve name."));

    for (uint8_t prefix : {0x02, 0x03}) {
        log.clear();
        Bytes compressed(point.begin(), point.begin() + 33);
        compressed[0] = prefix;
        EXPECT_EQ(read_blob(ecdsa_blob("ecdsa-sha2-nistp256", "nistp256", compressed)), nullptr);
        EXPECT_TRUE(log.contains("get_ec_from_blob: Point conversion is uncompressed."));
        EXPECT_TRUE(log.contains("key_from_blob_sig: Unable to decode blob."));
    }

    log.clear();
    Bytes off_curve = point;
    off_curve[64] ^= 1;
    EXPECT_EQ(read_blob(ecdsa_blob("ecdsa-sha2-nistp256", "nistp256", off_curve)), nullptr);
    EXPECT_TRUE(log.contains("get_ec_from_blob: unable to decode point."));

    log.clear();
    EXPECT_EQ(read_blob(ecdsa_blob("ecdsa-sha2-nistp256", "nistp256", Bytes(134, 4))), nullptr);
    EXPECT_TRUE(log.contains("get_ec_from_blob: Point length too large."));

    log.clear();
    EXPECT_EQ(read_blob(ecdsa_blob("ecdsa-sha2-nistp999", "nistp999", point)), nullptr);
    EXPECT_TRUE(log.contains("key_from_blob_sig: invalid curve."));

    log.clear();
    Buffer no_curve;
    buffer_put_cstring(&no_curve, "ecdsa-sha2-nistp256");
    EXPECT_EQ(read_blob(buffer_bytes(no_curve)), nullptr);
    EXPECT_TRUE(log.contains("key_from_blob_sig: invalid blob format."));

    for (const char *name : {"null", "x509v3-sign-rsa", "x509v3-ecdsa-sha2-nistp256"}) {
        log.clear();
        Buffer b;
        buffer_put_cstring(&b, name);
        buffer_put_int(&b, 0);
        EXPECT_EQ(read_blob(buffer_bytes(b)), nullptr);
        EXPECT_TRUE(log.contains(std::string("key_from_blob: cannot handle type ") + name));
    }
}

TEST(KeyBlob, LenientCases)
{
    LogCapture log;
    KeyPtr key = key_generate(KEY_RSA, 1024);
    Bytes blob = blob_of(key.get(), "ssh-rsa");
    blob.insert(blob.end(), {1, 2, 3, 4});
    KeyPtr read = read_blob(blob);
    ASSERT_NE(read, nullptr);
    EXPECT_NE(key_equal(read.get(), key.get()), 0);
    EXPECT_TRUE(log.contains("key_from_blob: remaining bytes in key blob 4"));

    Buffer foo;
    buffer_put_cstring(&foo, "ssh-foo");
    buffer_put_int(&foo, 7);
    KeyPtr unknown = read_blob(buffer_bytes(foo));
    ASSERT_NE(unknown, nullptr);
    EXPECT_EQ(unknown->type, KEY_UNSPEC);

    // Big numbers past the buffer's limit are fatal, as everywhere else.
    Buffer huge;
    buffer_put_cstring(&huge, "ssh-rsa");
    buffer_put_int(&huge, 8193);
    buffer_append_space(&huge, 8193);
    EXPECT_THROW(read_blob(buffer_bytes(huge)), FatalError);
}

TEST(KeyBlob, WriterRefusals)
{
    LogCapture log;
    EXPECT_EQ(key_to_blob(nullptr, nullptr, nullptr, "ssh-rsa"), 0u);
    EXPECT_TRUE(log.contains("key_to_blob: key == NULL"));
    EXPECT_EQ(key_to_blob(key_new(KEY_ECDSA).get(), nullptr, nullptr, "ecdsa-sha2-nistp256"),
              static_cast<uint32_t>(KEY_EC_BAD_KEY));
    EXPECT_TRUE(log.contains("key_to_blob: Error, key does not have ecKey params."));
    EXPECT_EQ(key_to_blob(key_new(KEY_UNSPEC).get(), nullptr, nullptr, "ssh-rsa"), 0u);
    EXPECT_TRUE(log.contains("key_to_blob: unsupported key type 8"));
    EXPECT_EQ(get_ec_from_blob(p256_point().data(), 65, nullptr, nullptr), 0);
}

TEST(KeyBlob, Ed25519LayoutAndRefusals)
{
    // The layout itself is checked against ssh-keygen's blobs.
    LogCapture log;
    Bytes blob = blob_of(key_generate(KEY_ED25519, 0).get(), "ssh-ed25519");
    ASSERT_EQ(blob.size(), 19u + 32);
    // A public key of any other length, or none at all, is refused.
    for (size_t cut : {1u, 32u}) {
        Bytes short_blob(blob.begin(), blob.end() - static_cast<long>(cut));
        short_blob[18] = static_cast<uint8_t>(32 - cut);
        EXPECT_EQ(read_blob(short_blob), nullptr) << cut;
    }
    EXPECT_TRUE(log.contains("key_from_blob: invalid Ed25519 key"));
}
