#include "app/win32/agent_folders.h"

#include <windows.h>
#include <shlobj.h>

#include <cstdlib>

#include "app/win32/user_security.h"
#include "platform/win32/text_conversion.h"

namespace {

constexpr char PRODUCT_FOLDER[] = "Tarnwell Key Agent";

std::string roaming_app_data()
{
    PWSTR path = nullptr;
    std::string folder;
    if (SUCCEEDED(SHGetKnownFolderPath(FOLDERID_RoamingAppData, KF_FLAG_CREATE, nullptr, &path)))
        folder = wide_to_utf8(path, wcslen(path));
    CoTaskMemFree(path);
    return folder;
}

std::string from_environment(const char *name, const std::string &fallback)
{
    const char *value = getenv(name);
    return value && *value ? value : fallback;
}

}  // namespace

WindowsFolders windows_agent_folders()
{
    std::string product = roaming_app_data() + "\\" + PRODUCT_FOLDER;
    return {from_environment("TARNWELL_DATA_DIR", product), from_environment("TARNWELL_LOG_DIR", product)};
}

bool create_private_folder(const std::string &path)
{
    std::wstring wide = utf8_to_wide(path);
    DWORD attributes = GetFileAttributesW(wide.c_str());
    if (attributes != INVALID_FILE_ATTRIBUTES)
        return (attributes & FILE_ATTRIBUTE_DIRECTORY) != 0;
    size_t split = path.find_last_of("\\/");
    if (split != std::string::npos && split > 0 && path[split - 1] != ':' && !create_private_folder(path.substr(0, split)))
        return false;
    std::unique_ptr<UserOnlySecurity> security = make_user_only_security();
    return CreateDirectoryW(wide.c_str(), &security->attributes) || GetLastError() == ERROR_ALREADY_EXISTS;
}
