// The key store: "tAgentKeys.pub" (names, public keys, comments) and
// "tAgentKeys" (private keys under the agent passphrase) in the data folder.
#pragma once

constexpr const char *KEY_STORE_PUBLIC_FILE = "tAgentKeys.pub";
constexpr const char *KEY_STORE_PRIVATE_FILE = "tAgentKeys";

// Writes both files from the identity tables.
void save_key_store();
// Reads the public file into table 2; the identities can be listed at once.
void load_public_key_store();
// Replaces the identities by those of the private file, decrypted with the
// held agent passphrase.
void load_private_key_store();
