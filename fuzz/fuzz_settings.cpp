// Reads arbitrary bytes as a settings file. The reader must never fail, and
// any block it produces must survive writing and reading back, except for a
// digest that begins with white space, which the reader takes shifted.
#include <cstddef>
#include <cstdint>
#include <cstring>

#include "agent/settings.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    AgentSettings settings = parse_agent_settings(data, size);
    uint8_t first = settings.passphrase_digest[0];
    bool shifted = first == ' ' || (first >= '\t' && first <= '\r');
    if (shifted)
        return 0;
    SecureBytes written = format_agent_settings(settings);
    AgentSettings again = parse_agent_settings(written.data(), written.size());
    if (memcmp(&settings, &again, sizeof settings) != 0)
        __builtin_trap();
    return 0;
}
