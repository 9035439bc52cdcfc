// The agent passphrase at start-up on Windows: the first-passphrase dialog
// when none was ever set, else the key store is loaded and the agent
// unlocks with the empty passphrase when `AttemptEmpty` is set.
#pragma once

#include <cstdint>

// False when the start is to end: the dialog was cancelled or its
// passphrase could not be set.
bool windows_startup_passphrase(int64_t owner_window);
