// Reads arbitrary bytes as a public key-store file into an empty table.
// Whatever is read must be a consistent table of named keys.
#include <cstddef>
#include <cstdint>

#include "agent/identity_table.h"
#include "agent/key_store.h"
#include "log/log.h"
#include "pki/cert_key_layer.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    static bool quiet = (log_init("fuzz", 0, 1), cert_key_layer_install(), true);
    (void)quiet;
    identity_tables_init();
    read_public_key_store(reinterpret_cast<const char *>(data), size);
    IdentityTable *table = identity_table_for_version(2);
    if (table->nentries != static_cast<int32_t>(table->identities.size()) || table->ncerts > table->nentries)
        __builtin_trap();
    for (const auto &identity : table->identities)
        if (!identity->key || !identity->key->pkey || identity->key->name.size() > 511 ||
            identity->key->name.find('\n') != std::string::npos || identity->temporary || identity->death)
            __builtin_trap();
    identity_tables_init();
    return 0;
}
