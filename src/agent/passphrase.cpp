#include "agent/passphrase.h"

#include <cstring>
#include <optional>

#include <openssl/evp.h>

#include "agent/data_folder.h"
#include "agent/handlers.h"
#include "agent/key_store.h"
#include "agent/key_store_files.h"
#include "agent/local_lock.h"
#include "agent/settings.h"
#include "agent/shell_services.h"
#include "crypto/private_key_pem.h"
#include "log/agent_log.h"
#include "log/log.h"
#include "pki/cert_store.h"
#include "platform/platform.h"

namespace {

// Absent until the passphrase is set or first proved; SecretString wipes
// its storage whenever it is dropped or replaced.
std::optional<SecretString> &held_passphrase()
{
    static std::optional<SecretString> held;
    return held;
}

uint64_t &generation()
{
    static uint64_t value = 1;
    return value;
}

void hold_passphrase(const char *passphrase)
{
    held_passphrase().emplace(passphrase);
    ++generation();
}

const char *or_empty(const char *text) { return text ? text : ""; }

// The settings file has lost its digest but a key store exists: the
// passphrase is proved by the store itself, and its digest written again.
bool verify_against_key_store(const char *candidate)
{
    if (agent_passphrase_is_set() || !key_store_present(key_store_paths()) || !key_store_password_opens(candidate))
        return false;
    AgentSettings &settings = agent_settings();
    if (agent_passphrase_storable(candidate)) {
        agent_passphrase_digest(candidate, settings.passphrase_digest);
        settings.AttemptEmpty = candidate[0] == '\0' ? 1 : 0;
        write_agent_settings();
        error("Agent passphrase proved by the key store; its digest is stored again in %s",
              agent_data_path(AGENT_SETTINGS_FILE).c_str());
    } else {
        error("Agent passphrase proved by the key store, but %s cannot hold its digest; change the passphrase",
              agent_data_path(AGENT_SETTINGS_FILE).c_str());
    }
    return true;
}

}  // namespace

void agent_passphrase_digest(const char *passphrase, uint8_t digest[AGENT_DIGEST_LENGTH])
{
    const char *text = or_empty(passphrase);
    EVP_MD_CTX *md = EVP_MD_CTX_new();
    unsigned int length = 0;
    if (!md || EVP_DigestInit_ex(md, EVP_sha1(), nullptr) != 1 || EVP_DigestUpdate(md, text, strlen(text)) != 1 ||
        EVP_DigestFinal_ex(md, digest, &length) != 1 || length != AGENT_DIGEST_LENGTH) {
        EVP_MD_CTX_free(md);
        fatal("agent_passphrase_digest: SHA-1 digest failed");
    }
    EVP_MD_CTX_free(md);
}

bool agent_passphrase_is_set()
{
    const uint8_t *digest = agent_settings().passphrase_digest;
    for (size_t i = 0; i < AGENT_DIGEST_LENGTH; ++i)
        if (digest[i])
            return true;
    return false;
}

bool agent_passphrase_held() { return held_passphrase().has_value(); }

const char *agent_passphrase_text() { return held_passphrase() ? held_passphrase()->c_str() : nullptr; }

uint64_t agent_passphrase_generation() { return generation(); }

void forget_agent_passphrase()
{
    held_passphrase().reset();
    ++generation();
}

bool agent_passphrase_storable(const char *passphrase, const char **why)
{
    const char *refusal = nullptr;
    if (strlen(or_empty(passphrase)) > PRIVATE_KEY_PEM_PASSWORD_MAX) {
        refusal = AGENT_PASSPHRASE_TOO_LONG;
    } else {
        uint8_t digest[AGENT_DIGEST_LENGTH];
        agent_passphrase_digest(passphrase, digest);
        if (!settings_digest_reads_back(digest))
            refusal = AGENT_PASSPHRASE_UNSTORABLE;
        wipe_memory(digest, sizeof digest);
    }
    if (why)
        *why = refusal;
    return refusal == nullptr;
}

int set_agent_passphrase(const char *passphrase, uint32_t attempt_empty)
{
    const char *why = nullptr;
    if (!agent_passphrase_storable(passphrase, &why)) {
        error("%s", why);
        return 0;
    }
    forget_agent_passphrase();
    hold_passphrase(or_empty(passphrase));
    agent_set_locked(false);

    AgentSettings &settings = agent_settings();
    agent_passphrase_digest(passphrase, settings.passphrase_digest);
    settings.AttemptEmpty = attempt_empty;
    write_agent_settings();
    agent_log("Agent passphrase has been set");
    return 1;
}

int verify_agent_passphrase(const char *passphrase)
{
    const char *candidate = or_empty(passphrase);
    // Once held, the passphrase is what counts: a settings file edited
    // during the run has no effect until the next start.
    if (held_passphrase())
        return strcmp(candidate, held_passphrase()->c_str()) == 0;

    uint8_t digest[AGENT_DIGEST_LENGTH];
    agent_passphrase_digest(candidate, digest);
    bool match = CRYPTO_memcmp(digest, agent_settings().passphrase_digest, AGENT_DIGEST_LENGTH) == 0;
    wipe_memory(digest, sizeof digest);
    match = match || verify_against_key_store(candidate);
    if (match) {
        hold_passphrase(candidate);
        load_private_key_store();
    }
    return match ? 1 : 0;
}

int change_agent_passphrase(const char *old_passphrase, const char *new_passphrase, uint32_t attempt_empty)
{
    return change_agent_passphrase_until(old_passphrase, new_passphrase, attempt_empty, CHANGE_STEP_DONE);
}

int change_agent_passphrase_until(const char *old_passphrase, const char *new_passphrase, uint32_t attempt_empty,
                                  int last_step)
{
    if (!verify_agent_passphrase(old_passphrase)) {
        agent_log("Change passphrase failed: wrong passphrase");
        return 0;
    }
    const char *why = nullptr;
    if (!agent_passphrase_storable(new_passphrase, &why)) {
        error("Change passphrase failed: %s", why);
        return 0;
    }
    agent_local_unlock(old_passphrase);

    // The settings file, the private file and the public file move to the
    // new passphrase together: every key is encrypted under it into new
    // files beside the old ones, and one rename commits all three.
    KeyStorePaths paths = key_store_paths();
    SecretString previous(or_empty(agent_passphrase_text()));
    AgentSettings previous_settings = agent_settings();
    hold_passphrase(or_empty(new_passphrase));
    AgentSettings &settings = agent_settings();
    agent_passphrase_digest(new_passphrase, settings.passphrase_digest);
    settings.AttemptEmpty = attempt_empty;
    if (!paths.private_fresh.empty()) {
        std::string public_text;
        SecretString private_text;
        key_store_texts(agent_passphrase_text(), agent_passphrase_generation(), &public_text, &private_text);
        if (!key_store_replace_with_settings(paths, public_text, private_text, format_agent_settings(settings),
                                             last_step)) {
            settings = previous_settings;
            hold_passphrase(previous.c_str());
            error("Change passphrase failed: cannot write the key store in %s", agent_data_folder().c_str());
            return 0;
        }
    }
    // Keys of the agent's own certificate store follow the passphrase too.
    cert_store_reencrypt(cert_store_folder(), old_passphrase, new_passphrase);
    agent_log("Agent passphrase has been set");
    agent_log("Change passphrase succeeded");
    return 1;
}

void reset_agent_data()
{
    for (const char *name : {KEY_STORE_PRIVATE_FILE, KEY_STORE_PUBLIC_FILE, AGENT_SETTINGS_FILE}) {
        std::string path = agent_data_path(name);
        if (!path.empty())
            platform_destroy_file(path);
    }
    agent_log("Resetting key agent data.  All keys destroyed and passphrase reset.");
    shell_post_quit();
}
