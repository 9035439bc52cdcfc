// The key commands of tagent: list, add, remove and export.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "app/tagent/tagent_commands.h"

// One held identity as list shows it.
struct IdentityRow {
    std::string name;
    std::string type;         // "RSA 2048"; empty when the key is unreadable
    std::string fingerprint;  // "SHA256:..."
    std::string comment;
};

// The agent's identities, or nothing when it is not reachable.
std::optional<std::vector<IdentityRow>> tagent_identity_rows(const TagentContext &context);

int tagent_list(const TagentContext &context, const std::vector<std::string> &args);
int tagent_add(const TagentContext &context, const std::vector<std::string> &args);
int tagent_remove(const TagentContext &context, const std::vector<std::string> &args);
int tagent_export(const TagentContext &context, const std::vector<std::string> &args);
