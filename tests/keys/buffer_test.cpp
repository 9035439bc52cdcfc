#include <gtest/gtest.h>

#include <algorithm>
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

Buffer buffer_of(const Bytes &bytes)
{
    Buffer b;
    buffer_append(&b, bytes.data(), static_cast<uint32_t>(bytes.size()));
    return b;
}

}  // namespace

TEST(Buffer, EncodingsAndRoundTrip)
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

    EXPECT_EQ(mpint("80"), hex_bytes("00000002 0080"));
    EXPECT_EQ(mpint("7F"), hex_bytes("00000001 7F"));
    EXPECT_EQ(mpint("0"), hex_bytes("00000000"));
    BIGNUM *value = BN_new(), *back = BN_new();
    BN_set_word(value, 0x80);
    Buffer v1;
    buffer_put_bignum(&v1, value);
    EXPECT_EQ(buffer_bytes(v1), hex_bytes("0008 80"));
    EXPECT_EQ(buffer_get_bignum(&v1, back), 1);
    EXPECT_EQ(BN_cmp(value, back), 0);
    BN_hex2bn(&value, "FF00112233445566778899");
    Buffer v2;
    buffer_put_bignum2(&v2, value);
    EXPECT_EQ(buffer_get_bignum2(&v2, back), 1);
    EXPECT_EQ(BN_cmp(value, back), 0);
    BN_free(value);
    BN_free(back);
}

// Every read refuses one byte more than there is and takes exactly what
// there is.
TEST(Buffer, ReadsAtTheirLimits)
{
    LogCapture log;
    Buffer three = buffer_of(hex_bytes("010203"));
    EXPECT_EQ(buffer_get_int(&three), 0u);
    EXPECT_EQ(buffer_len(&three), 3u);
    EXPECT_TRUE(log.contains("buffer_get: trying to get more bytes 4 than in buffer 3"));
    EXPECT_EQ(buffer_consume(&three, 4), 0);
    EXPECT_EQ(buffer_consume_end(&three, 4), 0);
    EXPECT_EQ(buffer_consume_end(&three, 1), 1);
    EXPECT_EQ(buffer_bytes(three), hex_bytes("0102"));
    EXPECT_EQ(buffer_consume(&three, 2), 1);
    Buffer four = buffer_of(hex_bytes("01020304"));
    EXPECT_EQ(buffer_get_int(&four), 0x01020304u);
    Buffer empty;
    EXPECT_EQ(buffer_get_char(&empty), 0);
    EXPECT_TRUE(buffer_get_string(&empty).empty());

    // A whole string is available only with all of its bytes.
    for (auto [hex, available] : {std::pair{"000000", false}, {"00000000", true}, {"00000002 61", false},
                                  {"00000002 6162", true}, {"ffffffff 61", false}}) {
        Buffer b = buffer_of(hex_bytes(hex));
        EXPECT_EQ(buffer_string_available(&b), available) << hex;
    }

    // Strings up to 256 KiB, big numbers up to 8192 bytes; one more is fatal.
    Bytes body(0x40000, 'x');
    Buffer ok;
    buffer_put_string(&ok, body.data(), 0x40000);
    EXPECT_EQ(buffer_get_string(&ok).size(), 0x40000u);
    Buffer bad = buffer_of(hex_bytes("00040001"));
    EXPECT_THROW(buffer_get_string(&bad), FatalError);
    EXPECT_TRUE(log.contains("fatal: buffer_get_string: bad string length 262145"));
    BIGNUM *value = BN_new();
    for (auto [size, fatal] : {std::pair{8192u, false}, {8193u, true}}) {
        Bytes magnitude(size, 0x11);
        Buffer b;
        buffer_put_string(&b, magnitude.data(), size);
        if (fatal) {
            EXPECT_THROW(buffer_get_bignum2(&b, value), FatalError);
        } else {
            EXPECT_EQ(buffer_get_bignum2(&b, value), 1);
            EXPECT_EQ(BN_num_bytes(value), 8192);
        }
    }
    EXPECT_TRUE(log.contains("buffer_get_bignum2: cannot handle BN of size 8193"));
    // The version 1 form: 65535 bits is the most a length can say.
    Buffer widest;
    buffer_put_short(&widest, 65535);
    Bytes magnitude(8192, 0xff);
    buffer_append(&widest, magnitude.data(), 8192);
    EXPECT_EQ(buffer_get_bignum(&widest, value), 1);
    EXPECT_EQ(BN_num_bits(value), 65536);
    Buffer short_v1 = buffer_of(hex_bytes("0040 00000001"));
    EXPECT_THROW(buffer_get_bignum(&short_v1, value), FatalError);
    EXPECT_TRUE(log.contains("buffer_get_bignum: input buffer too small"));
    BN_free(value);
}

TEST(Buffer, GrowthCompactionAndLimits)
{
    LogCapture log;
    Buffer b;
    EXPECT_EQ(b.alloc, 4096u);
    // One byte always stays free: 4095 bytes fit, the 4096th grows.
    Bytes fill(0x100001, 0xAB);
    buffer_append(&b, fill.data(), 4095);
    EXPECT_EQ(b.alloc, 4096u);
    buffer_put_char(&b, 1);
    EXPECT_EQ(b.alloc, 4096u + 1 + 0x8000);
    // A fully read buffer starts again from the front.
    ASSERT_TRUE(buffer_consume(&b, buffer_len(&b)));
    buffer_put_int(&b, 7);
    EXPECT_EQ(b.offset, 0u);

    // Consumed data is moved down instead of growing once more than half
    // the storage is consumed; at exactly half it grows.
    for (auto [consumed, alloc] : {std::pair{2049u, 4096u}, {2048u, 4096u + 3000 + 0x8000}}) {
        Buffer c;
        buffer_append(&c, fill.data(), 3000);
        buffer_consume(&c, consumed);
        buffer_append(&c, fill.data(), 3000);
        EXPECT_EQ(c.alloc, alloc) << consumed;
        EXPECT_EQ(buffer_len(&c), 6000 - consumed);
    }

    // One append takes at most 1 MiB; a refused one changes nothing.
    Buffer r;
    buffer_put_int(&r, 0x01020304);
    buffer_append(&r, fill.data(), 0x100001);
    EXPECT_TRUE(log.contains("buffer_append_space: len 1048577 not supported"));
    EXPECT_EQ(buffer_bytes(r), hex_bytes("01020304"));
    buffer_append(&r, fill.data(), 0x100000);
    EXPECT_EQ(buffer_len(&r), 4u + 0x100000);
    // Storage never grows beyond 10 MiB.
    Buffer huge;
    log.clear();
    for (int i = 0; i < 12; ++i)
        buffer_append(&huge, fill.data(), 0x100000);
    EXPECT_LE(huge.alloc, 0xA00000u);
    EXPECT_GE(buffer_len(&huge), 9u * 0x100000);
    EXPECT_TRUE(log.contains("buffer_append_space: alloc"));
}

// Whatever was written, moved down by a consume, grown past or handed out
// by a refused append, the wiping clear leaves none of it in the storage.
TEST(Buffer, WipingClearLeavesNoByteBehind)
{
    const std::string mark = "wipe me: 7f3a9c";  // found nowhere else in memory
    auto holds_mark = [&](const Buffer &b) {
        return std::search(b.buf, b.buf + b.alloc, mark.begin(), mark.end()) != b.buf + b.alloc;
    };
    std::string bytes;
    while (bytes.size() < 3000)
        bytes += mark;
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
            memcpy(buffer_append_space(&b, BUFFER_MAX_CHUNK + 1), mark.data(), mark.size());
        buffer_clear_wipe(&b);
        EXPECT_FALSE(holds_mark(b));
        buffer_append(&b, bytes.data(), 100);
        buffer_clear_wipe(&b);
        EXPECT_FALSE(holds_mark(b));
    }
}
