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

constexpr const char *KEY_STORE_PUBLIC_FILE = "tAgentKeys.pub";
constexpr const char *KEY_STORE_PRIVATE_FILE = "tAgentKeys";

// Writes both files from the identity tables. Does nothing while no data
// folder is set or no passphrase is held (the private keys could not be
// written).
void save_key_store();
// The same, stopping after the given step of key_store_replace (see
// agent/key_store_files.h) as a kill at that moment would.
void save_key_store_until(int last_step);

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
void read_private_key_store(const char *text, size_t len, const char *password, uint64_t generation);
