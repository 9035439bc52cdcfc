// The agent passphrase. Only its SHA-1 digest is stored (in the settings
// file); the passphrase itself is held in memory once it has been set or
// proved in this run, and is the password of the private key store.
// A null passphrase counts as the empty one everywhere.
#pragma once

#include <cstdint>

// True when a digest is stored, i.e. an agent passphrase was ever set.
bool agent_passphrase_is_set();
// True while the passphrase is held in memory.
bool agent_passphrase_held();
// The held passphrase; null while none is held.
const char *agent_passphrase_text();
// Changes whenever the held passphrase is set, first proved or forgotten, so
// that whatever was encrypted under an earlier one can be recognised.
uint64_t agent_passphrase_generation();

// Why a passphrase is refused by agent_passphrase_storable, for prompts and logs.
constexpr const char *AGENT_PASSPHRASE_UNSTORABLE =
    "this passphrase cannot be stored: its SHA-1 digest begins with a white-space byte, which the settings file "
    "would read back shifted; choose another passphrase";
constexpr const char *AGENT_PASSPHRASE_TOO_LONG =
    "this passphrase cannot be stored: it is longer than 1024 bytes, and the key store could not be read back "
    "under it; choose a shorter passphrase";
// False for a passphrase that would lock the user out once stored: one
// whose digest the settings file would not read back as written (about 1 in
// 43), or one too long to decrypt the key store with. `*why`, when given,
// gets the matching message above.
bool agent_passphrase_storable(const char *passphrase, const char **why = nullptr);

// Makes `passphrase` the agent passphrase: holds it, unlocks the agent and
// stores its digest and `attempt_empty` as `AttemptEmpty`. Returns 1, or 0
// with nothing changed when the passphrase is not storable.
int set_agent_passphrase(const char *passphrase, uint32_t attempt_empty);
// Nonzero when `passphrase` is the agent passphrase. The first success of a
// run holds it and loads the private key store. While the settings file
// holds no digest but a key store exists, a passphrase that decrypts a
// stored key is the agent passphrase, and its digest is stored again.
int verify_agent_passphrase(const char *passphrase);
// Wipes and drops the held passphrase.
void forget_agent_passphrase();
// Unlocks with `old_passphrase`, sets the new one and rewrites the key store
// under it, the settings file and both key-store files as one step (see
// agent/key_store_files.h). Returns 1, or 0 when `old_passphrase` is wrong,
// the new one is not storable or the files cannot be written.
int change_agent_passphrase(const char *old_passphrase, const char *new_passphrase, uint32_t attempt_empty);
// The same, stopping after the given PassphraseChangeStep as a kill at that
// moment would.
int change_agent_passphrase_until(const char *old_passphrase, const char *new_passphrase, uint32_t attempt_empty,
                                  int last_step);
// Destroys the key store and the settings file and asks the shell to stop.
void reset_agent_data();

// The SHA-1 digest of the passphrase's characters.
void agent_passphrase_digest(const char *passphrase, uint8_t digest[20]);
