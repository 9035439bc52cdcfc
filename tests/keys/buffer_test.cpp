#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>

#include "keys/buffer.h"
#include "keys/ossl_ptr.h"
#include "support/bytes.h"
#include "support/log_capture.h"

namespace {

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

    // Both big number forms, written and read back.
    BnPtr value(BN_new()), back(BN_new());
    for (auto [hex, v2, v1] : {std::tuple{"80", "00000002 0080", "0008 80"}, {"7F", "00000001 7F", "0007 7F"},
                               {"0", "00000000", "0000"}, {"FF00112233445566778899", "", ""}}) {
        BIGNUM *raw = value.get();
        BN_hex2bn(&raw, hex);
        Buffer b1, b2;
        buffer_put_bignum(&b1, value.get());
        buffer_put_bignum2(&b2, value.get());
        if (*v2) {
            EXPECT_EQ(buffer_bytes(b2), hex_bytes(v2)) << hex;
            EXPECT_EQ(buffer_bytes(b1), hex_bytes(v1)) << hex;
        }
        EXPECT_EQ(buffer_get_bignum(&b1, back.get()), 1);
        EXPECT_EQ(BN_cmp(value.get(), back.get()), 0) << hex;
        EXPECT_EQ(buffer_get_bignum2(&b2, back.get()), 1);
        EXPECT_EQ(BN_cmp(value.get(), back.get()), 0) << hex;
    }
}

// Every read refuses one byte more than there is and takes exactly what
// there is.
TEST(Buffer, ReadsAtTheirLimits)
{
    LogCapture log;
    Buffer three = buffer_of(hex_bytes("010203")), four = buffer_of(hex_bytes("01020304")), empty;
    EXPECT_EQ(buffer_get_int(&three), 0u);
    EXPECT_EQ(buffer_len(&three), 3u);
    EXPECT_TRUE(log.contains("buffer_get: trying to get more bytes 4 than in buffer 3"));
    EXPECT_EQ(buffer_consume(&three, 4), 0);
    EXPECT_EQ(buffer_consume_end(&three, 4), 0);
    EXPECT_EQ(buffer_consume_end(&three, 1), 1);
    EXPECT_EQ(buffer_bytes(three), hex_bytes("0102"));
    EXPECT_EQ(buffer_consume(&three, 2), 1);
    EXPECT_EQ(buffer_get_int(&four), 0x01020304u);
    EXPECT_EQ(buffer_get_char(&empty), 0);
    EXPECT_TRUE(buffer_get_string(&empty).empty());

    // A whole string is available only with all of its bytes.
    for (auto [hex, available] : {std::pair{"000000", false}, {"00000000", true}, {"00000002 61", false},
                                  {"00000002 6162", true}, {"ffffffff 61", false}}) {
        Buffer b = buffer_of(hex_bytes(hex));
        EXPECT_EQ(buffer_string_available(&b), available) << hex;
    }

    // Strings up to 256 KiB, big numbers up to 8192 bytes; one more is fatal.
    BnPtr value(BN_new());
    for (auto [size, fatal] : {std::pair{0x40000u, false}, {0x40001u, true}}) {
        Buffer b = buffer_of(frame(Bytes(size, 'x')));
        if (fatal)
            EXPECT_THROW(buffer_get_string(&b), FatalError);
        else
            EXPECT_EQ(buffer_get_string(&b).size(), size);
    }
    EXPECT_TRUE(log.contains("fatal: buffer_get_string: bad string length 262145"));
    for (auto [size, fatal] : {std::pair{8192u, false}, {8193u, true}}) {
        Buffer b = buffer_of(frame(Bytes(size, 0x11)));
        if (fatal)
            EXPECT_THROW(buffer_get_bignum2(&b, value.get()), FatalError);
        else
            EXPECT_TRUE(buffer_get_bignum2(&b, value.get()) == 1 && BN_num_bytes(value.get()) == 8192);
    }
    EXPECT_TRUE(log.contains("buffer_get_bignum2: cannot handle BN of size 8193"));
    // The version 1 form: 65535 bits is the most a length can say.
    Buffer widest = buffer_of(Bytes(8194, 0xff)), short_v1 = buffer_of(hex_bytes("0040 00000001"));
    EXPECT_EQ(buffer_get_bignum(&widest, value.get()), 1);
    EXPECT_EQ(BN_num_bits(value.get()), 65536);
    EXPECT_THROW(buffer_get_bignum(&short_v1, value.get()), FatalError);
    EXPECT_TRUE(log.contains("buffer_get_bignum: input buffer too small"));
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
    Buffer r = buffer_of(hex_bytes("01020304"));
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
    // Built in one allocation: a freed smaller copy could come back as a
    // buffer's fresh storage and show the mark where nothing was written.
    std::string bytes;
    bytes.reserve(3000 + mark.size());
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
        for (int round = 0; round < 2; ++round) {
            buffer_clear_wipe(&b);
            EXPECT_EQ(std::search(b.buf, b.buf + b.alloc, mark.begin(), mark.end()), b.buf + b.alloc);
            buffer_append(&b, bytes.data(), 100);
        }
    }
}
