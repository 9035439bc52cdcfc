#include "app/win32/manager_settings.h"

#include "agent/data_folder.h"
#include "app/tagent/tagent_shell.h"
#include "keys/secure_file.h"

void manager_settings_open() { agent_data_folder_set(tagent_default_data_folder()); }

AgentSettings manager_settings_read()
{
    bool ok = false;
    SecureBytes data = read_whole_file(agent_data_path(AGENT_SETTINGS_FILE), &ok);
    return ok ? parse_agent_settings(data.data(), data.size()) : AgentSettings{};
}

void manager_settings_write_auto_lock(uint32_t auto_lock, int32_t minutes)
{
    // Read just before writing, so that a digest or switch the agent saved
    // meanwhile is kept.
    bool ok = false;
    SecureBytes data = read_whole_file(agent_data_path(AGENT_SETTINGS_FILE), &ok);
    if (!ok)
        return;  // no agent passphrase yet: nothing to keep the values with
    AgentSettings settings = parse_agent_settings(data.data(), data.size());
    if (settings.AutoLock == auto_lock && settings.AutoLockMinutes == minutes)
        return;
    settings.AutoLock = auto_lock;
    settings.AutoLockMinutes = minutes;
    write_agent_settings_file(settings);
}
