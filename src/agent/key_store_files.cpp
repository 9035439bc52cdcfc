#include "agent/key_store_files.h"

#include <filesystem>
#include <system_error>

#include "agent/data_folder.h"
#include "agent/key_store.h"
#include "agent/settings.h"
#include "platform/platform.h"

KeyStorePaths key_store_paths()
{
    KeyStorePaths paths;
    paths.public_file = agent_data_path(KEY_STORE_PUBLIC_FILE);
    paths.private_file = agent_data_path(KEY_STORE_PRIVATE_FILE);
    paths.settings_file = agent_data_path(AGENT_SETTINGS_FILE);
    if (!paths.public_file.empty() && !paths.private_file.empty()) {
        paths.public_fresh = paths.public_file + ".new";
        paths.private_fresh = paths.private_file + ".new";
        paths.settings_change = paths.settings_file + ".change";
    }
    return paths;
}

namespace {

// Destroys the new files of an uncommitted save or change. The public one
// goes first and the settings last: while the private one exists, the step
// still counts as uncommitted.
void discard_fresh_files(const KeyStorePaths &paths)
{
    platform_destroy_file(paths.public_fresh);
    platform_destroy_file(paths.private_fresh);
    platform_destroy_file(paths.settings_change);
}

bool write_fresh_store(const KeyStorePaths &paths, const std::string &public_text, const SecretString &private_text,
                       int last_step, int public_step)
{
    if (!platform_write_private_file(paths.private_fresh, private_text.data(), private_text.size())) {
        discard_fresh_files(paths);
        return false;
    }
    if (last_step < public_step)
        return true;
    if (!platform_write_private_file(paths.public_fresh, public_text.data(), public_text.size())) {
        discard_fresh_files(paths);
        return false;
    }
    return true;
}

bool commit_private_file(const KeyStorePaths &paths)
{
    if (platform_replace_file_destroying(paths.private_fresh, paths.private_file))
        return true;
    discard_fresh_files(paths);
    return false;
}

bool file_has_content(const std::string &path)
{
    if (path.empty())
        return false;
    std::error_code failed;
    std::uintmax_t size = std::filesystem::file_size(path, failed);
    return !failed && size > 0;
}

}  // namespace

void key_store_recover(const KeyStorePaths &paths)
{
    if (paths.private_fresh.empty())
        return;
    bool change = platform_file_exists(paths.settings_change);
    if (platform_file_exists(paths.private_fresh)) {
        discard_fresh_files(paths);
    } else if (change && platform_file_exists(paths.public_fresh)) {
        platform_replace_file_destroying(paths.settings_change, paths.settings_file);
        platform_replace_file_destroying(paths.public_fresh, paths.public_file);
    } else if (change) {
        platform_destroy_file(paths.settings_change);
    } else if (platform_file_exists(paths.public_fresh)) {
        platform_replace_file_destroying(paths.public_fresh, paths.public_file);
    }
}

bool key_store_replace(const KeyStorePaths &paths, const std::string &public_text, const SecretString &private_text,
                       int last_step)
{
    if (paths.private_fresh.empty())
        return false;
    // A save that was cut short must be settled first: its committed
    // private file belongs with its public file, not with the old one.
    key_store_recover(paths);
    if (!write_fresh_store(paths, public_text, private_text, last_step, KEY_STORE_STEP_PUBLIC_WRITTEN))
        return false;
    if (last_step < KEY_STORE_STEP_COMMITTED)
        return true;
    if (!commit_private_file(paths))
        return false;
    if (last_step < KEY_STORE_STEP_DONE)
        return true;
    // Should this fail, the next start finishes it.
    return platform_replace_file_destroying(paths.public_fresh, paths.public_file);
}

bool key_store_replace_with_settings(const KeyStorePaths &paths, const std::string &public_text,
                                     const SecretString &private_text, const SecureBytes &settings_text,
                                     int last_step)
{
    if (paths.private_fresh.empty())
        return false;
    key_store_recover(paths);
    if (!write_fresh_store(paths, public_text, private_text, last_step, CHANGE_STEP_PUBLIC_WRITTEN))
        return false;
    if (last_step < CHANGE_STEP_SETTINGS_WRITTEN)
        return true;
    if (!platform_write_private_file(paths.settings_change, settings_text.data(), settings_text.size())) {
        discard_fresh_files(paths);
        return false;
    }
    if (last_step < CHANGE_STEP_COMMITTED)
        return true;
    if (!commit_private_file(paths))
        return false;
    if (last_step < CHANGE_STEP_SETTINGS_REPLACED)
        return true;
    // From here on the change stands; whatever fails now, the next start
    // finishes.
    platform_replace_file_destroying(paths.settings_change, paths.settings_file);
    if (last_step < CHANGE_STEP_DONE)
        return true;
    platform_replace_file_destroying(paths.public_fresh, paths.public_file);
    return true;
}

bool key_store_present(const KeyStorePaths &paths)
{
    return file_has_content(paths.private_file) || file_has_content(paths.public_file);
}

bool key_store_set_aside(const KeyStorePaths &paths, const std::string &suffix, std::string *problem)
{
    for (const std::string *file : {&paths.private_file, &paths.public_file}) {
        if (file->empty() || !platform_file_exists(*file))
            continue;
        std::string aside = *file + "." + suffix;
        if (!platform_replace_file(*file, aside)) {
            *problem = "cannot move " + *file + " to " + aside;
            return false;
        }
    }
    return true;
}
