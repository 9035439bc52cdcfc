#include <gtest/gtest.h>

#include <openssl/obj_mac.h>

#include "keys/signature_algorithm.h"

TEST(SignatureAlgorithmTable, LookupsByNameAndSignatureName)
{
    const SignatureAlgorithm *rows = signature_algorithms();
    EXPECT_STREQ(rows[3].name, "ssh-rsa-sha2-256@tarnwell.com");
    EXPECT_STREQ(rows[14].name, "x509v3-ecdsa-sha2-nistp521");

    const SignatureAlgorithm *row = signature_algorithm_by_name("X509V3-SSH-RSA");
    ASSERT_NE(row, nullptr);
    EXPECT_STREQ(row->signature_name, "ssh-rsa");
    EXPECT_STREQ(row->base_name, "");
    EXPECT_EQ(row->hash_nid, NID_sha1);
    EXPECT_TRUE(signature_algorithm_is_certificate(row));

    row = signature_algorithm_by_name("ssh-rsa-sha2-256@TARNWELL.com");
    ASSERT_NE(row, nullptr);
    EXPECT_STREQ(row->base_name, "ssh-rsa");
    EXPECT_EQ(row->hash_nid, NID_sha256);
    EXPECT_EQ(signature_algorithm_by_name("x509v3-rsa2048-sha256")->hash_nid, NID_sha256);
    EXPECT_STREQ(signature_algorithm_by_name("x509v3-rsa2048-sha256")->signature_name, "rsa2048-sha256");
    EXPECT_EQ(signature_algorithm_by_name("ecdsa-sha2-nistp521")->hash_nid, NID_sha512);
    // Ed25519 has no separate digest step.
    EXPECT_STREQ(signature_algorithm_by_name("SSH-ED25519")->base_name, "ssh-ed25519");
    EXPECT_EQ(signature_algorithm_by_name("ssh-ed25519")->hash_nid, NID_undef);
    EXPECT_EQ(signature_algorithm_by_name("ssh-ed448"), nullptr);
    EXPECT_EQ(signature_algorithm_by_name(nullptr), nullptr);

    // The signature name "ssh-rsa" belongs first to the plain row.
    EXPECT_EQ(signature_algorithm_by_signature_name("SSH-RSA"), &rows[0]);
    EXPECT_EQ(signature_algorithm_by_signature_name("ecdsa-sha2-nistp384"), &rows[10]);

    EXPECT_STREQ(digest_text_name(NID_md5), "MD5");
    EXPECT_STREQ(digest_text_name(NID_sha1), "SHA1");
    EXPECT_STREQ(digest_text_name(NID_sha384), "SHA384");
    EXPECT_STREQ(digest_text_name(NID_sha224), "UNDEF");
}
