#include "app/startup_passphrase.h"

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "agent/data_folder.h"
#include "agent/handlers.h"
#include "agent/key_store.h"
#include "agent/key_store_files.h"
#include "agent/local_lock.h"
#include "agent/passphrase.h"
#include "agent/settings.h"
#include "log/agent_log.h"
#include "log/log.h"
#include "platform/platform.h"

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

// A local time stamp for the names of a store set aside.
std::string time_stamp()
{
    LocalTime t = platform_local_time();
    char text[32];
    snprintf(text, sizeof text, "%04u%02u%02u-%02u%02u%02u", t.year, t.month, t.day, t.hour, t.minute, t.second);
    return text;
}

}  // namespace

bool startup_keep_or_set_aside_store(bool start_over, StartupPassphrase *startup, std::string *message)
{
    std::string settings = agent_data_path(AGENT_SETTINGS_FILE);
    if (agent_passphrase_is_set()) {
        if (start_over) {
            *message = "--start-over: " + settings + " holds a passphrase digest, so there is nothing to start "
                       "over; tagent reset destroys the store";
            return false;
        }
        return true;
    }
    KeyStorePaths paths = key_store_paths();
    if (!key_store_present(paths))
        return true;
    const char *problem = settings_file_state_text(agent_settings_file_state());
    if (!start_over) {
        startup->notice = settings + " " + problem + " but a key store exists in " + agent_data_folder() +
                          ": it is kept; unlock with the old passphrase, or start tkeyagent with --start-over "
                          "to set it aside";
        startup->store_kept = true;
    } else {
        std::string suffix = "set-aside-" + time_stamp();
        if (!key_store_set_aside(paths, suffix, message))
            return false;
        startup->notice = settings + " " + problem + ": the key store is set aside as " + paths.private_file + "." +
                          suffix + " and " + paths.public_file + "." + suffix + "; starting over";
    }
    error("%s", startup->notice.c_str());
    return true;
}

bool startup_passphrase_prepare(const StartupChoice &choice, FirstPassphrasePrompt ask_first,
                                StartupPassphrase *startup, std::string *message)
{
    if (!startup_keep_or_set_aside_store(choice.start_over, startup, message))
        return false;
    startup->first_run = !agent_passphrase_is_set() && !startup->store_kept;
    startup->empty_choice = choice.empty_passphrase;
    startup->from_file = !choice.passphrase_file.empty();
    if (startup->first_run && !startup->from_file && !startup->empty_choice) {
        agent_log("Agent not initialized with passphrase yet");
        startup->announced = true;
        if (ask_first && ask_first(startup)) {
            startup->from_file = !startup->empty_choice;
            return true;
        }
        agent_log("User cancelled agent passphrase initialization");
        *message = "no agent passphrase was chosen; start tkeyagent with --passphrase-file FILE or "
                   "--empty-passphrase, or answer the passphrase prompt";
        return false;
    }
    // Read now: the agent leaves its working folder when it detaches.
    if (startup->from_file && !read_passphrase_file(choice.passphrase_file, &startup->text, message))
        return false;
    const char *why = nullptr;
    if (startup->first_run && startup->from_file && !agent_passphrase_storable(startup->text.c_str(), &why)) {
        agent_log("Failed to initialize with the given passphrase");
        *message = "the passphrase in " + choice.passphrase_file + ": " + why;
        return false;
    }
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
        // A kept store without its digest that is not encrypted opens as
        // the empty passphrase's store did.
        if (agent_settings().AttemptEmpty || (startup->store_kept && key_store_password_opens("")))
            agent_local_unlock("");
        if (startup->from_file && agent_is_locked())
            agent_local_unlock(startup->text.c_str());
    }
    startup->text.wipe();
}
