// Runs requests through the dispatcher, builds them and reads replies.
#pragma once

#include "agent/dispatch.h"
#include <string>

#include "support/bytes.h"

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

// A framed request: the message number, then what `fill` appends.
template <typename Fill>
Bytes request_of(uint8_t number, Fill fill)
{
    Buffer b;
    buffer_put_char(&b, number);
    fill(&b);
    return frame(buffer_bytes(b));
}

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

inline void put_bytes(Buffer *b, const Bytes &bytes)
{
    buffer_put_string(b, bytes.data(), static_cast<uint32_t>(bytes.size()));
}

// A vendor forwarding notice (158): server, address, port, the signature
// types, the enumeration setting, the client's window and its list mode.
inline Bytes vendor_notice(const std::string &host, uint32_t enum_setting, uint64_t window = 0,
                           uint32_t list_mode = 0, uint32_t rsa_sigtype = 3, uint32_t dsa_sigtype = 0)
{
    return request_of(158, [&](Buffer *b) {
        buffer_put_cstring(b, host.c_str());
        buffer_put_cstring(b, "10.0.0.7");
        buffer_put_int(b, 22);
        buffer_put_int(b, rsa_sigtype);
        buffer_put_int(b, dsa_sigtype);
        buffer_put_int(b, enum_setting);
        buffer_put_int64(b, window);
        buffer_put_int(b, list_mode);
    });
}
