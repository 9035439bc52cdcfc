#include "app/tagent/tagent_certs.h"

#include <cstdio>
#include <fstream>
#include <optional>
#include <sstream>

#include "agent/data_folder.h"
#include "agent/passphrase.h"
#include "agent/protocol.h"
#include "agent/settings.h"
#include "app/program_texts.h"
#include "app/tagent/tagent_args.h"
#include "app/tagent/tagent_shell.h"
#include "keys/key.h"
#include "log/text_compare.h"
#include "pki/cert_store.h"

namespace {

// The data folder the agent uses (--data-dir, else the default), with its
// settings read, so that the agent passphrase can be checked.
std::string open_data_folder(const std::vector<std::string> &args)
{
    std::string folder = tagent_option(args, "--data-dir").value_or(tagent_default_data_folder());
    agent_data_folder_set(folder);
    read_agent_settings();
    return cert_store_folder();
}

// The agent passphrase, checked against the stored digest: the store's keys
// are encrypted under it.
std::optional<SecretString> agent_passphrase(const std::vector<std::string> &args)
{
    if (!agent_passphrase_is_set())
        return SecretString();
    auto passphrase = tagent_secret(args, "--passphrase-file", "Enter the agent passphrase");
    if (!passphrase)
        return std::nullopt;
    uint8_t digest[AGENT_DIGEST_LENGTH];
    agent_passphrase_digest(passphrase->c_str(), digest);
    bool match = CRYPTO_memcmp(digest, agent_settings().passphrase_digest, AGENT_DIGEST_LENGTH) == 0;
    wipe_memory(digest, sizeof digest);
    if (!match) {
        fprintf(stderr, "tagent: wrong agent passphrase\n");
        return std::nullopt;
    }
    return passphrase;
}

int cert_import(const std::vector<std::string> &args)
{
    if (args.size() < 3 || args[2].rfind("--", 0) == 0)
        return tagent_usage_error("cert import needs a PKCS#12 file");
    std::ifstream in(args[2], std::ios::binary);
    if (!in) {
        fprintf(stderr, "tagent: cannot read %s\n", args[2].c_str());
        return TAGENT_REFUSED;
    }
    std::stringstream bytes;
    bytes << in.rdbuf();
    std::string p12 = bytes.str();
    std::string folder = open_data_folder(args);
    auto password = tagent_secret(args, "--password-file", "Enter the password of " + args[2]);
    if (!password) {
        fprintf(stderr, "tagent: no password given\n");
        return TAGENT_REFUSED;
    }
    auto passphrase = agent_passphrase(args);
    if (!passphrase)
        return TAGENT_REFUSED;
    std::string sha1, why;
    if (!cert_store_import_pkcs12(folder, reinterpret_cast<const uint8_t *>(p12.data()), p12.size(),
                                  password->c_str(), passphrase->c_str(), &sha1, &why)) {
        fprintf(stderr, "tagent: %s: %s\n", args[2].c_str(), why.c_str());
        return TAGENT_REFUSED;
    }
    printf("%s\n", sha1.c_str());
    return TAGENT_DONE;
}

int cert_list(const std::vector<std::string> &args)
{
    for (const CertStoreEntry &entry : cert_store_list(open_data_folder(args)))
        printf("%s %s %s\n", entry.sha1_hex.c_str(), entry.ca ? "ca      " : "identity", entry.name.c_str());
    return TAGENT_DONE;
}

int cert_remove(const std::vector<std::string> &args)
{
    if (args.size() < 3)
        return tagent_usage_error("cert remove needs a hash or a name");
    if (cert_store_remove(open_data_folder(args), args[2]) == 0) {
        fprintf(stderr, "tagent: no certificate in the store matches %s\n", args[2].c_str());
        return TAGENT_REFUSED;
    }
    return TAGENT_DONE;
}

uint32_t location_from(const std::string &word)
{
    if (word == "1" || equals_ignore_case(word, "system"))
        return CERT_SOURCE_SYSTEM;
    if (word == "2" || equals_ignore_case(word, "pkcs11"))
        return CERT_SOURCE_PKCS11;
    if (word == "3" || equals_ignore_case(word, "tarnwell"))
        return CERT_SOURCE_TARNWELL;
    return CERT_SOURCE_NONE;
}

}  // namespace

int tagent_cert(const TagentContext &, const std::vector<std::string> &args)
{
    std::string sub = args.size() > 1 ? args[1] : "";
    if (sub == "import")
        return cert_import(args);
    if (sub == "list")
        return cert_list(args);
    if (sub == "remove")
        return cert_remove(args);
    return tagent_usage_error("cert needs import, list or remove");
}

int tagent_add_cert(const TagentContext &c, const std::vector<std::string> &args)
{
    uint32_t location = args.size() > 2 ? location_from(args[1]) : CERT_SOURCE_NONE;
    if (location == CERT_SOURCE_NONE)
        return tagent_usage_error("add-cert needs a location (1 system, 2 pkcs11, 3 tarnwell) and an identifier");
    // The name only says that a certificate follows; the provider finds
    // out the certificate's own type.
    Buffer body, reply;
    buffer_put_char(&body, SSH2_AGENTC_ADD_IDENTITY);
    buffer_put_cstring(&body, "x509v3-sign-rsa");
    buffer_put_char(&body, static_cast<uint8_t>(location));
    buffer_put_cstring(&body, args[2].c_str());
    buffer_put_cstring(&body, tagent_option(args, "--comment").value_or(args[2]).c_str());
    AgentConnection agent(c.agent_socket);
    if (!agent.connected() || !agent.call(body, &reply))
        return tagent_unreachable(c.agent_socket);
    if (buffer_get_char(&reply) != SSH_AGENT_SUCCESS) {
        fprintf(stderr, "tagent: the agent found no certificate %s in location %u\n", args[2].c_str(), location);
        return TAGENT_REFUSED;
    }
    return TAGENT_DONE;
}
