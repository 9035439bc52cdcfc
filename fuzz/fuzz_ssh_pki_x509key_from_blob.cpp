// Feeds arbitrary bytes to the RFC 6187 certificate blob reader.
#include <cstddef>
#include <cstdint>

#include "fuzz_input.h"
#include "pki/x509_key_blob.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    return fuzz_one_input(data, size, [](const uint8_t *data, size_t size) {
        KeyPtr key = ssh_pki_x509key_from_blob(data, static_cast<uint32_t>(size));
        if (key && (!key->cert || !key->pkey))
            __builtin_trap();
        if (key) {
            SecureBytes blob;
            uint32_t len = 0;
            ssh_pki_x509key_to_rfc6187_pubkey_blob(key.get(), nullptr, &blob, &len, key_ssh_name(key.get()), nullptr);
        }
    });
}
