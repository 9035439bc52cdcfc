// Handlers whose subsystems are not built yet. Each answers its family's
// failure reply, so clients get a clear refusal rather than silence.
#include "agent/handlers.h"
#include "agent/key_store.h"
#include "agent/reply.h"

void handle_list_identities(RequestContext *ctx, int, int) { reply_failure(ctx); }
void handle_sign_request(RequestContext *ctx, int) { reply_failure(ctx); }
void handle_add_identity(RequestContext *ctx, int, int) { reply_failure(ctx); }
void handle_remove_identity(RequestContext *ctx, int) { reply_failure(ctx); }
void handle_remove_all_identities(RequestContext *ctx, int) { reply_failure(ctx); }
void handle_lock_unlock(RequestContext *ctx, bool) { reply_failure(ctx); }
void handle_is_locked(RequestContext *ctx) { reply_failure(ctx); }
void handle_attempt_empty(RequestContext *ctx) { reply_failure(ctx); }
void handle_register_refresh(RequestContext *ctx) { reply_failure(ctx); }
void handle_unregister_refresh(RequestContext *ctx) { reply_failure(ctx); }
void handle_forwarding_notice(RequestContext *ctx, int) { reply_failure(ctx); }
void handle_version_request(RequestContext *ctx) { reply_failure(ctx); }
void handle_ping(RequestContext *ctx) { reply_failure(ctx); }
void forwarding_notice_connection_closed(uint64_t) {}
void save_key_store() {}
void load_public_key_store() {}
void load_private_key_store() {}
