// The identities the agent holds, one table per protocol version, in
// insertion order (the order of every listing).
#pragma once

#include <cstdint>
#include <list>
#include <memory>
#include <optional>
#include <string>

#include "keys/key.h"

struct Identity {
    KeyPtr key;
    std::optional<std::string> comment;  // may be absent
    int64_t death = 0;                   // expiry, seconds since the epoch; 0 never
    uint32_t confirm = 0;                // stored only; confirmation follows ConfirmKeyOp
    uint32_t temporary = 0;              // never saved; removed at shutdown
    // The key's record in the private key store as last written, encrypted
    // under the passphrase of that generation (agent_passphrase_generation),
    // so that a save need not encrypt every key again.
    SecretString stored_pem;
    uint64_t stored_pem_generation = 0;
    // The plain key's line in the public key store, made once: with many
    // keys, making every line again was most of a save's work.
    std::string stored_public_line;
    // Read from the public file alone; its private half was never found, so
    // a save writes its public record only.
    bool public_only = false;
    // The plain key's public blob, set when it joins a table: lookups in a
    // large table compare it before comparing keys, which is far slower.
    std::string public_blob;
};

struct IdentityTable {
    int32_t nentries = 0;
    int32_t ncerts = 0;  // identities whose key is a certificate identity
    std::list<std::unique_ptr<Identity>> identities;
};

// Version 1 or 2; anything else is an internal error (fatal).
IdentityTable *identity_table_for_version(int version);
void identity_tables_init();

// Appends at the tail and clears the key's selected signature algorithm.
// Returns the new count, or -1 for a null table or record.
int identity_add(IdentityTable *table, std::unique_ptr<Identity> identity);
// Unlinks and frees the record. Returns the new count, or -1 for null.
int identity_remove(IdentityTable *table, Identity *identity);

// First identity of the same type and equal public key (or certificate).
Identity *lookup_identity(const Key *key, int version);
// The same, but a certificate identity also matches the plain key inside it.
Identity *lookup_identity_as_key(const Key *key, int version);

// "id_<type>_<bits>", with "_2", "_3" ... until no identity of either table
// has the name (compared case-insensitively).
std::string make_identity_name(const Key *key);

std::unique_ptr<Identity> make_identity_record(KeyPtr key, std::optional<std::string> comment, int64_t death,
                                               uint32_t confirm, uint32_t temporary);

void remove_expired_identities();
void remove_temporary_identities();

// Plain type of a certificate identity's key (3 to 1, 4 to 2, 6 to 5);
// other types unchanged.
int plain_key_type(int type);
bool is_certificate_type(int type);
