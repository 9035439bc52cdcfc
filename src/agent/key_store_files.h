// Replacing the two key-store files without ever destroying the only copy.
//
// A save writes "tAgentKeys.new" and then "tAgentKeys.pub.new" completely
// and flushes them, renames the private file into place (the commit point),
// then the public one; each replaced file's old contents are overwritten.
// Whatever moment a save is killed at, the files on disk are the complete
// old store or the complete new one once key_store_recover has run:
// - "tAgentKeys.new" still there: the save had not committed; both new
//   files are discarded (the public one first, so that an interrupted
//   recovery still reads as uncommitted).
// - only "tAgentKeys.pub.new" there: the save had committed; it is renamed
//   into place.
#pragma once

#include <string>

#include "keys/secure_memory.h"

struct KeyStorePaths {
    std::string public_file, private_file;
    std::string public_fresh, private_fresh;  // the ".new" files of a save
};

// Empty paths while no data folder is set.
KeyStorePaths key_store_paths();

// The steps of a save, in order.
enum KeyStoreStep {
    KEY_STORE_STEP_PRIVATE_WRITTEN = 1,
    KEY_STORE_STEP_PUBLIC_WRITTEN = 2,
    KEY_STORE_STEP_COMMITTED = 3,  // the new private file has replaced the old
    KEY_STORE_STEP_DONE = 4,
};

// Finishes or rolls back a save that was interrupted.
void key_store_recover(const KeyStorePaths &paths);

// Replaces both files by the given texts, stopping after `last_step` as a
// kill at that moment would. False when a step failed; then the old store
// is left as it was.
bool key_store_replace(const KeyStorePaths &paths, const std::string &public_text, const SecretString &private_text,
                       int last_step = KEY_STORE_STEP_DONE);
