// Feeds arbitrary bytes as a signature blob to the key verifier with an RSA,
// a DSA and an ECDSA key. Signature blobs come from outside, so no input may
// take the fatal path; every result must be 1, 0 or -1.
#include <cstddef>
#include <cstdint>

#include "log/log.h"
#include "pki/cert_key_layer.h"
#include "pki/key_signer.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    static bool quiet = (log_init("fuzz", 0, 1), cert_key_layer_install(), true);
    static KeyPtr keys[] = {key_generate(KEY_RSA, 1024), key_generate(KEY_DSA, 1024), key_generate(KEY_ECDSA, 256)};
    (void)quiet;
    static const uint8_t message[] = "message";
    for (const KeyPtr &key : keys) {
        int ret = key_verify(key.get(), data, size, message, sizeof message);
        if (ret < -1 || ret > 1)
            __builtin_trap();
    }
    return 0;
}
