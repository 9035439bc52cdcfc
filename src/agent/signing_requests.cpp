// Answers sign requests of the three families.
#include <cstring>
#include <string>

#include "agent/confirmation.h"
#include "agent/forwarding_notice.h"
#include "agent/handlers.h"
#include "agent/identity_table.h"
#include "agent/passphrase_prompt.h"
#include "agent/protocol.h"
#include "agent/reply.h"
#include "agent/settings.h"
#include "crypto/signature_types.h"
#include "keys/key.h"
#include "keys/key_blob.h"
#include "keys/signature_algorithm.h"
#include "log/agent_log.h"
#include "pki/agent_enum.h"
#include "pki/key_signer.h"
#include "pki/pki_startup.h"

namespace {

constexpr uint32_t SSH_AGENT_OLD_SIGNATURE = 1;
constexpr uint32_t SSH_AGENT_RSA_SHA2_256 = 2;
constexpr uint32_t SSH_AGENT_RSA_SHA2_512 = 4;

// Process-wide, and reset at the start of every sign request so that one
// request's flag never reaches the next.
int old_signature_flag = 0;

// The vendor request's extra fields stay in force for later requests.
void apply_vendor_fields(Buffer *request)
{
    uint32_t rsa_sigtype = buffer_get_int(request);
    uint32_t dsa_sigtype = buffer_get_int(request);
    uint32_t enum_mode = buffer_get_int(request);
    uint64_t parent_window = buffer_get_int64(request);
    set_x509rsa_sigtype(static_cast<int>(rsa_sigtype));
    set_x509dsa_sigtype(static_cast<int>(dsa_sigtype));
    agent_enum_set(enum_mode);
    agent_dialog_owner_set(parent_window);
}

// The prompt callback handed to the signer: the certificate layer asks for
// a PIN through the shell's passphrase prompt.
bool prompt_user(const char *prompt, SecretString *answer) { return ask_key_passphrase(prompt, answer); }

// Signs with the identity's key as the request asked. False on failure; on
// success `signature` holds the blob (empty where the signer declines to
// make one, which is still reported as made).
bool sign_with_identity(RequestContext *ctx, Identity *identity, const Key *requested, uint32_t flags,
                        const SecureBytes &data, SecureBytes *signature)
{
    Key *key = identity->key.get();
    int saved_type = key->type;
    if (!is_certificate_type(requested->type) && is_certificate_type(key->type))
        key->type = plain_key_type(key->type);
    key->sigalg = requested->sigalg;
    if (requested->type == KEY_RSA) {
        if (flags & SSH_AGENT_RSA_SHA2_256)
            key->sigalg = signature_algorithm_by_name("rsa-sha2-256");
        if (flags & SSH_AGENT_RSA_SHA2_512)
            key->sigalg = signature_algorithm_by_name("rsa-sha2-512");
    }
    const SignatureAlgorithm *algorithm = key->sigalg ? key->sigalg : signature_algorithm_by_name(key_ssh_name(key));
    agent_log("Signing using key %s (as type: %s,  hash: %s)", key->name.c_str(), key_ssh_name(key),
              digest_text_name(algorithm ? algorithm->hash_nid : 0));

    bool ok = key_sign(pki_current(), agent_dialog_owner(), key, signature, data.data(), data.size(), prompt_user,
                       old_signature_flag) == 0;
    key->type = saved_type;
    key->sigalg = nullptr;
    if (!ok) {
        agent_log("Signature failed for key: %s", key->name.c_str());
        return false;
    }
    agent_log("Signature for key: %s - forward step(s) %d", key->name.c_str(), ctx->forwarding_chain);
    if (ctx->agent_protocol == 2 && !signature->empty()) {
        // The version 2 protocol wants the bare signature: drop the
        // algorithm name and the length in front of the signature.
        Buffer blob;
        buffer_append(&blob, signature->data(), static_cast<uint32_t>(signature->size()));
        buffer_get_string(&blob);
        buffer_get_int(&blob);
        *signature = SecureBytes(buffer_ptr(&blob), buffer_ptr(&blob) + buffer_len(&blob));
    }
    return true;
}

}  // namespace

void handle_sign_request(RequestContext *ctx, int local)
{
    old_signature_flag = 0;
    Buffer *request = &ctx->request;
    if (ctx->agent_protocol == 2) {
        std::string operation = buffer_get_string_text(request);
        if (operation.find("hash-and-sign") == std::string::npos) {
            buffer_put_int(&ctx->output, 2);
            buffer_put_char(&ctx->output, SSH_COM_AGENT2_FAILURE);
            buffer_put_char(&ctx->output, 8);
            return;
        }
    }
    uint32_t blob_len = 0;
    SecureBytes blob = buffer_get_string(request, &blob_len);
    SecureBytes data = buffer_get_string(request);
    uint32_t flags = 0;
    if (ctx->agent_protocol != 2) {
        flags = buffer_get_int(request);
        if (flags & SSH_AGENT_OLD_SIGNATURE)
            old_signature_flag = 1;
    }
    if (local)
        apply_vendor_fields(request);

    SecureBytes signature;
    bool success = false;
    if (KeyPtr requested = key_from_blob(blob.data(), blob_len)) {
        Identity *identity = nullptr;
        if (is_certificate_type(requested->type)) {
            agent_log("Look up cert/key.");
            identity = lookup_identity(requested.get(), 2);
        } else if (agent_enum_both() || agent_enum_certs_as_keys()) {
            agent_log("Look up key (certs as keys).");
            identity = lookup_identity_as_key(requested.get(), 2);
        } else {
            agent_log("Look up cert/key.");
            identity = lookup_identity(requested.get(), 2);
        }
        if (identity && ctx->forwarding_chain != 0 && agent_settings().ConfirmKeyOp &&
            !confirm_key_operation(identity->comment ? identity->comment->c_str() : "")) {
            agent_log("User rejected a request from a remote server to issue a signature");
            identity = nullptr;
        }
        if (identity)
            success = sign_with_identity(ctx, identity, requested.get(), flags, data, &signature);
    }

    Buffer body;
    if (ctx->agent_protocol == 2)
        buffer_put_char(&body, success ? SSH_AGENT_OPERATION_COMPLETE : SSH_COM_AGENT2_FAILURE);
    else
        buffer_put_char(&body, success ? SSH2_AGENT_SIGN_RESPONSE : SSH_AGENT_FAILURE);
    if (success)
        buffer_put_string(&body, signature.data(), static_cast<uint32_t>(signature.size()));
    else
        agent_log("Key sign request failed");
    reply_frame(ctx, &body);
}
