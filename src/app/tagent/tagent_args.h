// Argument helpers and the one-line failures shared by tagent's commands.
#pragma once

#include <optional>
#include <string>
#include <vector>

// The value after `name` among the command's arguments (args[0] is the
// command word), or nothing.
std::optional<std::string> tagent_option(const std::vector<std::string> &args, const char *name);
bool tagent_flag(const std::vector<std::string> &args, const char *name);

// Print one line and return the exit status for it.
int tagent_usage_error(const std::string &what);
int tagent_unreachable(const std::string &socket);
