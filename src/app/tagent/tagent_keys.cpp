#include "app/tagent/tagent_keys.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <optional>
#include <sstream>

#include <openssl/pem.h>

#include "agent/protocol.h"
#include "app/program_texts.h"
#include "app/tagent/tagent_args.h"
#include "app/tagent/tagent_shell.h"
#include "keys/key_blob.h"
#include "keys/key_fingerprint.h"
#include "keys/openssh_private_key.h"
#include "keys/ossl_ptr.h"
#include "keys/private_key_material.h"
#include "keys/public_key_format.h"

namespace {

struct ListedIdentity {
    SecureBytes blob;
    std::string comment;
    std::string name;
};

// The agent's identities with their names (the vendor list request).
std::optional<std::vector<ListedIdentity>> vendor_list(const TagentContext &c)
{
    AgentConnection agent(c.agent_socket);
    Buffer body, reply;
    buffer_put_char(&body, SSH2_AGENTC_ZEM_REQUEST_IDENTITIES);
    if (!agent.connected() || !agent.call(body, &reply) || buffer_get_char(&reply) != SSH2_AGENT_IDENTITIES_ANSWER)
        return std::nullopt;
    std::vector<ListedIdentity> out;
    for (uint32_t count = buffer_get_int(&reply); count > 0 && buffer_len(&reply) > 0; --count) {
        ListedIdentity id;
        id.blob = buffer_get_string(&reply);
        id.comment = buffer_get_string_text(&reply);
        id.name = buffer_get_string_text(&reply);
        if (key_blob_name(id.blob.data(), static_cast<uint32_t>(id.blob.size())).rfind("x509v3-", 0) == 0 ||
            key_blob_name(id.blob.data(), static_cast<uint32_t>(id.blob.size())).empty())
            buffer_get_int(&reply);  // the certificate's location
        out.push_back(std::move(id));
    }
    return out;
}





// The first argument after the command that is not an option or its value.
std::optional<std::string> operand(const std::vector<std::string> &args, std::initializer_list<const char *> valued)
{
    for (size_t i = 1; i < args.size(); ++i) {
        bool takes_value = false;
        for (const char *v : valued)
            takes_value = takes_value || args[i] == v;
        if (takes_value) {
            ++i;
            continue;
        }
        if (args[i].rfind("--", 0) != 0)
            return args[i];
    }
    return std::nullopt;
}

int password_callback(char *buffer, int size, int, void *file)
{
    std::string description = std::string("Enter the passphrase of ") + static_cast<const char *>(file);
    auto pin = tagent_ask_passphrase({program_text(TEXT_KEY_PASSPHRASE_DIALOG), description,
                                 program_text(TEXT_PASSPHRASE_PROMPT), ""});
    if (!pin || static_cast<int>(pin->size()) >= size)
        return -1;
    memcpy(buffer, pin->data(), pin->size());
    return static_cast<int>(pin->size());
}

// A private key file: OpenSSH's own format when it is not encrypted, else
// PEM or PKCS#8, whose password is asked through pinentry. Null with the
// reason in `*why`.
PkeyPtr read_private_key(const std::string &path, std::string *why)
{
    std::ifstream in(path, std::ios::binary);
    SecretString text{std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
    *why = "cannot read a private key from " + path;
    if (!in)
        return nullptr;
    if (openssh_private_key_present(text.data(), text.size())) {
        OpensshPrivateKey key;
        std::string reason;
        switch (openssh_private_key_read(text.data(), text.size(), &key, &reason)) {
        case OpensshKeyResult::ok: return std::move(key.key->pkey);
        case OpensshKeyResult::encrypted:
            *why = path + " is an encrypted OpenSSH private key; add it with ssh-add, which decrypts it itself";
            return nullptr;
        case OpensshKeyResult::bad: *why = path + ": " + reason; return nullptr;
        }
    }
    BioPtr bio(BIO_new_mem_buf(text.data(), static_cast<int>(text.size())));
    if (!bio)
        return nullptr;
    return PkeyPtr(PEM_read_bio_PrivateKey(bio.get(), nullptr, password_callback, const_cast<char *>(path.c_str())));
}

// The public key of FILE: FILE.pub, FILE as a public key line, or the
// public half of FILE as a private key.
KeyPtr read_public_key(const std::string &path)
{
    for (const std::string &candidate : {path + ".pub", path}) {
        std::ifstream in(candidate);
        std::string line;
        if (in && std::getline(in, line)) {
            KeyPtr key = key_new(KEY_UNSPEC);
            const char *cursor = line.c_str();
            if (key_read(key.get(), &cursor) == 1)
                return key;
        }
    }
    std::string why;
    PkeyPtr pkey = read_private_key(path, &why);
    if (!pkey)
        return nullptr;
    Buffer fields;
    if (!private_key_put_agent_fields(pkey.get(), &fields))
        return nullptr;
    std::string type = buffer_get_string_text(&fields);
    KeyPtr key = key_new(key_type_from_name(type.c_str()));
    key->ecdsa_nid = key_ecdsa_name_to_nid(type.c_str());
    key->pkey = std::move(pkey);
    return key;
}

std::optional<ListedIdentity> find_by_name(const TagentContext &c, const std::string &name, bool *reachable)
{
    auto listed = vendor_list(c);
    *reachable = listed.has_value();
    if (listed)
        for (auto &id : *listed)
            if (id.name == name)
                return std::move(id);
    return std::nullopt;
}

}  // namespace

std::optional<std::vector<IdentityRow>> tagent_identity_rows(const TagentContext &c)
{
    auto listed = vendor_list(c);
    if (!listed)
        return std::nullopt;
    std::vector<IdentityRow> rows;
    for (const auto &id : *listed) {
        IdentityRow row{id.name, "", "", id.comment, id.blob};
        KeyPtr key = key_from_blob(id.blob.data(), static_cast<uint32_t>(id.blob.size()));
        if (key && key->type != KEY_UNSPEC) {
            row.type = std::string(key_type(key.get())) + " " + std::to_string(key_size(key.get()));
            row.fingerprint = "SHA256:" + key_fingerprint(key.get(), SSH_FP_SHA256, SSH_FP_BASE64);
        }
        rows.push_back(std::move(row));
    }
    return rows;
}

int tagent_list(const TagentContext &c, const std::vector<std::string> &)
{
    auto rows = tagent_identity_rows(c);
    if (!rows)
        return tagent_unreachable(c.agent_socket);
    if (rows->empty())
        printf("The agent has no identities.\n");
    for (const auto &row : *rows) {
        if (row.type.empty())
            printf("%s  (unreadable key)  %s\n", row.name.c_str(), row.comment.c_str());
        else
            printf("%s  %s  %s  %s\n", row.name.c_str(), row.type.c_str(), row.fingerprint.c_str(),
                   row.comment.c_str());
    }
    return TAGENT_DONE;
}

int tagent_add(const TagentContext &c, const std::vector<std::string> &args)
{
    auto file = operand(args, {"--name", "--lifetime"});
    if (!file)
        return tagent_usage_error("add needs a private key file");
    std::string why;
    PkeyPtr key = read_private_key(*file, &why);
    if (!key) {
        fprintf(stderr, "tagent: %s\n", why.c_str());
        return TAGENT_REFUSED;
    }
    auto name = tagent_option(args, "--name");
    Buffer body;
    buffer_put_char(&body, name ? SSH2_AGENTC_ZEM_ADD_IDENTITY : SSH2_AGENTC_ADD_ID_CONSTRAINED);
    if (!private_key_put_agent_fields(key.get(), &body)) {
        fprintf(stderr, "tagent: %s holds a key type the agent does not take (RSA, DSA, ECDSA and Ed25519 only)\n",
                file->c_str());
        return TAGENT_REFUSED;
    }
    buffer_put_cstring(&body, file->c_str());
    if (name)
        buffer_put_cstring(&body, name->c_str());
    if (auto lifetime = tagent_option(args, "--lifetime")) {
        buffer_put_char(&body, 50);  // relative lifetime in seconds
        buffer_put_int(&body, static_cast<uint32_t>(strtoul(lifetime->c_str(), nullptr, 10)));
    }
    if (tagent_flag(args, "--confirm"))
        buffer_put_char(&body, 2);
    if (tagent_flag(args, "--temporary"))
        buffer_put_char(&body, 155);

    AgentConnection agent(c.agent_socket);
    Buffer reply;
    if (!agent.connected() || !agent.call(body, &reply))
        return tagent_unreachable(c.agent_socket);
    buffer_clear_wipe(&body);
    uint8_t code = buffer_get_char(&reply);
    bool added = name ? (code == 0 || code == 9) : code == SSH_AGENT_SUCCESS;
    if (!added) {
        fprintf(stderr, "tagent: the agent refused the key in %s\n", file->c_str());
        return TAGENT_REFUSED;
    }
    printf(name && code == 9 ? "Already held: %s\n" : "Identity added: %s\n", file->c_str());
    return TAGENT_DONE;
}

int tagent_remove(const TagentContext &c, const std::vector<std::string> &args)
{
    auto target = operand(args, {});
    if (!target)
        return tagent_usage_error("remove needs a key file, a key name or --all");
    SecureBytes blob;
    uint32_t len = 0;
    if (std::filesystem::exists(*target)) {
        KeyPtr key = read_public_key(*target);
        if (!key) {
            fprintf(stderr, "tagent: cannot read a key from %s\n", target->c_str());
            return TAGENT_REFUSED;
        }
        len = key_to_blob(key.get(), &blob, nullptr, key_blob_type_name(key.get()));
    } else {
        bool reachable = false;
        auto found = find_by_name(c, *target, &reachable);
        if (!reachable)
            return tagent_unreachable(c.agent_socket);
        if (!found) {
            fprintf(stderr, "tagent: the agent holds no key named %s\n", target->c_str());
            return TAGENT_REFUSED;
        }
        blob = found->blob;
        len = static_cast<uint32_t>(blob.size());
    }
    blob.resize(len);
    return tagent_remove_identity(c, blob, *target);
}

int tagent_remove_identity(const TagentContext &c, const SecureBytes &blob, const std::string &what)
{
    AgentConnection agent(c.agent_socket);
    Buffer body, reply;
    buffer_put_char(&body, SSH2_AGENTC_REMOVE_IDENTITY);
    buffer_put_string(&body, blob.data(), static_cast<uint32_t>(blob.size()));
    if (!agent.connected() || !agent.call(body, &reply))
        return tagent_unreachable(c.agent_socket);
    if (buffer_get_char(&reply) != SSH_AGENT_SUCCESS) {
        fprintf(stderr, "tagent: the agent did not remove %s\n", what.c_str());
        return TAGENT_REFUSED;
    }
    return TAGENT_DONE;
}

int tagent_export(const TagentContext &c, const std::vector<std::string> &args)
{
    auto name = operand(args, {"--comment"});
    if (!name)
        return tagent_usage_error("export needs a key name");
    bool reachable = false;
    auto found = find_by_name(c, *name, &reachable);
    if (!reachable)
        return tagent_unreachable(c.agent_socket);
    KeyPtr key = found ? key_from_blob(found->blob.data(), static_cast<uint32_t>(found->blob.size())) : nullptr;
    if (!key) {
        fprintf(stderr, "tagent: the agent holds no key named %s\n", name->c_str());
        return TAGENT_REFUSED;
    }
    auto comment = tagent_option(args, "--comment");
    std::string block = key_secsh_block(key.get(), comment ? comment->c_str() : nullptr);
    if (block.empty()) {
        fprintf(stderr, "tagent: %s cannot be exported\n", name->c_str());
        return TAGENT_REFUSED;
    }
    fputs(block.c_str(), stdout);
    return TAGENT_DONE;
}
