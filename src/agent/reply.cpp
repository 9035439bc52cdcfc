#include "agent/reply.h"

#include "agent/protocol.h"

uint8_t failure_code(const RequestContext *ctx)
{
    return ctx->agent_protocol < 2 ? SSH_AGENT_FAILURE : SSH_COM_AGENT2_FAILURE;
}

uint8_t success_code(const RequestContext *ctx)
{
    return ctx->agent_protocol < 2 ? SSH_AGENT_SUCCESS : SSH_AGENT_SUCCESS_V2;
}

void reply_frame(RequestContext *ctx, const Buffer *body)
{
    buffer_put_buffer_string(&ctx->output, body);
}

void reply_code(RequestContext *ctx, uint8_t code)
{
    buffer_put_int(&ctx->output, 1);
    buffer_put_char(&ctx->output, code);
}

void reply_status(RequestContext *ctx, bool success)
{
    reply_code(ctx, success ? success_code(ctx) : failure_code(ctx));
}

void reply_failure(RequestContext *ctx) { reply_status(ctx, false); }
