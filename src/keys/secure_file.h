// Reading a whole file (a key or certificate file, the settings) into
// storage that is wiped when released.
#pragma once

#include <string>

#include "keys/secure_memory.h"

// `*ok` is false when the file cannot be opened or read, or `path` is empty.
SecureBytes read_whole_file(const std::string &path, bool *ok);
