#include "pki/agent_enum.h"

#include <atomic>

#include "log/log.h"
#include "log/text_compare.h"

namespace {

// Set by the message-processing thread and at configuration time; atomic so
// that a status query from another thread reads a whole value.
std::atomic<uint32_t> agent_enum_mode{AGENT_ENUM_INITIAL};

constexpr int KEY_RSA = 1, KEY_DSA = 2, KEY_X509_RSA = 3, KEY_X509_DSA = 4, KEY_ECDSA = 5, KEY_X509_ECDSA = 6;

}  // namespace

void agent_enum_set(uint32_t value)
{
    agent_enum_mode = value;
    debug3("Key agent enum set to 0x%04x.", value);
}

uint32_t agent_enum_from_setting(int setting)
{
    agent_enum_mode = AGENT_ENUM_BOTH;
    uint32_t mode = AGENT_ENUM_BOTH;
    const char *text = nullptr;
    switch (setting) {
    case AGENT_ENUM_SETTING_DEFAULT:
        text = "Agent set to enumerate certs as certs and as keys (Default for certs first).";
        break;
    case AGENT_ENUM_SETTING_KEYS:
        mode = AGENT_ENUM_CERTS_AS_KEYS;
        text = "Agent set to enumerate certs as keys.";
        break;
    case AGENT_ENUM_SETTING_CERTS:
        mode = AGENT_ENUM_CERTS_AS_CERTS;
        text = "Agent set to enumerate certs as certs.";
        break;
    case AGENT_ENUM_SETTING_QMAR: text = "Agent set to enumerate certs for QMAR servers."; break;
    case AGENT_ENUM_SETTING_OPENSSH: text = "Agent set to enumerate certs for OpenSSH servers."; break;
    case AGENT_ENUM_SETTING_PKIX: text = "Agent set to enumerate certs for OpenSSH PKIX servers."; break;
    case AGENT_ENUM_SETTING_SUNSSH: text = "Agent set to enumerate certs for SunSSH servers."; break;
    case AGENT_ENUM_SETTING_OPENVMS: text = "Agent set to enumerate certs for OpenVMS servers."; break;
    default:
        debug3("Invalid enum setting (%d). Agent set to enumerate certs as certs and as keys (Default for certs "
               "first).",
               setting);
        return agent_enum_mode;
    }
    // The server kinds keep "both" and carry their kind in bits 8 to 10.
    if (setting >= AGENT_ENUM_SETTING_QMAR)
        mode = static_cast<uint32_t>(setting) | AGENT_ENUM_BOTH;
    agent_enum_mode = mode;
    debug3("%s", text);
    return mode;
}

uint32_t agent_enum_order_by_auth_key(int key_type)
{
    if (!agent_enum_both())
        return agent_enum_mode;
    // The ordering bits are ORed in: a mode that already has one ordering
    // and receives the other ends with both and satisfies neither predicate.
    switch (key_type) {
    case KEY_RSA:
    case KEY_DSA:
    case KEY_ECDSA:
        agent_enum_mode |= AGENT_ENUM_KEYS_FIRST | AGENT_ENUM_BOTH;
        debug3("Because a key (%d) was used for authentication, the key agent, if used, will present keys before "
               "certificates.",
               key_type);
        break;
    case KEY_X509_RSA:
    case KEY_X509_DSA:
    case KEY_X509_ECDSA:
        agent_enum_mode |= AGENT_ENUM_CERTS_FIRST | AGENT_ENUM_BOTH;
        debug3("Because a certificate (%d) was used for authentication, the key agent, if used, will present "
               "certificates before keys.",
               key_type);
        break;
    default:
        agent_enum_mode |= AGENT_ENUM_CERTS_FIRST | AGENT_ENUM_BOTH;
        debug3("As a default, the key agent, if used, will present certificates before keys.");
        break;
    }
    return agent_enum_mode;
}

uint32_t agent_enum_get() { return agent_enum_mode; }
uint8_t agent_enum_get_low() { return static_cast<uint8_t>(agent_enum_mode & 0xff); }

bool agent_enum_both() { return (agent_enum_mode & 3) == AGENT_ENUM_BOTH; }
bool agent_enum_certs_as_certs() { return (agent_enum_get_low() & 3) == AGENT_ENUM_CERTS_AS_CERTS; }
bool agent_enum_certs_as_keys() { return (agent_enum_get_low() & 3) == AGENT_ENUM_CERTS_AS_KEYS; }
bool agent_enum_certs_first() { return agent_enum_get_low() == (AGENT_ENUM_CERTS_FIRST | AGENT_ENUM_BOTH); }
bool agent_enum_keys_first() { return agent_enum_get_low() == (AGENT_ENUM_KEYS_FIRST | AGENT_ENUM_BOTH); }

int agent_enum_setting_from_word(const char *word)
{
    static const struct {
        const char *word;
        int setting;
    } words[] = {
        {"keys", AGENT_ENUM_SETTING_KEYS},       {"certs", AGENT_ENUM_SETTING_CERTS},
        {"qmar", AGENT_ENUM_SETTING_QMAR},       {"openssh", AGENT_ENUM_SETTING_OPENSSH},
        {"pkix", AGENT_ENUM_SETTING_PKIX},       {"sunssh", AGENT_ENUM_SETTING_SUNSSH},
        {"openvms", AGENT_ENUM_SETTING_OPENVMS},
    };
    if (!word)
        return -1;
    for (const auto &entry : words)
        if (equals_ignore_case(word, entry.word))
            return entry.setting;
    return -1;
}

std::string agent_enum_unsupported_message(int line)
{
    std::string text = "Unsupported argument for AgentEnumCertsAs.";
    return line > 0 ? "line " + std::to_string(line) + ": " + text : text;
}
