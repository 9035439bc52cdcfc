// Adding and removing identities.
#include <ctime>
#include <memory>

#include "agent/forwarding_notice.h"
#include "agent/handlers.h"
#include "agent/identity_table.h"
#include "agent/key_store.h"
#include "agent/change_notice.h"
#include "agent/protocol.h"
#include "agent/reply.h"
#include "agent/settings.h"
#include "keys/key.h"
#include "keys/key_blob.h"
#include "keys/key_fingerprint.h"
#include "keys/private_key_material.h"
#include "keys/secsh_private_key.h"
#include "log/agent_log.h"
#include "log/log.h"
#include "pki/cert_provider.h"

namespace {

// Nothing in the system sets a default lifetime; it stays 0.
constexpr int64_t default_lifetime = 0;

enum Constraint : uint8_t {
    CONSTRAIN_LIFETIME = 1,
    CONSTRAIN_CONFIRM = 2,
    CONSTRAIN_VENDOR_RELATIVE_LIFETIME = 50,
    CONSTRAIN_VENDOR_LIFETIME = 51,
    CONSTRAIN_VENDOR_LIFETIME_2 = 52,
    CONSTRAIN_VENDOR_REPLY_STRING = 100,
    CONSTRAIN_VENDOR_IGNORED_BYTE = 150,
    CONSTRAIN_VENDOR_CONFIRM = 151,
    CONSTRAIN_VENDOR_TEMPORARY = 155,
};

struct Constraints {
    int64_t death = 0;
    bool lifetime_given = false;
    uint32_t confirm = 0;
    uint32_t temporary = 0;
};

struct BignumFree { void operator()(BIGNUM *b) const { BN_clear_free(b); } };
using Bignum = std::unique_ptr<BIGNUM, BignumFree>;

Bignum read_bignum(Buffer *b)
{
    Bignum value(BN_secure_new());
    buffer_get_bignum2(b, value.get());
    return value;
}

// Only code 50 makes a relative lifetime; the other lifetime codes store
// their value as an absolute time on purpose.
Constraints read_constraints(RequestContext *ctx)
{
    Constraints c;
    while (buffer_len(&ctx->request) > 0) {
        switch (buffer_get_char(&ctx->request)) {
        case CONSTRAIN_LIFETIME:
        case CONSTRAIN_VENDOR_LIFETIME:
        case CONSTRAIN_VENDOR_LIFETIME_2:
            c.death = buffer_get_int(&ctx->request);
            c.lifetime_given = true;
            break;
        case CONSTRAIN_VENDOR_RELATIVE_LIFETIME: {
            uint32_t seconds = buffer_get_int(&ctx->request);
            c.death = seconds > 0 ? static_cast<int64_t>(time(nullptr)) + seconds : 0;
            c.lifetime_given = true;
            break;
        }
        case CONSTRAIN_CONFIRM: c.confirm = 1; break;
        case CONSTRAIN_VENDOR_REPLY_STRING:
            // Taken from the reply being built, not from the request.
            buffer_get_string(&ctx->output);
            break;
        case CONSTRAIN_VENDOR_IGNORED_BYTE: buffer_get_char(&ctx->request); break;
        case CONSTRAIN_VENDOR_CONFIRM: c.confirm = buffer_get_char(&ctx->request); break;
        case CONSTRAIN_VENDOR_TEMPORARY: c.temporary = 1; break;
        default: break;
        }
    }
    if (!c.lifetime_given && default_lifetime != 0)
        c.death = static_cast<int64_t>(time(nullptr)) + default_lifetime;
    return c;
}

// Wraps private material into a new key of `type`; null when there is none.
KeyPtr key_with_material(int type, EVP_PKEY *material, int nid = -1)
{
    if (material == nullptr)
        return nullptr;
    KeyPtr key = key_new(type);
    key->pkey.reset(material);
    key->ecdsa_nid = nid;
    return key;
}

KeyPtr read_private_key(Buffer *b)
{
    std::string type_name = buffer_get_string_text(b);
    switch (key_type_from_name(type_name.c_str())) {
    case KEY_RSA: {
        Bignum n = read_bignum(b), e = read_bignum(b), d = read_bignum(b), iqmp = read_bignum(b),
               p = read_bignum(b), q = read_bignum(b);
        return key_with_material(KEY_RSA, rsa_private_from_numbers(n.get(), e.get(), d.get(), iqmp.get(),
                                                                   p.get(), q.get()));
    }
    case KEY_DSA: {
        Bignum p = read_bignum(b), q = read_bignum(b), g = read_bignum(b), y = read_bignum(b), x = read_bignum(b);
        return key_with_material(KEY_DSA, dsa_private_from_numbers(p.get(), q.get(), g.get(), y.get(), x.get()));
    }
    case KEY_ECDSA: {
        int nid = key_ecdsa_name_to_nid(type_name.c_str());
        std::string curve = buffer_get_string_text(b);
        SecureBytes point = buffer_get_string(b);
        Bignum scalar = read_bignum(b);
        if (nid < 0 || key_curve_name_to_nid(curve.c_str()) != nid)
            return nullptr;
        return key_with_material(KEY_ECDSA, ecdsa_private_from_numbers(nid, point.data(), point.size(), scalar.get()),
                                 nid);
    }
    case KEY_ED25519: {
        SecureBytes public_key = buffer_get_string(b);
        SecureBytes secret = buffer_get_string(b);
        return key_with_material(KEY_ED25519, ed25519_private_from_bytes(public_key.data(), public_key.size(),
                                                                          secret.data(), secret.size()));
    }
    case KEY_X509_RSA:
    case KEY_X509_DSA:
    case KEY_X509_ECDSA: {
        // A location byte and the identifier the certificate is found by.
        uint32_t location = buffer_get_char(b);
        std::string identifier = buffer_get_string_text(b);
        return cert_identity_lookup(location, identifier);
    }
    default: return nullptr;
    }
}

// The version 2 form: a private key blob in the SECSH format, decoded with
// the empty passphrase, then a second string that is not used.
KeyPtr read_secsh_private_key(Buffer *b)
{
    uint32_t len = 0;
    SecureBytes blob = buffer_get_string(b, &len);
    buffer_get_string(b);
    SecshPrivateKey decoded;
    if (!secsh_private_key_decode(blob.data(), len, &decoded))
        return nullptr;
    return key_with_material(decoded.type, decoded.pkey, decoded.ecdsa_nid);
}

void reply_add(RequestContext *ctx, int local, bool success, bool existed)
{
    if (ctx->agent_protocol >= 2) {
        buffer_put_int(&ctx->output, success ? 1 : 2);
        buffer_put_char(&ctx->output, success ? SSH_AGENT_SUCCESS_V2 : SSH_COM_AGENT2_FAILURE);
        if (!success)
            buffer_put_char(&ctx->output, 7);
        return;
    }
    if (local)
        reply_code(ctx, success ? (existed ? 9 : 0) : 7);
    else
        reply_status(ctx, success);
}

}  // namespace

void handle_add_identity(RequestContext *ctx, int version, int local)
{
    bool success = false, existed = false;
    if (ctx->forwarding_chain > 0 && !agent_settings().AllowAdd) {
        agent_log("Rejecting request from a remote server to add a key");
    } else if (version != 2) {
        error("process_add_identity: unsupported version");
        buffer_clear(&ctx->request);
    } else {
        KeyPtr key = ctx->agent_protocol >= 2 ? read_secsh_private_key(&ctx->request)
                                              : read_private_key(&ctx->request);
        if (key == nullptr) {
            error("process_add_identity: unable to identify the key.");
        } else {
            std::string comment = buffer_get_string_text(&ctx->request);
            std::string name = local ? buffer_get_string_text(&ctx->request) : make_identity_name(key.get());
            key->name = name;
            Constraints c = read_constraints(ctx);
            success = true;
            if (lookup_identity(key.get(), version)) {
                agent_log("Key exists : %s %s %u-bit", key->name.c_str(), key_type(key.get()), key_size(key.get()));
                existed = true;
            } else {
                std::string type = key_type(key.get());
                unsigned bits = key_size(key.get());
                IdentityTable *table = identity_table_for_version(version);
                identity_add(table, make_identity_record(std::move(key), comment, c.death, c.confirm, c.temporary));
                save_key_store();
                send_change_notice();
                agent_log("Add key : %s %s %u-bit", name.c_str(), type.c_str(), bits);
            }
        }
    }
    if (!success)
        agent_log("Add key request failed");
    reply_add(ctx, local, success, existed);
}

void handle_remove_identity(RequestContext *ctx, int version)
{
    bool success = false;
    if (ctx->forwarding_chain > 0 && !agent_settings().AllowDelete) {
        agent_log("Rejecting request from a remote server to delete a key");
        reply_status(ctx, false);
        return;
    }
    if (version == 2) {
        uint32_t len = 0;
        SecureBytes blob = buffer_get_string(&ctx->request, &len);
        KeyPtr key = key_from_blob(blob.data(), len);
        if (key) {
            if (Identity *identity = lookup_identity(key.get(), version)) {
                IdentityTable *table = identity_table_for_version(version);
                if (table->nentries < 1)
                    fatal("process_remove_identity: internal error: tab->nentries %d", table->nentries);
                identity_remove(table, identity);
                agent_log("Remove key: %s %s %u-bit", key->name.c_str(), key_type(key.get()), key_size(key.get()));
                save_key_store();
                send_change_notice();
                success = true;
            }
        }
    }
    if (!success)
        agent_log("Remove identity request failed");
    reply_status(ctx, success);
}

void handle_remove_all_identities(RequestContext *ctx, int version)
{
    IdentityTable *table = identity_table_for_version(version);
    if (ctx->forwarding_chain > 0 && !agent_settings().AllowDelete) {
        agent_log("Rejecting request from a remote server to delete all keys");
        reply_status(ctx, false);
        return;
    }
    while (!table->identities.empty())
        identity_remove(table, table->identities.front().get());
    table->nentries = table->ncerts = 0;
    agent_log("Removed all identities");
    save_key_store();
    send_change_notice();
    reply_status(ctx, true);
}
