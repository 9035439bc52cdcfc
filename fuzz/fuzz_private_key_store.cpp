// Reads arbitrary bytes as a private key-store file, with the empty
// passphrase, over a table that holds one identity loaded from the public
// file. The identities read must form a consistent table of private keys,
// and each record that cannot be read is kept as a piece of the input (the
// input also serves as the public file).
#include <cstddef>
#include <cstdint>
#include <string_view>

#include "agent/identity_table.h"
#include "agent/key_store.h"
#include "keys/key.h"
#include "log/log.h"
#include "pki/cert_key_layer.h"

namespace {

KeyPtr public_key()
{
    static KeyPtr made = key_generate(KEY_ECDSA, 256);
    return key_from_private(made.get());
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    static bool quiet = (log_init("fuzz", 0, 1), cert_key_layer_install(), true);
    (void)quiet;
    identity_tables_init();
    identity_add(identity_table_for_version(2), make_identity_record(public_key(), std::string("saved"), 0, 0, 0));
    std::string_view input(reinterpret_cast<const char *>(data), size);
    read_private_key_store(input.data(), input.size(), "", 1, input);
    size_t kept = 0;
    for (const UnreadableRecord &record : unreadable_records()) {
        kept += record.private_record.size();
        if (record.private_record.empty() || input.find(record.private_record.c_str(), 0, record.private_record.size()) == std::string_view::npos ||
            input.find(record.public_record) == std::string_view::npos)
            __builtin_trap();
    }
    if (kept > size)
        __builtin_trap();
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
    unreadable_records().clear();
    return 0;
}
