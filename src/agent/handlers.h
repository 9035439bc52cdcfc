// Request handlers called by the dispatcher. Each reads its arguments from
// ctx->request (positioned after the message number) and appends one whole
// framed reply to ctx->output, or nothing where its message has no reply.
#pragma once

#include "agent/request_context.h"

// `version` selects the identity table: 1 protocol 1 RSA, 2 protocol 2.
// `local` is 1 for the vendor forms of a message.
void handle_list_identities(RequestContext *ctx, int version, int local);
void handle_sign_request(RequestContext *ctx, int local);
void handle_add_identity(RequestContext *ctx, int version, int local);
void handle_remove_identity(RequestContext *ctx, int version);
void handle_remove_all_identities(RequestContext *ctx, int version);

void handle_lock_unlock(RequestContext *ctx, bool lock);
void handle_is_locked(RequestContext *ctx);
void handle_attempt_empty(RequestContext *ctx);
void handle_register_refresh(RequestContext *ctx);
void handle_unregister_refresh(RequestContext *ctx);
void handle_forwarding_notice(RequestContext *ctx, int vendor);
void handle_version_request(RequestContext *ctx);
void handle_ping(RequestContext *ctx);

// The process-wide lock flag; the agent starts locked.
bool agent_is_locked();
void agent_set_locked(bool locked);

// Drops the forwarding notice recorded for a connection that has ended.
void forwarding_notice_connection_closed(uint64_t connection);
