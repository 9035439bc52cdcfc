// What the manager window asks of the agent, through tagent's commands, so
// that the window and the command line do exactly the same. Each returns
// the outcome with the one line tagent gave on failure.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "app/tagent/tagent_keys.h"
#include "keys/secure_memory.h"

struct ManagerOutcome {
    bool done = false;
    std::string message;  // why not, for the user
};

// The identities, or nothing when no agent answers.
std::optional<std::vector<IdentityRow>> manager_identities();
// 1 locked, 0 unlocked, -1 no agent answers.
int manager_lock_state();

ManagerOutcome manager_add_key(const std::string &file);
ManagerOutcome manager_remove_identity(const IdentityRow &identity);
ManagerOutcome manager_remove_all();
ManagerOutcome manager_lock();
ManagerOutcome manager_unlock(const SecretString &passphrase);
ManagerOutcome manager_change_passphrase(const SecretString &old_passphrase, const SecretString &new_passphrase,
                                         bool empty);
// One of the settings messages (1029-1036) with its new value.
ManagerOutcome manager_set(uint32_t message, bool value);
ManagerOutcome manager_reset();

// Registers `window` for the agent's change notices, posted to it as
// WM_COMMAND `command`; or drops the registration.
void manager_register(uint64_t window, uint32_t command);
void manager_unregister(uint64_t window);
