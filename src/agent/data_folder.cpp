#include "agent/data_folder.h"

#include "platform/platform.h"

namespace {
std::string &folder_storage()
{
    static std::string folder;
    return folder;
}
}  // namespace

void agent_data_folder_set(const std::string &folder) { folder_storage() = folder; }

const std::string &agent_data_folder() { return folder_storage(); }

std::string agent_data_path(const char *name)
{
    const std::string &folder = folder_storage();
    if (folder.empty())
        return {};
    char separator = platform_path_separator();
    return folder.back() == separator ? folder + name : folder + separator + name;
}
