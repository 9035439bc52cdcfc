// The key store: "tAgentKeys.pub" (names, public keys, comments) and
// "tAgentKeys" (the private keys under the agent passphrase, and the
// references of certificate identities) in the user data folder.
#pragma once

// Rewrites both files from the identity tables.
void save_key_store();
// Reads the public file into table 2 at start-up.
void load_public_key_store();
// Replaces the identities by those of the private file; called by the first
// successful passphrase check.
void load_private_key_store();
