#include "agent/data_folder.h"

#include "agent/passphrase.h"
#include "pki/cert_store.h"
#include "platform/platform.h"

namespace {
std::string &folder_storage()
{
    static std::string folder;
    return folder;
}
}  // namespace

void agent_data_folder_set(const std::string &folder)
{
    folder_storage() = folder;
    // The certificate store lives in the data folder and opens its keys under
    // the passphrase the agent holds.
    cert_store_bind(agent_data_path(CERT_STORE_FOLDER), agent_passphrase_text);
}

const std::string &agent_data_folder() { return folder_storage(); }

std::string agent_data_path(const char *name)
{
    const std::string &folder = folder_storage();
    if (folder.empty())
        return {};
    return platform_join_path(folder, name);
}
