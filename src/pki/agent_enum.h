// The process-wide certificate enumeration mode: whether certificate
// identities are offered as certificates, as their plain keys or both, and
// whether certificates or keys come first in an identity list.
#pragma once

#include <cstdint>
#include <string>

constexpr uint32_t AGENT_ENUM_INITIAL = 0x13;

constexpr uint32_t AGENT_ENUM_CERTS_AS_CERTS = 1;
constexpr uint32_t AGENT_ENUM_CERTS_AS_KEYS = 2;
constexpr uint32_t AGENT_ENUM_BOTH = 3;
constexpr uint32_t AGENT_ENUM_CERTS_FIRST = 0x10;
constexpr uint32_t AGENT_ENUM_KEYS_FIRST = 0x20;

// Configuration settings (also the server-kind bits 8 to 10 of the mode).
constexpr int AGENT_ENUM_SETTING_DEFAULT = 0;
constexpr int AGENT_ENUM_SETTING_KEYS = 1;
constexpr int AGENT_ENUM_SETTING_CERTS = 2;
constexpr int AGENT_ENUM_SETTING_QMAR = 0x100;
constexpr int AGENT_ENUM_SETTING_OPENSSH = 0x200;
constexpr int AGENT_ENUM_SETTING_PKIX = 0x300;
constexpr int AGENT_ENUM_SETTING_SUNSSH = 0x400;
constexpr int AGENT_ENUM_SETTING_OPENVMS = 0x500;

// Stores the whole value as a client sent it.
void agent_enum_set(uint32_t value);
// Sets the mode from a configuration setting; returns the new mode.
uint32_t agent_enum_from_setting(int setting);
// Adds the ordering bits after an authentication with an identity of
// `key_type`, when the mode is "both"; returns the new mode.
uint32_t agent_enum_order_by_auth_key(int key_type);
uint32_t agent_enum_get();
uint8_t agent_enum_get_low();

bool agent_enum_both();
bool agent_enum_certs_as_certs();
bool agent_enum_certs_as_keys();
bool agent_enum_certs_first();
bool agent_enum_keys_first();

// The setting for a value of the client option `AgentEnumCertsAs`, compared
// without regard to case; -1 when the value is not supported. Note that
// "keys" gives setting 1 (mode 2, certs as keys) and "certs" setting 2
// (mode 1, certs as certs).
int agent_enum_setting_from_word(const char *word);
// The complaint about an unsupported value; `line` above 0 names the line of
// the configuration file it came from.
std::string agent_enum_unsupported_message(int line);
