// The key store: "tAgentKeys.pub" (names, public keys, comments) and
// "tAgentKeys" (private keys under the agent passphrase) in the data folder.
//
// Public file, two lines per identity: the key name, then the one-line
// public key followed by " comment" when the identity has one.
// Private file, per identity: the key name and the key as a PEM block, or
// for a certificate identity the name immediately followed by its location
// tag ("#CERT_SYSTEM", ...) and then its reference line; each record ends
// with one more line feed. Table 2 is written first, then table 1;
// temporary identities are never written.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "keys/secure_memory.h"

constexpr const char *KEY_STORE_PUBLIC_FILE = "tAgentKeys.pub";
constexpr const char *KEY_STORE_PRIVATE_FILE = "tAgentKeys";

// Writes both files from the identity tables. Does nothing while no data
// folder is set or no passphrase is held (the private keys could not be
// written).
void save_key_store();
// The same, stopping after the given step of key_store_replace (see
// agent/key_store_files.h) as a kill at that moment would.
void save_key_store_until(int last_step);

// The texts of both files for the identity tables, every private key
// under `password` (reusing blocks made in passphrase generation
// `generation`), then the unreadable records as they stand.
void key_store_texts(const char *password, uint64_t generation, std::string *public_text, SecretString *private_text);

// Reads the public file into table 2; the identities can be listed at once.
// First settles a save that an earlier run left unfinished.
void load_public_key_store();
// Replaces the identities by those of the private file, decrypted with the
// held agent passphrase.
void load_private_key_store();

// The readers behind the two loads, for the contents of a file.
void read_public_key_store(const char *text, size_t len);
// `generation` is the passphrase generation that `password` belongs to;
// each key's block is kept with its identity, so the next save can reuse it.
// Records that cannot be read become the unreadable records, each with its
// record of `public_text` (the public file) of the same name.
void read_private_key_store(const char *text, size_t len, const char *password, uint64_t generation,
                            std::string_view public_text = {});

// A stored record that could not be read or decrypted (damaged, under
// another passphrase, or a certificate that cannot be found now). Every
// save writes it back as it stands, after the identities, so that nothing
// unreadable is ever destroyed.
struct UnreadableRecord {
    std::string name;
    std::string public_record;    // its lines in the public file, or empty
    SecretString private_record;  // its bytes in the private file, exactly
};
// Those of the last private load.
std::vector<UnreadableRecord> &unreadable_records();
// How many stored records could not be read: the unreadable records, and
// once the passphrase is held, the identities known only from the public
// file (their private file was empty or missing).
size_t key_store_unreadable_count();

// True when `password` decrypts a stored private key (an unencrypted one
// counts for the empty password only): proof of the passphrase when the
// settings file has lost its digest.
bool key_store_password_opens(const char *password);
