#include "app/posix/startup_passphrase.h"

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "agent/handlers.h"
#include "agent/key_store.h"
#include "agent/local_lock.h"
#include "agent/passphrase.h"
#include "agent/settings.h"
#include "log/agent_log.h"

bool read_passphrase_file(const std::string &path, SecretString *text, std::string *message)
{
    FILE *file = fopen(path.c_str(), "rb");
    if (!file) {
        *message = "cannot read the passphrase file " + path + ": " + strerror(errno);
        return false;
    }
    text->wipe();
    int c;
    while ((c = fgetc(file)) != EOF && c != '\n')
        text->push_back(static_cast<char>(c));
    bool failed = ferror(file);
    fclose(file);
    if (failed) {
        text->wipe();
        *message = "cannot read the passphrase file " + path;
        return false;
    }
    if (!text->empty() && text->back() == '\r')
        text->pop_back();
    return true;
}

bool startup_passphrase_prepare(const AgentOptions &options, StartupPassphrase *startup, std::string *message)
{
    startup->first_run = !agent_passphrase_is_set();
    startup->empty_choice = options.empty_passphrase;
    startup->from_file = !options.passphrase_file.empty();
    if (startup->first_run && !startup->from_file && !startup->empty_choice) {
        agent_log("Agent not initialized with passphrase yet");
        *message = "no agent passphrase is set yet; start tkeyagent once with --passphrase-file FILE "
                   "or --empty-passphrase";
        return false;
    }
    // Read now: the agent leaves its working folder when it detaches.
    if (startup->from_file)
        return read_passphrase_file(options.passphrase_file, &startup->text, message);
    return true;
}

void startup_passphrase_apply(StartupPassphrase *startup)
{
    if (startup->first_run) {
        agent_log("Agent not initialized with passphrase yet");
        if (startup->from_file)
            set_agent_passphrase(startup->text.c_str(), 0);
        else
            set_agent_passphrase("", 1);
        agent_log("Agent has a passphrase now");
    } else {
        load_public_key_store();
        if (agent_settings().AttemptEmpty)
            agent_local_unlock("");
        if (startup->from_file && agent_is_locked())
            agent_local_unlock(startup->text.c_str());
    }
    startup->text.wipe();
}
