#include "agent/passphrase.h"

#include <cstring>
#include <optional>

#include <openssl/evp.h>

#include "agent/data_folder.h"
#include "agent/handlers.h"
#include "agent/key_store.h"
#include "agent/local_lock.h"
#include "agent/settings.h"
#include "app/window_messages.h"
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

int set_agent_passphrase(const char *passphrase, uint32_t attempt_empty)
{
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
    if (match) {
        hold_passphrase(candidate);
        load_private_key_store();
    }
    return match ? 1 : 0;
}

int change_agent_passphrase(const char *old_passphrase, const char *new_passphrase, uint32_t attempt_empty)
{
    if (!verify_agent_passphrase(old_passphrase)) {
        agent_log("Change passphrase failed: wrong passphrase");
        return 0;
    }
    agent_local_unlock(old_passphrase);
    set_agent_passphrase(new_passphrase, attempt_empty);
    cert_store_reencrypt(cert_store_folder(), old_passphrase, new_passphrase);
    save_key_store();
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
    if (auto quit = window_shell().post_quit)
        quit();
}
