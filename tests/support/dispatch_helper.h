// Runs one request through the dispatcher and returns the reply bytes.
#pragma once

#include "agent/dispatch.h"
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
