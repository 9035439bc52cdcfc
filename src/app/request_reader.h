// Cuts a client's byte stream into requests by their length prefix. One
// read takes whatever the client has sent, so a request usually costs one
// read, and each request is handed on from the buffer without a copy.
#pragma once

#include <cstddef>
#include <cstdint>

#include "app/client_connection.h"
#include "keys/secure_memory.h"

class RequestReader {
public:
    explicit RequestReader(ClientStream *stream) : stream_(stream) {}

    // The next request: its 4 length bytes and body, or, for a length above
    // the dispatcher's limit, the length bytes and the first body byte with
    // `*skip` the body bytes left to throw away. False when the client
    // closed or the read failed before the request was complete. The bytes
    // stay valid until release(). For a stream that never blocks, false
    // also when the request is not complete yet (the stream's would_block()
    // tells which); the bytes so far are kept for the next call.
    bool next(const uint8_t **data, uint32_t *size, uint32_t *skip);
    // Wipes and drops the request that next() returned.
    void release();
    // Reads and drops `*left` bytes, counting them off; false when the
    // client went away first or, for a stream that never blocks, when it
    // has sent no more yet.
    bool discard(uint32_t *left);

private:
    // At least `need` unread bytes in the buffer, from one place.
    bool fill(size_t need);

    ClientStream *stream_;
    SecureBytes buffer_ = SecureBytes(16384);
    size_t begin_ = 0, end_ = 0;  // the unread bytes
    size_t taken_ = 0;            // the bytes of the last request
};
