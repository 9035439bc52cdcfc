// The settings as the manager window shows them, read from the agent's
// settings file. The agent changes the switches itself (window messages);
// the auto-lock values, which the agent keeps but never acts on, are
// written into the file by the manager.
#pragma once

#include <cstdint>

#include "agent/settings.h"

// Points the settings file at the agent's data folder.
void manager_settings_open();

// The file's settings; the defaults when it cannot be read.
AgentSettings manager_settings_read();

// Rewrites the file with these auto-lock values when they differ from the
// file's, keeping every other line as the file has it now.
void manager_settings_write_auto_lock(uint32_t auto_lock, int32_t minutes);
