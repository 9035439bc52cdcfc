// The user data folder that holds the settings file and the key store. The
// shell sets it once at start-up, before the settings are read.
#pragma once

#include <string>

#include "keys/secure_file.h"

void agent_data_folder_set(const std::string &folder);
const std::string &agent_data_folder();

// Full path of `name` in the data folder; empty while no folder is set, so
// that nothing is ever read from or written to the working folder by mistake.
std::string agent_data_path(const char *name);
