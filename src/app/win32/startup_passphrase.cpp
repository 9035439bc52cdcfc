#include "app/win32/startup_passphrase.h"

#include "agent/data_folder.h"
#include "agent/handlers.h"
#include "agent/key_store.h"
#include "agent/key_store_files.h"
#include "agent/local_lock.h"
#include "agent/passphrase.h"
#include "agent/settings.h"
#include "app/message_processor.h"
#include "app/program_texts.h"
#include "app/win32/dialogs.h"
#include "app/win32/windows_services.h"
#include "log/agent_log.h"
#include "log/log.h"

namespace {

bool set_first_passphrase(int64_t owner_window)
{
    agent_log("Agent not initialized with passphrase yet");
    SecretString passphrase;
    bool no_passphrase = false;
    if (!ask_first_passphrase(dialog_owner(owner_window), &passphrase, &no_passphrase)) {
        agent_log("User cancelled agent passphrase initialization");
        return false;
    }
    int set = on_message_thread<int>([&] {
        return set_agent_passphrase(no_passphrase ? "" : passphrase.c_str(), no_passphrase ? 1 : 0);
    });
    passphrase.wipe();
    if (!set) {
        show_error_text(TEXT_FIRST_PASSPHRASE_FAILED);
        agent_log("Failed to initialize with the given passphrase");
        return false;
    }
    agent_log("Agent has a passphrase now");
    return true;
}

}  // namespace

bool windows_startup_passphrase(int64_t owner_window)
{
    // A settings file that lost its digest beside an existing key store is
    // not a first run: the store is kept and the old passphrase unlocks it.
    bool first_run = on_message_thread<bool>(
        [] { return !agent_passphrase_is_set() && !key_store_present(key_store_paths()); });
    if (first_run)
        return set_first_passphrase(owner_window);
    run_on_message_thread([] {
        if (!agent_passphrase_is_set())
            error("%s holds no passphrase digest but a key store exists in %s: it is kept; unlock with the old "
                  "passphrase",
                  agent_data_path(AGENT_SETTINGS_FILE).c_str(), agent_data_folder().c_str());
        load_public_key_store();
        if (agent_settings().AttemptEmpty || (!agent_passphrase_is_set() && key_store_password_opens("")))
            agent_local_unlock("");
    });
    return true;
}
