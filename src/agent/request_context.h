// One agent request being processed: its raw bytes, its body and its reply.
#pragma once

#include <cstdint>

#include "keys/buffer.h"

constexpr int32_t AUTH_CONNECTION = 2;
constexpr int32_t AUTH_UNUSED = 0;

struct RequestContext {
    int32_t fd = -1;                // no socket of its own; kept at -1
    int32_t type = AUTH_CONNECTION; // 0 once the context is closed
    Buffer input;                   // the raw bytes, length prefix included
    Buffer output;                  // the framed reply; empty means nothing is sent
    Buffer request;                 // the body: message number, then arguments
    int32_t agent_protocol = 0;     // 1 OpenSSH numbering, 2 version 2 numbering
    int32_t forwarding_chain = 0;   // forwarding notices seen on the connection
    uint64_t connection = 0;        // identifies the client connection
    bool drop_connection = false;   // the client's bytes were rejected: close it
};
