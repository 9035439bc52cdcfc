// Reads arbitrary bytes as a certificate reference line of the private key
// store. A line that parses must format and parse back to the same record;
// resolving it in the agent's own store (no data folder here: nothing is
// at hand) must fail or give a certificate identity of that location.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>

#include "log/log.h"
#include "pki/cert_key_layer.h"
#include "pki/cert_provider.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    static bool quiet = (log_init("fuzz", 0, 1), cert_key_layer_install(), true);
    (void)quiet;
    std::string line(reinterpret_cast<const char *>(data), size);
    CertReference parsed, again;
    std::string why;
    if (cert_reference_parse(line, &parsed, &why)) {
        std::string formatted = cert_reference_format(parsed);
        if (!formatted.empty() &&
            (!cert_reference_parse(formatted, &again, &why) || again.sha1_hex != parsed.sha1_hex ||
             again.module != parsed.module || again.token != parsed.token || again.cert_base64 != parsed.cert_base64))
            abort();
    }
    KeyPtr key = cert_identity_from_reference(CERT_SOURCE_TARNWELL, line);
    if (key && (key->cert_source != CERT_SOURCE_TARNWELL || !key->cert || !cert_identity_handle(key.get())))
        abort();
    return 0;
}
