// Feeds arbitrary bytes to the key blob reader. A key, no key or the fatal
// path (over-long strings and numbers) are the only allowed endings; a key
// that was read must write a blob that reads back as an equal key.
#include <cstddef>
#include <cstdint>

#include "keys/key_blob.h"
#include "log/log.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    static bool quiet = (log_init("fuzz", 0, 1), true);
    (void)quiet;
    if (size > 0x50000)
        return 0;
    try {
        KeyPtr key = key_from_blob(data, static_cast<uint32_t>(size), "x509v3-sign-rsa");
        if (!key || key->type == KEY_UNSPEC || !key->pkey)
            return 0;
        SecureBytes blob;
        uint32_t len = key_to_blob(key.get(), &blob, nullptr, key_ssh_name(key.get()));
        if (len == 0 || blob.empty())
            return 0;
        KeyPtr again = key_from_blob(blob.data(), len);
        if (!again || !key_equal(key.get(), again.get()))
            __builtin_trap();
    } catch (const FatalError &) {
    }
    return 0;
}
