// The key commands of tagent: list, add, remove and export.
#pragma once

#include <string>
#include <vector>

#include "app/tagent/tagent_commands.h"

int tagent_list(const TagentContext &context, const std::vector<std::string> &args);
int tagent_add(const TagentContext &context, const std::vector<std::string> &args);
int tagent_remove(const TagentContext &context, const std::vector<std::string> &args);
int tagent_export(const TagentContext &context, const std::vector<std::string> &args);
