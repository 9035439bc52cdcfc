// Reads arbitrary bytes as a private key-store file, with the empty
// passphrase, over a table that holds one identity loaded from the public
// file. The identities read must form a consistent table of private keys.
#include <cstddef>
#include <cstdint>

#include "agent/identity_table.h"
#include "agent/key_store.h"
#include "keys/key.h"
#include "log/log.h"

namespace {

KeyPtr public_key()
{
    static KeyPtr made = key_generate(KEY_ECDSA, 256);
    return key_from_private(made.get());
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    static bool quiet = (log_init("fuzz", 0, 1), true);
    (void)quiet;
    identity_tables_init();
    identity_add(identity_table_for_version(2), make_identity_record(public_key(), std::string("saved"), 0, 0, 0));
    read_private_key_store(reinterpret_cast<const char *>(data), size, "", 1);
    IdentityTable *table = identity_table_for_version(2);
    if (table->nentries != static_cast<int32_t>(table->identities.size()) || table->ncerts > table->nentries)
        __builtin_trap();
    bool first = true;
    for (const auto &identity : table->identities) {
        if (!identity->key || !identity->key->pkey || identity->key->name.size() > 511 ||
            identity->key->name.find('\n') != std::string::npos)
            __builtin_trap();
        // The one saved comment goes to the first key read, and only to it.
        if (identity->comment.has_value() != first)
            __builtin_trap();
        first = false;
    }
    identity_tables_init();
    return 0;
}
