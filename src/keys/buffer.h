// Growable byte queue with the SSH wire encodings. Data is appended at the
// end and consumed from the front; integers are big-endian.
#pragma once

#include <cstdint>
#include <string>

#include <openssl/bn.h>

#include "keys/secure_memory.h"

constexpr uint32_t BUFFER_INITIAL_SIZE = 4096;
constexpr uint32_t BUFFER_MAX_CHUNK = 0x100000;
constexpr uint32_t BUFFER_MAX_ALLOC = 0xA00000;
constexpr uint32_t BUFFER_GROWTH_EXTRA = 0x8000;
constexpr uint32_t BUFFER_MAX_STRING = 0x40000;
constexpr uint32_t BUFFER_MAX_BIGNUM_BYTES = 8192;

// The big-endian 32-bit number in the 4 bytes at `p`.
inline uint32_t get_u32(const uint8_t *p)
{
    return static_cast<uint32_t>(p[0]) << 24 | static_cast<uint32_t>(p[1]) << 16 | static_cast<uint32_t>(p[2]) << 8 |
           p[3];
}

// What was written to the storage is overwritten on free, on growth and by
// the wiping clear, because buffers carry private keys and passphrases. A Buffer owns its
// storage: it is initialised on construction and freed on destruction.
struct Buffer {
    uint8_t *buf = nullptr;
    uint32_t alloc = 0;
    uint32_t offset = 0;
    uint32_t end = 0;
    // Bytes past this were never handed out, so wiping stops here; most
    // buffers use a small part of their storage.
    uint32_t touched = 0;

    Buffer();
    ~Buffer();
    Buffer(const Buffer &) = delete;
    Buffer &operator=(const Buffer &) = delete;
    Buffer(Buffer &&other) noexcept;
    Buffer &operator=(Buffer &&other) noexcept;
};

void buffer_init(Buffer *b);
void buffer_clear(Buffer *b);
void buffer_clear_wipe(Buffer *b);
void buffer_free(Buffer *b);

uint32_t buffer_len(const Buffer *b);
uint8_t *buffer_ptr(const Buffer *b);

uint8_t *buffer_append_space(Buffer *b, uint32_t len);
void buffer_append(Buffer *b, const void *data, uint32_t len);
int buffer_get(Buffer *b, void *out, uint32_t len);
int buffer_consume(Buffer *b, uint32_t len);
int buffer_consume_end(Buffer *b, uint32_t len);
void buffer_dump(const Buffer *b);

void buffer_put_char(Buffer *b, uint8_t value);
uint8_t buffer_get_char(Buffer *b);
void buffer_put_short(Buffer *b, uint16_t value);
uint16_t buffer_get_short(Buffer *b);
void buffer_put_int(Buffer *b, uint32_t value);
uint32_t buffer_get_int(Buffer *b);
void buffer_put_int64(Buffer *b, uint64_t value);
uint64_t buffer_get_int64(Buffer *b);

void buffer_put_string(Buffer *b, const void *data, uint32_t len);
// A null text appends nothing at all, not even a length.
void buffer_put_cstring(Buffer *b, const char *s);
// Text is kept in UTF-8 on every platform this program runs on, so both of
// these pass the bytes through unchanged.
void buffer_put_cstring_utf8(Buffer *b, const char *s);
// True when a whole string (length and bytes) can be read, so that callers
// parsing data from outside can refuse it rather than read zeros or hit the
// fatal length limit.
bool buffer_string_available(const Buffer *b);
// Returns the string's bytes; a shortfall yields zeros. Fatal above 0x40000.
SecureBytes buffer_get_string(Buffer *b, uint32_t *lenp = nullptr);
// The same string as text (cut at nothing: embedded zero bytes are kept).
std::string buffer_get_string_text(Buffer *b);
SecretString buffer_get_string_secret(Buffer *b);
std::string buffer_get_string_local(Buffer *b, uint32_t *lenp = nullptr);

void buffer_put_bignum(Buffer *b, const BIGNUM *value);
int buffer_get_bignum(Buffer *b, BIGNUM *value);
void buffer_put_bignum2(Buffer *b, const BIGNUM *value);
int buffer_get_bignum2(Buffer *b, BIGNUM *value);

// Appends a 4-byte big-endian length and the buffer's readable bytes.
void buffer_put_buffer_string(Buffer *b, const Buffer *source);
