// Feeds arbitrary bytes to the request dispatcher, first unlocked and then
// locked. A reply, no reply or a dropped connection are the only allowed
// endings: a client's bytes never reach the fatal path.
#include <cstddef>
#include <cstdint>

#include "agent/dispatch.h"
#include "agent/handlers.h"
#include "log/log.h"
#include "pki/cert_key_layer.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    static bool quiet = (log_init("fuzz", 0, 1), cert_key_layer_install(), true);
    (void)quiet;
    if (size > 0x50000)
        return 0;
    for (bool locked : {false, true}) {
        agent_set_locked(locked);
        RequestContext ctx;
        ctx.connection = 1;
        buffer_append(&ctx.input, data, static_cast<uint32_t>(size));
        try {
            dispatch_request(&ctx);
        } catch (const FatalError &) {
            __builtin_trap();
        }
        if (buffer_len(&ctx.output) > 131072 || (ctx.drop_connection && buffer_len(&ctx.output) > 0))
            __builtin_trap();
    }
    return 0;
}
