// Answers every identity-list request. One identity can yield several
// entries: an RSA key once per signature algorithm name, a certificate
// identity as a certificate, as a plain key, or both.
#include <string>

#include "agent/forwarding_notice.h"
#include "agent/handlers.h"
#include "agent/identity_table.h"
#include "agent/protocol.h"
#include "agent/reply.h"
#include "agent/settings.h"
#include "crypto/fips_policy.h"
#include "keys/key.h"
#include "keys/key_blob.h"
#include "keys/key_fingerprint.h"
#include "keys/kvl.h"
#include "keys/signature_algorithm.h"
#include "log/agent_log.h"
#include "log/log.h"
#include "pki/agent_enum.h"
#include "pki/x509_key_blob.h"

namespace {

enum ServerKind : int {
    NO_NOTICE = -1,
    SERVER_KIND_OPENSSH = 0,
    SERVER_KIND_VENDOR = 6,
    SERVER_KIND_OPENVMS = 7,
    SERVER_KIND_OPENSSH_PKIX = 8,
    SERVER_KIND_SUNSSH = 9,
};

struct Listing {
    RequestContext *ctx;
    int local;
    int server_kind;  // NO_NOTICE when the connection sent none
    bool use_only_sha1;
    Buffer entries;
    int count = 0;

    bool vendor_or_no_notice() const { return server_kind == NO_NOTICE || server_kind == SERVER_KIND_VENDOR; }
};

void write_entry(Listing *l, Identity *identity, const uint8_t *blob, uint32_t blob_len, const char *offered_name)
{
    buffer_put_string(&l->entries, blob, blob_len);
    const std::string &comment = *identity->comment;
    if (l->local) {
        buffer_put_cstring(&l->entries, comment.c_str());
        buffer_put_cstring(&l->entries, identity->key->name.c_str());
        if (is_certificate_type(identity->key->type))
            buffer_put_int(&l->entries, identity->key->cert_source);
    } else {
        std::string text = std::string(offered_name) + " - " + comment;
        buffer_put_cstring(&l->entries, text.c_str());
    }
    ++l->count;
}

// Offers a plain key under `name`; returns the entries written (0 or 1).
int offer_plain_key(Listing *l, Identity *identity, int local, const char *name)
{
    Key *key = identity->key.get();
    const SignatureAlgorithm *algorithm = signature_algorithm_by_name(name);
    if (!local && crypto_fips_enabled() && algorithm &&
        (algorithm->hash_nid == NID_sha1 || algorithm->hash_nid == NID_md5)) {
        agent_log("Not listing %s, MD5 and SHA1 signatures not allowed in FIPS mode.", name);
        return 0;
    }
    key->sigalg = algorithm;
    SecureBytes blob;
    uint32_t len = key_to_blob(key, &blob, nullptr, key_ssh_name(key));
    key->sigalg = nullptr;
    write_entry(l, identity, blob.data(), len, name);
    if (!local)
        agent_log("Added key %s - %s (type %d) to message for host/server.", name, key->name.c_str(), key->type);
    else
        agent_log("Added key %s (type %d) to internal message", key->name.c_str(), key->type);
    return 1;
}

int plain_key_rule(Listing *l, Identity *identity, int local)
{
    Key *key = identity->key.get();
    int written = 0;
    switch (key->type) {
    case KEY_RSA:
        if (!local && !l->use_only_sha1 && l->server_kind != SERVER_KIND_SUNSSH) {
            written += offer_plain_key(l, identity, local, "rsa-sha2-256");
            if (l->server_kind == SERVER_KIND_VENDOR)
                written += offer_plain_key(l, identity, local, SSH_RSA_SHA256_VENDOR_ALIAS);
            written += offer_plain_key(l, identity, local, "rsa-sha2-512");
        }
        written += offer_plain_key(l, identity, local, "ssh-rsa");
        break;
    case KEY_DSA: written += offer_plain_key(l, identity, local, key_ssh_name(key)); break;
    case KEY_ECDSA:
        if (l->server_kind == SERVER_KIND_SUNSSH || (!local && l->use_only_sha1))
            break;
        written += offer_plain_key(l, identity, local, key_ssh_name(key));
        break;
    case KEY_ED25519:
        // Like ECDSA: no SHA-1 form to offer, and unknown to SunSSH.
        if (l->server_kind == SERVER_KIND_SUNSSH || (!local && l->use_only_sha1))
            break;
        if (!crypto_fips_allows_ed25519()) {
            agent_log("Not listing %s, Ed25519 signatures not allowed in FIPS mode.", key_ssh_name(key));
            break;
        }
        written += offer_plain_key(l, identity, local, key_ssh_name(key));
        break;
    default: break;
    }
    return written;
}

// A certificate identity offered as the plain key inside it.
int cert_as_key_rule(Listing *l, Identity *identity)
{
    Key *key = identity->key.get();
    int saved = key->type;
    int plain = plain_key_type(saved);
    key->type = plain == KEY_RSA || plain == KEY_DSA || plain == KEY_ECDSA ? plain : KEY_UNSPEC;
    int written = plain_key_rule(l, identity, 0);
    key->type = saved;
    return written;
}

int offer_certificate_plain(Listing *l, Identity *identity, const char *name)
{
    Key *key = identity->key.get();
    key->sigalg = signature_algorithm_by_name(name);
    Buffer blob;
    if (!ssh_pki_x509key_to_blob(key, &blob))
        agent_log("add_x509_no_chain_to_message(): ssh_pki_x509key_to_blob: error");
    key->sigalg = nullptr;
    write_entry(l, identity, buffer_ptr(&blob), buffer_len(&blob), name);
    return 1;
}

// RFC 6187 form: only the end-entity certificate is sent.
int offer_certificate_chain(Listing *l, Identity *identity, const char *name)
{
    agent_log("ssh RFC6187 pubkey: sending %d certificates in the chain.", 1);
    Buffer blob;
    buffer_put_cstring(&blob, name);
    buffer_put_int(&blob, 1);
    KVL::Bytes der = KVL::Cert(identity->key->cert.get()).GetEncoded();
    buffer_put_string(&blob, der.data(), static_cast<uint32_t>(der.size()));
    buffer_put_int(&blob, 0);
    write_entry(l, identity, buffer_ptr(&blob), buffer_len(&blob), name);
    return 1;
}

int certificate_rule(Listing *l, Identity *identity)
{
    Key *key = identity->key.get();
    int written = 0;
    switch (key->type) {
    case KEY_X509_RSA:
        if (!l->local) {
            if (key_size(key) >= 2048 && !l->use_only_sha1 && l->vendor_or_no_notice())
                written += offer_certificate_chain(l, identity, "x509v3-rsa2048-sha256");
            if (l->vendor_or_no_notice())
                written += offer_certificate_chain(l, identity, "x509v3-ssh-rsa");
        }
        written += offer_certificate_plain(l, identity, "x509v3-sign-rsa");
        break;
    case KEY_X509_DSA: written += offer_certificate_plain(l, identity, "x509v3-sign-dss"); break;
    case KEY_X509_ECDSA:
        if (!l->local && l->use_only_sha1)
            break;
        if (l->vendor_or_no_notice())
            written += offer_certificate_chain(l, identity, key_ssh_name(key));
        else if (l->server_kind == SERVER_KIND_OPENSSH_PKIX)
            written += offer_certificate_plain(l, identity, key_ssh_name(key));
        break;
    default: break;
    }
    return written;
}

bool excluded_for_certificates(int kind) { return kind == SERVER_KIND_SUNSSH || kind == SERVER_KIND_OPENSSH; }

void offer_identity(Listing *l, Identity *identity)
{
    if (!is_certificate_type(identity->key->type)) {
        plain_key_rule(l, identity, l->local);
    } else if (l->local || agent_enum_certs_as_certs()) {
        certificate_rule(l, identity);
    } else if (agent_enum_certs_as_keys()) {
        cert_as_key_rule(l, identity);
    } else if (agent_enum_keys_first()) {
        cert_as_key_rule(l, identity);
        if (!excluded_for_certificates(l->server_kind))
            certificate_rule(l, identity);
    } else if (agent_enum_certs_first()) {
        if (!excluded_for_certificates(l->server_kind))
            certificate_rule(l, identity);
        cert_as_key_rule(l, identity);
    }
}

}  // namespace

void handle_list_identities(RequestContext *ctx, int version, int local)
{
    IdentityTable *table = identity_table_for_version(version);
    Listing listing{ctx, local, NO_NOTICE, agent_settings().UseOnlySha1 != 0, Buffer(), 0};
    if (auto notice = forwarding_notice_for_connection(ctx->connection))
        listing.server_kind = static_cast<int>(notice->list_mode);

    for (const auto &entry : table->identities) {
        Identity *identity = entry.get();
        if (identity->key == nullptr)
            continue;
        if (ctx->agent_protocol == 2 && identity->key->type == 0)
            continue;
        if (!identity->comment)
            identity->comment = key_description(identity->key.get());
        offer_identity(&listing, identity);
    }

    Buffer body;
    uint8_t code = ctx->agent_protocol == 2 ? SSH_AGENT_KEY_LIST
                   : version == 1           ? SSH_AGENT_RSA_IDENTITIES_ANSWER
                                            : SSH2_AGENT_IDENTITIES_ANSWER;
    buffer_put_char(&body, code);
    buffer_put_int(&body, static_cast<uint32_t>(listing.count));
    buffer_append(&body, buffer_ptr(&listing.entries), buffer_len(&listing.entries));
    reply_frame(ctx, &body);

    if (version == 2 || table->nentries > 0) {
        if (!local && agent_enum_both())
            agent_log("Identity list request (remote) : returned %d key/certs(s)", listing.count);
        else
            agent_log("Identity list request (%s): returned %d key(s)", local ? "local" : "remote", listing.count);
    }
}
