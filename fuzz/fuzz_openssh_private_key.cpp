// Feeds arbitrary text to the OpenSSH private key file reader. It must never
// take the fatal path; a key it reads must hold private material and write a
// blob that reads back as an equal key.
#include <cstddef>
#include <cstdint>

#include "keys/key_blob.h"
#include "keys/openssh_private_key.h"
#include "log/log.h"
#include "pki/cert_key_layer.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    static bool quiet = (log_init("fuzz", 0, 1), cert_key_layer_install(), true);
    (void)quiet;
    if (size > 0x20000)
        return 0;
    OpensshPrivateKey read;
    std::string why;
    const char *text = reinterpret_cast<const char *>(data);
    if (openssh_private_key_read(text, size, &read, &why) != OpensshKeyResult::ok)
        return 0;
    if (!read.key || !read.key->pkey)
        __builtin_trap();
    SecureBytes blob;
    uint32_t len = key_to_blob(read.key.get(), &blob, nullptr, key_blob_type_name(read.key.get()));
    KeyPtr again = blob.size() == len ? key_from_blob(blob.data(), len) : nullptr;
    if (!again || !key_equal(read.key.get(), again.get()))
        __builtin_trap();
    return 0;
}
