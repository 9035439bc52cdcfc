// The commands of tagent, the agent's client and manager.
#pragma once

#include <string>
#include <vector>

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
