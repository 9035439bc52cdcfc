// The key commands of tagent: list, add, remove and export.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "app/tagent/tagent_commands.h"
#include "keys/secure_memory.h"

// One held identity as list shows it.
struct IdentityRow {
    std::string name;
    std::string type;         // "RSA 2048"; empty when the key is unreadable
    std::string fingerprint;  // "SHA256:..."
    std::string comment;
    SecureBytes blob;  // the public key, as the agent names it
};

// The agent's identities, or nothing when it is not reachable.
std::optional<std::vector<IdentityRow>> tagent_identity_rows(const TagentContext &context);

int tagent_list(const TagentContext &context, const std::vector<std::string> &args);
int tagent_add(const TagentContext &context, const std::vector<std::string> &args);
int tagent_remove(const TagentContext &context, const std::vector<std::string> &args);
// Removes the identity whose public key blob is `blob`; `what` names it in
// the line printed on failure.
int tagent_remove_identity(const TagentContext &context, const SecureBytes &blob, const std::string &what);
int tagent_export(const TagentContext &context, const std::vector<std::string> &args);
