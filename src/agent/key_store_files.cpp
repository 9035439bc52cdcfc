#include "agent/key_store_files.h"

#include "agent/data_folder.h"
#include "agent/key_store.h"
#include "platform/platform.h"

KeyStorePaths key_store_paths()
{
    KeyStorePaths paths;
    paths.public_file = agent_data_path(KEY_STORE_PUBLIC_FILE);
    paths.private_file = agent_data_path(KEY_STORE_PRIVATE_FILE);
    if (!paths.public_file.empty() && !paths.private_file.empty()) {
        paths.public_fresh = paths.public_file + ".new";
        paths.private_fresh = paths.private_file + ".new";
    }
    return paths;
}

namespace {

// Destroys the new files of an uncommitted save. The public one goes first:
// while the private one exists, the save still counts as uncommitted.
void discard_fresh_files(const KeyStorePaths &paths)
{
    platform_destroy_file(paths.public_fresh);
    platform_destroy_file(paths.private_fresh);
}

}  // namespace

void key_store_recover(const KeyStorePaths &paths)
{
    if (paths.private_fresh.empty())
        return;
    if (platform_file_exists(paths.private_fresh))
        discard_fresh_files(paths);
    else if (platform_file_exists(paths.public_fresh))
        platform_replace_file_destroying(paths.public_fresh, paths.public_file);
}

bool key_store_replace(const KeyStorePaths &paths, const std::string &public_text, const SecretString &private_text,
                       int last_step)
{
    if (paths.private_fresh.empty())
        return false;
    // A save that was cut short must be settled first: its committed
    // private file belongs with its public file, not with the old one.
    key_store_recover(paths);

    if (!platform_write_private_file(paths.private_fresh, private_text.data(), private_text.size())) {
        discard_fresh_files(paths);
        return false;
    }
    if (last_step < KEY_STORE_STEP_PUBLIC_WRITTEN)
        return true;
    if (!platform_write_private_file(paths.public_fresh, public_text.data(), public_text.size())) {
        discard_fresh_files(paths);
        return false;
    }
    if (last_step < KEY_STORE_STEP_COMMITTED)
        return true;
    if (!platform_replace_file_destroying(paths.private_fresh, paths.private_file)) {
        discard_fresh_files(paths);
        return false;
    }
    if (last_step < KEY_STORE_STEP_DONE)
        return true;
    // Should this fail, the next start finishes it.
    return platform_replace_file_destroying(paths.public_fresh, paths.public_file);
}
