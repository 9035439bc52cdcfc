// The version request and the ping of the version 2 protocol.
#include <algorithm>

#include "agent/handlers.h"
#include "agent/protocol.h"
#include "log/agent_log.h"

void handle_version_request(RequestContext *ctx)
{
    ctx->agent_protocol = 2;
    if (buffer_len(&ctx->request) > 0) {
        std::string version = buffer_get_string_text(&ctx->request);
        agent_log("Client version string : %s", version.c_str());
    }
    buffer_put_int(&ctx->output, 5);
    buffer_put_char(&ctx->output, SSH_AGENT_VERSION_RESPONSE);
    buffer_put_int(&ctx->output, 2);
}

void handle_ping(RequestContext *ctx)
{
    SecureBytes data = buffer_get_string(&ctx->request);
    auto zero = std::find(data.begin(), data.end(), 0);
    uint32_t length = static_cast<uint32_t>(zero - data.begin());
    buffer_put_int(&ctx->output, 1 + length);
    buffer_put_char(&ctx->output, SSH_AGENT_ALIVE);
    buffer_append(&ctx->output, data.data(), length);
}
