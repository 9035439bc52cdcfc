#include "app/posix/startup_passphrase.h"

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "agent/handlers.h"
#include "agent/key_store.h"
#include "agent/local_lock.h"
#include "agent/passphrase.h"
#include "agent/settings.h"
#include "app/posix/pinentry.h"
#include "app/program_texts.h"
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

namespace {

// The first-passphrase dialog through pinentry. An empty entry is the "no
// passphrase" choice, which the user then confirms.
bool ask_first_passphrase(StartupPassphrase *startup, std::string *message)
{
    agent_log("Agent not initialized with passphrase yet");
    startup->announced = true;
    auto pin = pinentry_get_pin({program_text(TEXT_FIRST_PASSPHRASE_DIALOG),
                                 program_text(TEXT_FIRST_PASSPHRASE_DESCRIPTION),
                                 program_text(TEXT_PASSPHRASE_PROMPT), program_text(TEXT_REPEAT_PASSPHRASE)});
    bool chosen = pin.has_value();
    if (pin && pin->empty())
        chosen = startup->empty_choice = pinentry_confirm({program_text(TEXT_FIRST_PASSPHRASE_DIALOG),
                                                           program_text(TEXT_NO_PASSPHRASE_CONFIRM), "", ""});
    if (!chosen) {
        agent_log("User cancelled agent passphrase initialization");
        *message = "no agent passphrase was chosen; start tkeyagent with --passphrase-file FILE or "
                   "--empty-passphrase, or answer the passphrase prompt";
        return false;
    }
    if (!startup->empty_choice) {
        startup->from_file = true;
        startup->text = std::move(*pin);
    }
    return true;
}

}  // namespace

bool startup_passphrase_prepare(const AgentOptions &options, StartupPassphrase *startup, std::string *message)
{
    startup->first_run = !agent_passphrase_is_set();
    startup->empty_choice = options.empty_passphrase;
    startup->from_file = !options.passphrase_file.empty();
    if (startup->first_run && !startup->from_file && !startup->empty_choice)
        return ask_first_passphrase(startup, message);
    // Read now: the agent leaves its working folder when it detaches.
    if (startup->from_file)
        return read_passphrase_file(options.passphrase_file, &startup->text, message);
    return true;
}

void startup_passphrase_apply(StartupPassphrase *startup)
{
    if (startup->first_run) {
        if (!startup->announced)
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
