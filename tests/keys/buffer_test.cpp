#include <gtest/gtest.h>

#include <cstring>
#include <vector>

#include "keys/buffer.h"
#include "support/bytes.h"
#include "support/log_capture.h"

namespace {

Bytes mpint(const char *hex)
{
    BIGNUM *value = nullptr;
    BN_hex2bn(&value, hex);
    Buffer b;
    buffer_put_bignum2(&b, value);
    BN_free(value);
    return buffer_bytes(b);
}

}  // namespace

TEST(Buffer, GrowthCompactionAndRewind)
{
    Buffer b;
    EXPECT_EQ(b.alloc, 4096u);

    // One byte always stays free: filling to 4095 and adding one more grows.
    Bytes fill(4095, 0xAB);
    buffer_append(&b, fill.data(), 4095);
    EXPECT_EQ(b.alloc, 4096u);
    buffer_put_char(&b, 1);
    EXPECT_EQ(b.alloc, 4096u + 1 + 0x8000);

    // A fully read buffer starts again from the front.
    ASSERT_TRUE(buffer_consume(&b, buffer_len(&b)));
    buffer_put_int(&b, 7);
    EXPECT_EQ(b.offset, 0u);
    EXPECT_EQ(b.end, 4u);

    // Consumed data is compacted away instead of growing once past half.
    Buffer c;
    buffer_append(&c, fill.data(), 3000);
    buffer_consume(&c, 2500);
    buffer_append(&c, fill.data(), 3000);
    EXPECT_EQ(c.alloc, 4096u);
    EXPECT_EQ(c.offset, 0u);
    EXPECT_EQ(buffer_len(&c), 3500u);
}

TEST(Buffer, RefusedAppendsLeaveTheBufferUnchanged)
{
    LogCapture log;
    Buffer b;
    buffer_put_int(&b, 0x01020304);
    Bytes big(0x100001, 0x55);
    buffer_append(&b, big.data(), 0x100001);
    EXPECT_TRUE(log.contains("buffer_append_space: len 1048577 not supported"));
    EXPECT_EQ(buffer_bytes(b), hex_bytes("01020304"));

    buffer_append(&b, big.data(), 0x100000);
    EXPECT_EQ(buffer_len(&b), 4u + 0x100000);

    // Storage never grows beyond 10 MiB.
    Buffer huge;
    log.clear();
    for (int i = 0; i < 12; ++i)
        buffer_append(&huge, big.data(), 0x100000);
    EXPECT_LE(huge.alloc, 0xA00000u);
    EXPECT_TRUE(log.contains("buffer_append_space: alloc"));
}

TEST(Buffer, ShortReadsYieldZeroAndConsumeNothing)
{
    LogCapture log;
    Buffer b;
    buffer_append(&b, "\x01\x02\x03", 3);
    EXPECT_EQ(buffer_get_int(&b), 0u);
    EXPECT_EQ(buffer_len(&b), 3u);
    EXPECT_TRUE(log.contains("buffer_get: trying to get more bytes 4 than in buffer 3"));

    EXPECT_EQ(buffer_consume(&b, 4), 0);
    EXPECT_TRUE(log.contains("error: buffer_consume: trying to get more bytes than in buffer"));
    EXPECT_EQ(buffer_consume_end(&b, 1), 1);
    EXPECT_EQ(buffer_bytes(b), hex_bytes("0102"));

    Buffer empty;
    EXPECT_EQ(buffer_get_char(&empty), 0);
    EXPECT_TRUE(buffer_get_string(&empty).empty());
}

TEST(Buffer, IntegerAndStringEncodings)
{
    Buffer b;
    buffer_put_char(&b, 0xFE);
    buffer_put_short(&b, 0x1234);
    buffer_put_int(&b, 0xDEADBEEF);
    buffer_put_int64(&b, 0x0102030405060708ull);
    buffer_put_cstring(&b, "abc");
    buffer_put_cstring(&b, nullptr);  // appends nothing, not even a length
    EXPECT_EQ(buffer_bytes(b), hex_bytes("FE 1234 DEADBEEF 0102030405060708 00000003 616263"));

    EXPECT_EQ(buffer_get_char(&b), 0xFE);
    EXPECT_EQ(buffer_get_short(&b), 0x1234);
    EXPECT_EQ(buffer_get_int(&b), 0xDEADBEEFu);
    EXPECT_EQ(buffer_get_int64(&b), 0x0102030405060708ull);
    uint32_t len = 0;
    SecureBytes s = buffer_get_string(&b, &len);
    EXPECT_EQ(len, 3u);
    EXPECT_EQ(std::string(s.begin(), s.end()), "abc");
    EXPECT_EQ(buffer_len(&b), 0u);
}

TEST(Buffer, StringLengthLimitIsFatal)
{
    LogCapture log;
    Bytes body(0x40000, 'x');
    Buffer ok;
    buffer_put_string(&ok, body.data(), static_cast<uint32_t>(body.size()));
    EXPECT_EQ(buffer_get_string(&ok).size(), 0x40000u);

    Buffer bad;
    buffer_put_int(&bad, 0x40001);
    EXPECT_THROW(buffer_get_string(&bad), FatalError);
    EXPECT_TRUE(log.contains("fatal: buffer_get_string: bad string length 262145"));
}

TEST(Buffer, BignumEncodings)
{
    EXPECT_EQ(mpint("80"), hex_bytes("00000002 0080"));
    EXPECT_EQ(mpint("7F"), hex_bytes("00000001 7F"));
    EXPECT_EQ(mpint("0"), hex_bytes("00000000"));

    BIGNUM *value = BN_new();
    BN_set_word(value, 0x80);
    Buffer v1;
    buffer_put_bignum(&v1, value);
    EXPECT_EQ(buffer_bytes(v1), hex_bytes("0008 80"));
    BIGNUM *back = BN_new();
    EXPECT_EQ(buffer_get_bignum(&v1, back), 1);
    EXPECT_EQ(BN_cmp(value, back), 0);

    // A round trip through the SSH form, with the top bit set.
    BN_hex2bn(&value, "FF00112233445566778899");
    Buffer v2;
    buffer_put_bignum2(&v2, value);
    EXPECT_EQ(buffer_get_bignum2(&v2, back), 1);
    EXPECT_EQ(BN_cmp(value, back), 0);
    BN_free(value);
    BN_free(back);
}

TEST(Buffer, BignumSizeLimits)
{
    LogCapture log;
    BIGNUM *value = BN_new();
    Bytes magnitude(8192, 0x11);
    Buffer ok;
    buffer_put_string(&ok, magnitude.data(), 8192);
    EXPECT_EQ(buffer_get_bignum2(&ok, value), 1);
    EXPECT_EQ(BN_num_bytes(value), 8192);

    Bytes too_big(8193, 0x11);
    Buffer bad;
    buffer_put_string(&bad, too_big.data(), 8193);
    EXPECT_THROW(buffer_get_bignum2(&bad, value), FatalError);
    EXPECT_TRUE(log.contains("buffer_get_bignum2: cannot handle BN of size 8193"));

    Buffer short_v1;
    buffer_put_short(&short_v1, 64);
    buffer_put_int(&short_v1, 1);
    EXPECT_THROW(buffer_get_bignum(&short_v1, value), FatalError);
    EXPECT_TRUE(log.contains("buffer_get_bignum: input buffer too small"));
    BN_free(value);
}

// Whatever was written, moved down by a consume, grown past or handed out
// by a refused append, the wiping clear leaves none of it in the storage.
TEST(Buffer, WipingClearLeavesNoByteBehind)
{
    auto all_zero = [](const Buffer &b) {
        for (uint32_t i = 0; i < b.alloc; ++i)
            if (b.buf[i] == 0xa5 || b.buf[i] == 0x5a)
                return false;
        return true;
    };
    std::vector<uint8_t> bytes(3000, 0xa5);
    for (int steps = 0; steps < 4; ++steps) {
        SCOPED_TRACE(steps);
        Buffer b;
        buffer_append(&b, bytes.data(), 100);
        if (steps >= 1) {  // consumed, then moved down by the next append
            buffer_consume(&b, 90);
            buffer_append(&b, bytes.data(), 3000);
            buffer_append(&b, bytes.data(), 1000);
        }
        if (steps >= 2)  // grown
            buffer_append(&b, bytes.data(), 3000);
        if (steps >= 3)  // refused: the start of the storage is handed out
            memset(buffer_append_space(&b, BUFFER_MAX_CHUNK + 1), 0x5a, 16);
        buffer_clear_wipe(&b);
        EXPECT_TRUE(all_zero(b));
        buffer_append(&b, bytes.data(), 10);
        buffer_clear_wipe(&b);
        EXPECT_TRUE(all_zero(b));
    }
}
