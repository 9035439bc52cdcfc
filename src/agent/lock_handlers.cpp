// Lock, unlock, is-locked and attempt-empty, and their local entry points.
#include "agent/change_notice.h"
#include "agent/handlers.h"
#include "agent/local_lock.h"
#include "agent/passphrase.h"
#include "agent/protocol.h"
#include "agent/reply.h"
#include "agent/settings.h"
#include "agent/shell_services.h"
#include "log/agent_log.h"
#include "log/log.h"

namespace {

bool lock_or_unlock(bool lock, const char *passphrase)
{
    bool success = true;
    if (!lock && agent_is_locked()) {
        if (verify_agent_passphrase(passphrase)) {
            agent_set_locked(false);
            agent_log("UNLOCKED");
            send_change_notice();
        } else {
            agent_log("Unlock failed: wrong passphrase");
            success = false;
        }
    } else if (lock && !agent_is_locked()) {
        agent_set_locked(true);
        agent_log("LOCKED");
        send_change_notice();
    } else if (lock) {
        agent_log("Lock request - agent is already locked");
    } else {
        agent_log("Unlock request - agent is already unlocked");
    }
    shell_redraw_tray();
    return success;
}

bool local_lock_or_unlock(bool lock, const char *passphrase)
{
    try {
        RequestContext ctx;
        ctx.agent_protocol = 0;
        buffer_put_cstring(&ctx.request, passphrase ? passphrase : "");
        handle_lock_unlock(&ctx, lock);
        buffer_clear_wipe(&ctx.request);
        return buffer_len(&ctx.output) == 5 && buffer_ptr(&ctx.output)[4] == success_code(&ctx);
    } catch (const FatalError &) {
        run_fatal_shutdown();
        return false;
    }
}

}  // namespace

void handle_lock_unlock(RequestContext *ctx, bool lock)
{
    // A lock reads the text too and forgets it: the agent keeps no lock
    // password, unlocking always takes the agent passphrase.
    SecretString passphrase = buffer_get_string_secret(&ctx->request);
    bool success = lock_or_unlock(lock, passphrase.c_str());
    passphrase.wipe();
    reply_status(ctx, success);
}

void handle_is_locked(RequestContext *ctx)
{
    reply_code(ctx, agent_is_locked() ? SSH_AGENT_ZEM_LOCKED : SSH_AGENT_ZEM_UNLOCKED);
}

void handle_attempt_empty(RequestContext *ctx)
{
    // Vendor clients get 102 here although their numbering is OpenSSH's;
    // they expect exactly that code.
    if (!agent_settings().AttemptEmpty) {
        reply_code(ctx, SSH_COM_AGENT2_FAILURE);
        return;
    }
    handle_lock_unlock(ctx, false);
}

bool agent_local_lock() { return local_lock_or_unlock(true, ""); }

bool agent_local_unlock(const char *passphrase) { return local_lock_or_unlock(false, passphrase); }
