// The user data folder that holds the settings file and the key store. The
// shell sets it once at start-up, before the settings are read.
#pragma once

#include <string>

#include "keys/secure_memory.h"

void agent_data_folder_set(const std::string &folder);
const std::string &agent_data_folder();

// Full path of `name` in the data folder; empty while no folder is set, so
// that nothing is ever read from or written to the working folder by mistake.
std::string agent_data_path(const char *name);

// The whole contents of a file of the data folder, in storage that is wiped
// when released. `*ok` is false when the file cannot be opened or read.
SecureBytes read_whole_file(const std::string &path, bool *ok);
