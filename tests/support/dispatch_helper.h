// Runs requests through the dispatcher, builds them and reads replies.
#pragma once

#include "agent/dispatch.h"
#include <string>

#include "support/requests.h"

struct DispatchResult {
    Bytes reply;
    int32_t agent_protocol = 0;
    int32_t forwarding_chain = 0;
    int32_t type = 0;
};

inline DispatchResult dispatch_bytes(const Bytes &input, uint64_t connection = 1, int32_t forwarding_chain = 0)
{
    RequestContext ctx;
    ctx.connection = connection;
    ctx.forwarding_chain = forwarding_chain;
    buffer_append(&ctx.input, input.data(), static_cast<uint32_t>(input.size()));
    dispatch_request(&ctx);
    return {buffer_bytes(ctx.output), ctx.agent_protocol, ctx.forwarding_chain, ctx.type};
}

// A framed body given as hex.
inline Bytes request_hex(const std::string &body_hex) { return frame(hex_bytes(body_hex)); }

// A reply's body after its length, for reading with the buffer_get calls.
struct ReplyReader {
    explicit ReplyReader(const Bytes &reply)
    {
        buffer_append(&b, reply.data(), static_cast<uint32_t>(reply.size()));
        length = buffer_get_int(&b);
        code = buffer_get_char(&b);
    }
    Buffer b;
    uint32_t length = 0;
    uint8_t code = 0;
};
