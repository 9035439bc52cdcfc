#include "agent/data_folder.h"

#include <cstdio>

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
    return platform_join_path(folder, name);
}

SecureBytes read_whole_file(const std::string &path, bool *ok)
{
    SecureBytes data;
    *ok = false;
    if (path.empty())
        return data;
    FILE *file = fopen(path.c_str(), "rb");
    if (!file)
        return data;
    uint8_t chunk[4096];
    size_t n;
    while ((n = fread(chunk, 1, sizeof chunk, file)) > 0)
        data.insert(data.end(), chunk, chunk + n);
    *ok = !ferror(file);
    fclose(file);
    wipe_memory(chunk, sizeof chunk);
    return data;
}
