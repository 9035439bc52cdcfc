// Feeds arbitrary bytes to the key blob reader. A key, no key or the fatal
// path (over-long strings and numbers) are the only allowed endings; a key
// that was read must write a blob that reads back as an equal key.
#include <cstddef>
#include <cstdint>

#include "keys/key_blob.h"
#include "fuzz_input.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    return fuzz_one_input(data, size, [](const uint8_t *data, size_t size) {
        KeyPtr key = key_from_blob(data, static_cast<uint32_t>(size), "x509v3-sign-rsa");
        if (!key || key->type == KEY_UNSPEC || !key->pkey)
            return;
        SecureBytes blob;
        uint32_t len = key_to_blob(key.get(), &blob, nullptr, key_ssh_name(key.get()));
        if (len == 0 || blob.empty())
            return;
        KeyPtr again = key_from_blob(blob.data(), len);
        if (!again || !key_equal(key.get(), again.get()))
            __builtin_trap();
    });
}
