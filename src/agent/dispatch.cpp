#include "agent/dispatch.h"

#include "agent/handlers.h"
#include "agent/identity_table.h"
#include "agent/protocol.h"
#include "agent/reply.h"
#include "log/agent_log.h"
#include "log/log.h"

const char *request_name(uint32_t number)
{
    switch (number) {
    case 1: return "SSH_AGENT_REQUEST_VERSION/SSH_AGENTC_REQUEST_RSA_IDENTITIES";
    case 3: return "SSH_AGENTC_RSA_CHALLENGE";
    case 7: return "SSH_AGENTC_ADD_RSA_IDENTITY";
    case 8: return "SSH_AGENTC_REMOVE_RSA_IDENTITY";
    case 9: return "SSH_AGENTC_REMOVE_ALL_RSA_IDENTITIES";
    case 11: return "SSH2_AGENTC_REQUEST_IDENTITIES";
    case 13: return "SSH2_AGENTC_SIGN_REQUEST";
    case 17: return "SSH2_AGENTC_ADD_IDENTITY";
    case 18: return "SSH2_AGENTC_REMOVE_IDENTITY";
    case 19: return "SSH2_AGENTC_REMOVE_ALL_IDENTITIES";
    case 20: return "SSH_AGENTC_ADD_SMARTCARD_KEY";
    case 21: return "SSH_AGENTC_REMOVE_SMARTCARD_KEY";
    case 22: return "SSH_AGENTC_LOCK";
    case 23: return "SSH_AGENTC_UNLOCK";
    case 151: return "SSH_AGENT_ZEM_ISLOCKED";
    case 152: return "SSH_AGENTC_ZEM_ADD_RSA_IDENTITY";
    case 153: return "SSH2_AGENTC_ZEM_ADD_IDENTITY";
    case 154: return "SSH_AGENTC_ZEM_REQUEST_RSA_IDENTITIES";
    case 155: return "SSH2_AGENTC_ZEM_REQUEST_IDENTITIES";
    case 156: return "SSH_AGENT_ZEM_REGISTERREFRESH";
    case 157: return "SSH_AGENT_ZEM_UNREGISTERREFRESH";
    case 158: return "SSH_AGENT_ZEM_FORWARDING_NOTICE";
    case 159: return "SSH_AGENT_ZEM_ATTEMPT_EMPTY";
    case 160: return "SSH2_AGENTC_ZEM_SIGN_REQUEST";
    case 202: return "SSH_AGENT_ADD_KEY";
    case 203: return "SSH_AGENT_DELETE_ALL_KEYS";
    case 204: return "SSH_AGENT_LIST_KEYS";
    case 205: return "SSH_AGENT_PRIVATE_KEY_OP";
    case 206: return "SSH_AGENT_FORWARDING_NOTICE";
    case 207: return "SSH_AGENT_DELETE_KEY";
    case 208: return "SSH_AGENT_LOCK";
    case 209: return "SSH_AGENT_UNLOCK";
    case 212: return "SSH_AGENT_PING";
    case 213: return "SSH_AGENT_RANDOM";
    default: return "(generic)";
    }
}

namespace {

void close_context(RequestContext *ctx)
{
    ctx->fd = -1;
    ctx->type = AUTH_UNUSED;
    buffer_free(&ctx->input);
    buffer_free(&ctx->output);
    buffer_free(&ctx->request);
}

void unknown_message(RequestContext *ctx, int number)
{
    error("Unknown message %d", number);
    buffer_clear(&ctx->request);
    reply_failure(ctx);
}

// The agent is unlocked, or the message is one of the two unlocks.
void dispatch_unlocked(RequestContext *ctx, int number)
{
    switch (number) {
    case SSH_AGENTC_REQUEST_RSA_IDENTITIES: handle_list_identities(ctx, 1, 0); break;
    case SSH_AGENTC_ADD_RSA_IDENTITY:
    case SSH_AGENTC_ADD_RSA_ID_CONSTRAINED: handle_add_identity(ctx, 1, 0); break;
    case SSH_AGENTC_REMOVE_RSA_IDENTITY: handle_remove_identity(ctx, 1); break;
    case SSH_AGENTC_REMOVE_ALL_RSA_IDENTITIES: handle_remove_all_identities(ctx, 1); break;
    case SSH2_AGENTC_REQUEST_IDENTITIES: handle_list_identities(ctx, 2, 0); break;
    case SSH2_AGENTC_SIGN_REQUEST: handle_sign_request(ctx, 0); break;
    case SSH2_AGENTC_ADD_IDENTITY:
    case SSH2_AGENTC_ADD_ID_CONSTRAINED: handle_add_identity(ctx, 2, 0); break;
    case SSH2_AGENTC_REMOVE_IDENTITY: handle_remove_identity(ctx, 2); break;
    case SSH2_AGENTC_REMOVE_ALL_IDENTITIES: handle_remove_all_identities(ctx, 2); break;
    case SSH_AGENTC_LOCK:
    case SSH_AGENTC_UNLOCK:
        agent_log("Received a request for lock/unlock agent");
        handle_lock_unlock(ctx, number == SSH_AGENTC_LOCK);
        break;
    case SSH_AGENT_ZEM_ISLOCKED: handle_is_locked(ctx); break;
    case SSH_AGENTC_ZEM_ADD_RSA_IDENTITY: handle_add_identity(ctx, 1, 1); break;
    case SSH2_AGENTC_ZEM_ADD_IDENTITY: handle_add_identity(ctx, 2, 1); break;
    case SSH_AGENTC_ZEM_REQUEST_RSA_IDENTITIES: handle_list_identities(ctx, 1, 1); break;
    case SSH2_AGENTC_ZEM_REQUEST_IDENTITIES: handle_list_identities(ctx, 2, 1); break;
    case SSH_AGENT_ZEM_REGISTERREFRESH: handle_register_refresh(ctx); break;
    case SSH_AGENT_ZEM_UNREGISTERREFRESH: handle_unregister_refresh(ctx); break;
    case SSH_AGENT_ZEM_FORWARDING_NOTICE:
        agent_log("Received a request for forwarding notice");
        handle_forwarding_notice(ctx, 1);
        break;
    case SSH_AGENT_ZEM_ATTEMPT_EMPTY: handle_attempt_empty(ctx); break;
    case SSH2_AGENTC_ZEM_SIGN_REQUEST: handle_sign_request(ctx, 1); break;
    case SSH_AGENT_ADD_KEY: handle_add_identity(ctx, 2, 0); break;
    case SSH_AGENT_DELETE_ALL_KEYS: handle_remove_all_identities(ctx, 2); break;
    case SSH_AGENT_LIST_KEYS: handle_list_identities(ctx, 2, 0); break;
    case SSH_AGENT_PRIVATE_KEY_OP: handle_sign_request(ctx, 0); break;
    case SSH_AGENT_FORWARDING_NOTICE:
        agent_log("Received a request for forwarding notice");
        handle_forwarding_notice(ctx, 0);
        break;
    case SSH_AGENT_DELETE_KEY: handle_remove_identity(ctx, 2); break;
    case SSH_AGENT_LOCK:
    case SSH_AGENT_UNLOCK: handle_lock_unlock(ctx, number == SSH_AGENT_LOCK); break;
    case SSH_AGENT_PING: handle_ping(ctx); break;
    default: unknown_message(ctx, number); break;
    }
}

// The agent is locked: only listing, the lock state and the notices are
// served. A sign request is answered with the "locked" code on purpose:
// vendor clients take it as the cue to ask the user to unlock.
void dispatch_locked(RequestContext *ctx, int number)
{
    switch (number) {
    case SSH_AGENTC_REQUEST_RSA_IDENTITIES:
        agent_log("Received a request for RSA identities");
        handle_list_identities(ctx, 1, 0);
        break;
    case SSH_AGENTC_ZEM_REQUEST_RSA_IDENTITIES:
        agent_log("Received a request for RSA identities");
        handle_list_identities(ctx, 1, 1);
        break;
    case SSH2_AGENTC_REQUEST_IDENTITIES:
        agent_log("Received a request for identities");
        handle_list_identities(ctx, 2, 0);
        break;
    case SSH2_AGENTC_ZEM_REQUEST_IDENTITIES:
        agent_log("Received a request for identities");
        handle_list_identities(ctx, 2, 1);
        break;
    case SSH_AGENT_LIST_KEYS: handle_list_identities(ctx, 2, 0); break;
    case SSH2_AGENTC_SIGN_REQUEST:
    case SSH2_AGENTC_ZEM_SIGN_REQUEST: handle_is_locked(ctx); break;
    case SSH_AGENT_ZEM_ISLOCKED:
        agent_log("Received a request for islocked");
        handle_is_locked(ctx);
        break;
    case SSH_AGENT_ZEM_REGISTERREFRESH:
        agent_log("Received a request for ZEM register refresh");
        handle_register_refresh(ctx);
        break;
    case SSH_AGENT_ZEM_UNREGISTERREFRESH:
        agent_log("Received a request for unregister refresh");
        handle_unregister_refresh(ctx);
        break;
    case SSH_AGENT_ZEM_FORWARDING_NOTICE:
    case SSH_AGENT_FORWARDING_NOTICE:
        agent_log("Received a request for forwarding notice");
        handle_forwarding_notice(ctx, number == SSH_AGENT_ZEM_FORWARDING_NOTICE ? 1 : 0);
        break;
    case SSH_AGENT_ZEM_ATTEMPT_EMPTY: handle_attempt_empty(ctx); break;
    default:
        agent_log("Received a request for unknown message type (%d)", number);
        reply_failure(ctx);
        break;
    }
    buffer_clear(&ctx->request);
}

// No reply may outgrow the connection's reply buffer.
void enforce_reply_limit(RequestContext *ctx)
{
    if (buffer_len(&ctx->output) <= AGENT_MAX_REPLY)
        return;
    error("Reply of %u bytes exceeds the %u-byte limit; answering failure", buffer_len(&ctx->output),
          AGENT_MAX_REPLY);
    buffer_clear_wipe(&ctx->output);
    reply_failure(ctx);
}

void dispatch_client_request(RequestContext *ctx)
{
    remove_expired_identities();

    if (buffer_len(&ctx->input) < 5) {
        agent_log("Incomplete client request ignored");
        return;
    }
    uint32_t length = get_u32(buffer_ptr(&ctx->input));
    if (length > AGENT_MAX_REQUEST) {
        agent_log("Client request too large. Ignored");
        close_context(ctx);
        return;
    }
    if (buffer_len(&ctx->input) < length + 4) {
        agent_log("Incomplete client request ignored");
        return;
    }
    buffer_consume(&ctx->input, 4);
    buffer_clear(&ctx->request);
    buffer_append(&ctx->request, buffer_ptr(&ctx->input), length);
    buffer_consume(&ctx->input, length);

    int number = buffer_get_char(&ctx->request);
    agent_log("Processing client request %s (%d)", request_name(static_cast<uint32_t>(number)), number);

    if (number == SSH_AGENTC_REQUEST_RSA_IDENTITIES) {
        if (buffer_len(&ctx->request) > 0) {
            handle_version_request(ctx);
            enforce_reply_limit(ctx);
            return;
        }
        ctx->agent_protocol = 1;
        agent_log("Assuming version 1");
    } else {
        ctx->agent_protocol = number < 201 ? 1 : 2;
    }

    if (agent_is_locked() && number != SSH_AGENTC_UNLOCK && number != SSH_AGENT_UNLOCK) {
        dispatch_locked(ctx, number);
        enforce_reply_limit(ctx);
        return;
    }
    dispatch_unlocked(ctx, number);
    enforce_reply_limit(ctx);
    agent_log("Done processing client request %s (%d)", request_name(static_cast<uint32_t>(number)), number);
}

}  // namespace

void dispatch_request(RequestContext *ctx)
{
    // Bytes that no well-behaved client sends end this request and this
    // client's connection; every other client goes on being served.
    try {
        ClientInputScope client_input;
        dispatch_client_request(ctx);
    } catch (const InputRejected &) {
        buffer_clear_wipe(&ctx->request);
        buffer_clear_wipe(&ctx->output);
        ctx->drop_connection = true;
    }
}
