// Cuts one framed request out of ctx->input, decides the client's request
// family, applies the lock filter and calls the message's handler.
#pragma once

#include <cstdint>

#include "agent/request_context.h"

void dispatch_request(RequestContext *ctx);

// The name of a request number for log lines; "(generic)" when unnamed.
const char *request_name(uint32_t number);
