// Saving the key store.
#include <string>

#include "agent/identity_table.h"
#include "agent/key_store.h"
#include "agent/key_store_files.h"
#include "agent/passphrase.h"
#include "crypto/private_key_pem.h"
#include "keys/public_key_format.h"
#include "log/log.h"

namespace {

void append(SecretString *out, const std::string &text) { out->append(text.data(), text.size()); }

// A key without a one-line form (a certificate identity with no source)
// has no public record. A plain key's line is kept with its identity.
void append_public_record(Identity &identity, std::string *out)
{
    const Key *key = identity.key.get();
    std::string made;
    if (is_certificate_type(key->type) || identity.stored_public_line.empty()) {
        made = key_line(key, false);
        if (made.empty())
            return;
        if (!is_certificate_type(key->type))
            identity.stored_public_line = made;
    }
    *out += key->name + "\n" + (made.empty() ? identity.stored_public_line : made);
    if (identity.comment)
        *out += " " + *identity.comment;
    *out += "\n";
}

// The PEM block is encrypted again only when the passphrase has changed
// since it was made: encryption is the expensive part of a save.
void append_private_record(Identity &identity, const char *password, uint64_t generation, SecretString *out)
{
    const Key *key = identity.key.get();
    if (identity.public_only)
        return;
    switch (key->type) {
    case KEY_RSA:
    case KEY_DSA:
    case KEY_ECDSA:
    case KEY_ED25519:
        if (identity.stored_pem.empty() || identity.stored_pem_generation != generation) {
            identity.stored_pem_generation = 0;
            if (!private_key_pem_write(key, password, &identity.stored_pem))
                return;
            identity.stored_pem_generation = generation;
        }
        append(out, key->name + "\n");
        out->append(identity.stored_pem);
        out->append("\n");
        return;
    case KEY_X509_RSA:
    case KEY_X509_DSA:
    case KEY_X509_ECDSA:
        if (const char *tag = cert_source_marker(key->cert_source)) {
            append(out, key->name + tag + "\n" + key->cert_reference + "\n\n");
            return;
        }
        error("key_save_private: cannot save key type %d in location %d", key->type, key->cert_source);
        return;
    default: error("key_save_private: cannot save key type %d", key->type); return;
    }
}

}  // namespace

void key_store_texts(const char *password, uint64_t generation, std::string *public_text, SecretString *private_text)
{
    for (int version : {2, 1}) {
        for (auto &identity : identity_table_for_version(version)->identities) {
            if (identity->temporary || !identity->key)
                continue;
            if (identity->key->name.empty())
                identity->key->name = make_identity_name(identity->key.get());
            append_public_record(*identity, public_text);
            append_private_record(*identity, password, generation, private_text);
        }
    }
    for (const UnreadableRecord &record : unreadable_records()) {
        *public_text += record.public_record;
        private_text->append(record.private_record);
    }
}

void save_key_store_until(int last_step)
{
    KeyStorePaths paths = key_store_paths();
    const char *password = agent_passphrase_text();
    if (paths.private_fresh.empty() || password == nullptr)
        return;
    std::string public_text;
    SecretString private_text;
    key_store_texts(password, agent_passphrase_generation(), &public_text, &private_text);
    key_store_replace(paths, public_text, private_text, last_step);
}

void save_key_store() { save_key_store_until(KEY_STORE_STEP_DONE); }
