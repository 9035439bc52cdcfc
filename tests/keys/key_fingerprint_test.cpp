#include <gtest/gtest.h>

#include <cstring>

#include "keys/key_fingerprint.h"
#include "platform/platform.h"
#include "support/log_capture.h"

TEST(Fingerprint, Renderings)
{
    const uint8_t twenty[20] = {0xde, 0xad, 0xbe, 0xef, 0x01};
    std::string hex = fingerprint_hex(twenty, sizeof twenty);
    EXPECT_EQ(hex.size(), 59u);
    EXPECT_EQ(hex.substr(0, 15), "de:ad:be:ef:01:");
    EXPECT_NE(hex.back(), ':');

    EXPECT_EQ(fingerprint_bubblebabble(nullptr, 0), "xexax");
    auto babble = [](const char *text) {
        return fingerprint_bubblebabble(reinterpret_cast<const uint8_t *>(text), strlen(text));
    };
    // The published examples of the encoding.
    EXPECT_EQ(babble("1234567890"), "xesef-disof-gytuf-katof-movif-baxux");
    EXPECT_EQ(babble("Pineapple"), "xigak-nyryk-humil-bosek-sonax");

    const uint8_t abc[3] = {'a', 'b', 'c'};
    EXPECT_EQ(fingerprint_base64(abc, 3), "YWJj");
    EXPECT_EQ(fingerprint_base64(abc, 2), "YWI");  // no padding, as OpenSSH shows it
}

TEST(Fingerprint, DigestTypesAndFaults)
{
    LogCapture log;
    KeyPtr key = key_generate(KEY_RSA, 1024);
    EXPECT_EQ(key_fingerprint_raw(key.get(), SSH_FP_SHA1).size(), 20u);
    EXPECT_EQ(key_fingerprint_raw(key.get(), SSH_FP_MD5).size(), 16u);
    EXPECT_EQ(key_fingerprint_raw(key.get(), SSH_FP_SHA256).size(), 32u);
    EXPECT_EQ(key_fingerprint(key.get(), SSH_FP_MD5, SSH_FP_HEX).size(), 47u);

    // A key chosen as rsa-sha2-512 still hashes as ssh-rsa.
    std::string plain = key_fingerprint(key.get(), SSH_FP_SHA256, SSH_FP_BASE64);
    key->sigalg = signature_algorithm_by_name("rsa-sha2-512");
    EXPECT_EQ(key_fingerprint(key.get(), SSH_FP_SHA256, SSH_FP_BASE64), plain);

    EXPECT_TRUE(key_fingerprint_raw(key_new(KEY_UNSPEC).get(), SSH_FP_SHA1).empty());
    EXPECT_THROW(key_fingerprint(key_new(KEY_UNSPEC).get(), SSH_FP_SHA1, SSH_FP_HEX), FatalError);
    EXPECT_TRUE(log.contains("key_fingerprint: null from key_fingerprint_raw()"));
    EXPECT_THROW(key_fingerprint_raw(key.get(), 3), FatalError);
    EXPECT_TRUE(log.contains("key_fingerprint_raw: bad digest type 3"));
    EXPECT_THROW(key_fingerprint(key.get(), SSH_FP_SHA1, 3), FatalError);
    EXPECT_TRUE(log.contains("key_fingerprint_ex: bad digest representation 3"));
    EXPECT_THROW(key_fingerprint_raw(key_new(KEY_ECDSA).get(), SSH_FP_SHA1), FatalError);
    EXPECT_TRUE(log.contains("key_fingerprint_raw: blob is null"));
}

TEST(KeyDescription, TextsByType)
{
    std::string user = user_at_host();
    EXPECT_EQ(user, platform_user_name() + "@" + platform_host_name());
    EXPECT_EQ(key_description(key_generate(KEY_ECDSA, 256).get()), "ECDSA P256, " + user);
    EXPECT_EQ(key_description(key_generate(KEY_RSA, 2048).get()), "2048-bit RSA, " + user);
    EXPECT_EQ(key_description(key_generate(KEY_DSA, 1024).get()), "1024-bit DSA, " + user);
    EXPECT_EQ(key_description(key_generate(KEY_ED25519, 0).get()), "256-bit ED25519, " + user);
    EXPECT_EQ(key_description(key_new(KEY_UNSPEC).get()), "");
    EXPECT_EQ(key_size(key_new(KEY_RSA).get()), 0u);
}
