// The certificate commands of tagent: the agent's own certificate store
// (import, list, remove) and the certificate add.
#pragma once

#include <string>
#include <vector>

#include "app/tagent/tagent_commands.h"

// cert import FILE.p12 | cert list | cert remove IDENTIFIER
int tagent_cert(const TagentContext &context, const std::vector<std::string> &args);
// add-cert LOCATION IDENTIFIER [--comment TEXT]
int tagent_add_cert(const TagentContext &context, const std::vector<std::string> &args);
