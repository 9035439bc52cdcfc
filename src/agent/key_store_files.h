// Replacing the two key-store files without ever destroying the only copy,
// and moving them and the settings file to a new passphrase as one step.
//
// A save writes "tAgentKeys.new" and then "tAgentKeys.pub.new" completely
// and flushes them, renames the private file into place (the commit point),
// then the public one; each replaced file's old contents are overwritten.
// A change of passphrase does the same, and before its commit it also
// writes "tAgent.change", the settings file with the new digest; after the
// commit that file replaces "tAgent" before the public file is renamed.
// Whatever moment either is killed at, key_store_recover (run before the
// settings are read) leaves the complete old store and settings or the
// complete new ones:
// - "tAgentKeys.new" still there: not committed; the new files are
//   discarded, the public one first and "tAgent.change" last, so that an
//   interrupted recovery still reads as uncommitted.
// - else "tAgent.change" and "tAgentKeys.pub.new" there: a committed
//   change; the settings file and then the public file are renamed into
//   place.
// - else "tAgent.change" alone: not committed (or its discarding was cut
//   short); it is removed.
// - else only "tAgentKeys.pub.new" there: a committed save; it is renamed
//   into place.
#pragma once

#include <string>

#include "keys/secure_memory.h"

struct KeyStorePaths {
    std::string public_file, private_file;
    std::string public_fresh, private_fresh;  // the ".new" files of a save
    std::string settings_file, settings_change;  // "tAgent" and "tAgent.change"
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

// The steps of a change of passphrase, in order.
enum PassphraseChangeStep {
    CHANGE_STEP_PRIVATE_WRITTEN = 1,
    CHANGE_STEP_PUBLIC_WRITTEN = 2,
    CHANGE_STEP_SETTINGS_WRITTEN = 3,  // "tAgent.change" is complete
    CHANGE_STEP_COMMITTED = 4,         // the new private file has replaced the old
    CHANGE_STEP_SETTINGS_REPLACED = 5,
    CHANGE_STEP_DONE = 6,
};

// Finishes or rolls back a save or change of passphrase that was interrupted.
void key_store_recover(const KeyStorePaths &paths);

// Replaces both files by the given texts, stopping after `last_step` as a
// kill at that moment would. False when a step failed; then the old store
// is left as it was.
bool key_store_replace(const KeyStorePaths &paths, const std::string &public_text, const SecretString &private_text,
                       int last_step = KEY_STORE_STEP_DONE);

// Replaces both files and the settings file together (a change of
// passphrase), stopping after `last_step` as a kill would. False when a
// step before the commit failed; then the old store and settings stand.
bool key_store_replace_with_settings(const KeyStorePaths &paths, const std::string &public_text,
                                     const SecretString &private_text, const SecureBytes &settings_text,
                                     int last_step = CHANGE_STEP_DONE);

// True when either key-store file exists and is not empty.
bool key_store_present(const KeyStorePaths &paths);

// Renames both key-store files to "<name>.<suffix>" (a time stamp), never
// destroying them. False, with `*problem` set, when one could not be moved.
bool key_store_set_aside(const KeyStorePaths &paths, const std::string &suffix, std::string *problem);
