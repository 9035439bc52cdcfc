// Framing of replies into a request's output buffer.
#pragma once

#include "agent/request_context.h"

// Appends a 4-byte big-endian length and the body.
void reply_frame(RequestContext *ctx, const Buffer *body);
// One-byte reply with the given code.
void reply_code(RequestContext *ctx, uint8_t code);
// 6/5 for OpenSSH-numbered clients, 101/102 for version 2 clients.
void reply_status(RequestContext *ctx, bool success);
void reply_failure(RequestContext *ctx);
uint8_t failure_code(const RequestContext *ctx);
uint8_t success_code(const RequestContext *ctx);
