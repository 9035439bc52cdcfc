// The commands of tagent, the agent's client and manager.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "keys/secure_memory.h"

// Exit statuses.
constexpr int TAGENT_DONE = 0;
constexpr int TAGENT_REFUSED = 1;
constexpr int TAGENT_UNREACHABLE = 2;  // also usage errors

struct TagentContext {
    std::string agent_socket;
    std::string control_socket;
};

// Runs `args` (the command word first); prints one line on failure.
int tagent_run(const TagentContext &context, const std::vector<std::string> &args);

// The usage text, with the shell's own lines.
std::string tagent_usage();

// The first line of the file that `option` names, else the user's answer to
// the prompt with `description`; nothing when the file cannot be read (said
// in one line) or the prompt is cancelled (`when_cancelled` said, if given).
std::optional<SecretString> tagent_secret(const std::vector<std::string> &args, const char *option,
                                          const std::string &description, const char *when_cancelled = nullptr);

// Building blocks of the commands, shared with the Windows manager window.
// Each prints one line on failure and returns an exit status.
int tagent_unlock_with(const TagentContext &context, const SecretString &passphrase);
int tagent_change_passphrase(const TagentContext &context, const SecretString &old_passphrase,
                             const SecretString &new_passphrase, bool empty);
// One of the agent's window messages; its result in `*result`.
int tagent_window_message(const TagentContext &context, uint32_t message, uint64_t wparam, uint64_t lparam,
                          const std::string &data, int64_t *result);
