#include "keys/buffer.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "log/log.h"

Buffer::Buffer() { buffer_init(this); }

Buffer::~Buffer() { buffer_free(this); }

Buffer::Buffer(Buffer &&other) noexcept
    : buf(other.buf), alloc(other.alloc), offset(other.offset), end(other.end), touched(other.touched)
{
    other.buf = nullptr;
    other.alloc = other.offset = other.end = other.touched = 0;
}

Buffer &Buffer::operator=(Buffer &&other) noexcept
{
    if (this != &other) {
        buffer_free(this);
        buf = other.buf;
        alloc = other.alloc;
        offset = other.offset;
        end = other.end;
        touched = other.touched;
        other.buf = nullptr;
        other.alloc = other.offset = other.end = other.touched = 0;
    }
    return *this;
}

void buffer_init(Buffer *b)
{
    b->buf = static_cast<uint8_t *>(malloc(BUFFER_INITIAL_SIZE));
    if (!b->buf)
        abort();
    b->alloc = BUFFER_INITIAL_SIZE;
    b->offset = b->end = b->touched = 0;
}

void buffer_clear(Buffer *b) { b->offset = b->end = 0; }

void buffer_clear_wipe(Buffer *b)
{
    wipe_memory(b->buf, b->touched);
    b->touched = 0;
    buffer_clear(b);
}

void buffer_free(Buffer *b)
{
    if (b->alloc != 0) {
        wipe_memory(b->buf, b->touched);
        free(b->buf);
    }
    b->buf = nullptr;
    b->alloc = b->offset = b->end = b->touched = 0;
}

uint32_t buffer_len(const Buffer *b) { return b->end - b->offset; }

uint8_t *buffer_ptr(const Buffer *b) { return b->buf + b->offset; }

namespace {

// Reserves `len` bytes at the end; null when the append is refused.
uint8_t *reserve(Buffer *b, uint32_t len)
{
    if (len > BUFFER_MAX_CHUNK) {
        error("buffer_append_space: len %u not supported", len);
        return nullptr;
    }
    if (b->buf == nullptr)
        buffer_init(b);
    if (b->offset == b->end)
        b->offset = b->end = 0;
    for (;;) {
        // One byte always stays free: the reserve needs end + len < alloc.
        if (static_cast<uint64_t>(b->end) + len < b->alloc) {
            uint8_t *p = b->buf + b->end;
            b->end += len;
            if (b->end > b->touched)
                b->touched = b->end;
            return p;
        }
        if (b->offset > b->alloc / 2) {
            memmove(b->buf, b->buf + b->offset, b->end - b->offset);
            b->end -= b->offset;
            b->offset = 0;
            continue;
        }
        uint64_t grown = static_cast<uint64_t>(b->alloc) + len + BUFFER_GROWTH_EXTRA;
        if (grown > BUFFER_MAX_ALLOC) {
            error("buffer_append_space: alloc %u not supported", b->alloc);
            return nullptr;
        }
        // Grow by copying so that the old storage can be wiped first.
        auto *fresh = static_cast<uint8_t *>(malloc(grown));
        if (!fresh)
            abort();
        memcpy(fresh, b->buf, b->end);
        wipe_memory(b->buf, b->touched);
        b->touched = b->end;
        free(b->buf);
        b->buf = fresh;
        b->alloc = static_cast<uint32_t>(grown);
    }
}

}  // namespace

uint8_t *buffer_append_space(Buffer *b, uint32_t len)
{
    // A refusal hands back the start of the storage, reserving nothing;
    // whatever the caller writes there is wiped with the rest.
    uint8_t *p = reserve(b, len);
    if (!p)
        b->touched = b->alloc;
    return p ? p : b->buf;
}

void buffer_append(Buffer *b, const void *data, uint32_t len)
{
    // After a refusal nothing is copied: the storage keeps its live data.
    uint8_t *p = reserve(b, len);
    if (p && len)
        memcpy(p, data, len);
}

int buffer_get(Buffer *b, void *out, uint32_t len)
{
    if (len == 0)
        return 1;
    static_cast<uint8_t *>(out)[0] = 0;
    if (len > buffer_len(b)) {
        debug3("buffer_get: trying to get more bytes %d than in buffer %d", static_cast<int>(len),
               static_cast<int>(buffer_len(b)));
        return 0;
    }
    memcpy(out, b->buf + b->offset, len);
    b->offset += len;
    return 1;
}

int buffer_consume(Buffer *b, uint32_t len)
{
    if (len > buffer_len(b)) {
        error("buffer_consume: trying to get more bytes than in buffer");
        return 0;
    }
    b->offset += len;
    return 1;
}

int buffer_consume_end(Buffer *b, uint32_t len)
{
    if (len > buffer_len(b)) {
        error("buffer_consume_end: trying to get more bytes than in buffer");
        return 0;
    }
    b->end -= len;
    return 1;
}

void buffer_dump(const Buffer *b)
{
    const uint8_t *p = buffer_ptr(b);
    for (uint32_t i = 0; i < buffer_len(b); ++i) {
        fprintf(stderr, "%02x", p[i]);
        if (i % 16 == 15)
            fprintf(stderr, "\r\n");
        else if (i % 2 == 1)
            fprintf(stderr, " ");
    }
    fprintf(stderr, "\r\n");
}

void buffer_put_char(Buffer *b, uint8_t value) { buffer_append(b, &value, 1); }

uint8_t buffer_get_char(Buffer *b)
{
    uint8_t value = 0;
    buffer_get(b, &value, 1);
    return value;
}

void buffer_put_short(Buffer *b, uint16_t value)
{
    uint8_t bytes[2] = {static_cast<uint8_t>(value >> 8), static_cast<uint8_t>(value)};
    buffer_append(b, bytes, 2);
}

uint16_t buffer_get_short(Buffer *b)
{
    uint8_t bytes[2] = {0, 0};
    buffer_get(b, bytes, 2);
    return static_cast<uint16_t>(bytes[0] << 8 | bytes[1]);
}

void buffer_put_int(Buffer *b, uint32_t value)
{
    uint8_t bytes[4] = {static_cast<uint8_t>(value >> 24), static_cast<uint8_t>(value >> 16),
                        static_cast<uint8_t>(value >> 8), static_cast<uint8_t>(value)};
    buffer_append(b, bytes, 4);
}

uint32_t buffer_get_int(Buffer *b)
{
    uint8_t bytes[4] = {0, 0, 0, 0};
    if (!buffer_get(b, bytes, 4))
        return 0;
    return get_u32(bytes);
}

void buffer_put_int64(Buffer *b, uint64_t value)
{
    buffer_put_int(b, static_cast<uint32_t>(value >> 32));
    buffer_put_int(b, static_cast<uint32_t>(value));
}

uint64_t buffer_get_int64(Buffer *b)
{
    uint8_t bytes[8] = {};
    buffer_get(b, bytes, 8);
    uint64_t value = 0;
    for (uint8_t byte : bytes)
        value = value << 8 | byte;
    return value;
}

void buffer_put_string(Buffer *b, const void *data, uint32_t len)
{
    buffer_put_int(b, len);
    buffer_append(b, data, len);
}

void buffer_put_cstring(Buffer *b, const char *s)
{
    if (s == nullptr)
        return;
    buffer_put_string(b, s, static_cast<uint32_t>(strlen(s)));
}

void buffer_put_cstring_utf8(Buffer *b, const char *s) { buffer_put_cstring(b, s); }

bool buffer_string_available(const Buffer *b)
{
    if (buffer_len(b) < 4)
        return false;
    return get_u32(buffer_ptr(b)) <= buffer_len(b) - 4;
}

SecureBytes buffer_get_string(Buffer *b, uint32_t *lenp)
{
    uint32_t len = buffer_get_int(b);
    if (len > BUFFER_MAX_STRING)
        fatal_input("buffer_get_string: bad string length %u", len);
    SecureBytes value(len, 0);
    if (len)
        buffer_get(b, value.data(), len);
    if (lenp)
        *lenp = len;
    return value;
}

std::string buffer_get_string_text(Buffer *b)
{
    SecureBytes bytes = buffer_get_string(b);
    return std::string(bytes.begin(), bytes.end());
}

SecretString buffer_get_string_secret(Buffer *b)
{
    SecureBytes bytes = buffer_get_string(b);
    return SecretString(bytes.begin(), bytes.end());
}

std::string buffer_get_string_local(Buffer *b, uint32_t *lenp)
{
    std::string text = buffer_get_string_text(b);
    if (lenp)
        *lenp = static_cast<uint32_t>(text.size());
    return text;
}

void buffer_put_bignum(Buffer *b, const BIGNUM *value)
{
    int bits = BN_num_bits(value);
    int bin_size = (bits + 7) / 8;
    SecureBytes bytes(static_cast<size_t>(bin_size) + 1, 0);
    int oi = BN_bn2bin(value, bytes.data());
    if (oi != bin_size)
        fatal("buffer_put_bignum: BN_bn2bin() failed: oi %d != bin_size %d", oi, bin_size);
    buffer_put_short(b, static_cast<uint16_t>(bits));
    buffer_append(b, bytes.data(), static_cast<uint32_t>(bin_size));
}

int buffer_get_bignum(Buffer *b, BIGNUM *value)
{
    uint32_t bits = buffer_get_short(b);
    uint32_t bytes = (bits + 7) / 8;
    if (bytes > BUFFER_MAX_BIGNUM_BYTES)
        fatal_input("buffer_get_bignum: cannot handle BN of size %d", static_cast<int>(bytes));
    if (buffer_len(b) < bytes)
        fatal_input("buffer_get_bignum: input buffer too small");
    BN_bin2bn(buffer_ptr(b), static_cast<int>(bytes), value);
    return buffer_consume(b, bytes);
}

void buffer_put_bignum2(Buffer *b, const BIGNUM *value)
{
    int n = BN_num_bytes(value);
    SecureBytes bytes(static_cast<size_t>(n) + 1, 0);
    int oi = BN_bn2bin(value, bytes.data() + 1);
    if (oi != n)
        fatal("buffer_put_bignum: BN_bn2bin() failed: oi %d != bin_size %d", oi, n + 1);
    int hasnohigh = n > 0 && (bytes[1] & 0x80) == 0 ? 1 : 0;
    if (n == 0)
        hasnohigh = 1;
    if (BN_is_negative(value)) {
        logit("negativ!");
        bool carry = true;
        for (int i = n; i >= 0; --i) {
            bytes[i] = static_cast<uint8_t>(~bytes[i]);
            if (carry) {
                bytes[i] = static_cast<uint8_t>(bytes[i] + 1);
                carry = bytes[i] == 0;
            }
        }
    }
    buffer_put_string(b, bytes.data() + hasnohigh, static_cast<uint32_t>(n + 1 - hasnohigh));
}

int buffer_get_bignum2(Buffer *b, BIGNUM *value)
{
    uint32_t len = 0;
    SecureBytes bytes = buffer_get_string(b, &len);
    if (len > BUFFER_MAX_BIGNUM_BYTES)
        fatal_input("buffer_get_bignum2: cannot handle BN of size %d", static_cast<int>(len));
    return BN_bin2bn(bytes.data(), static_cast<int>(len), value) != nullptr ? 1 : 0;
}

void buffer_put_buffer_string(Buffer *b, const Buffer *source)
{
    buffer_put_string(b, buffer_ptr(source), buffer_len(source));
}
