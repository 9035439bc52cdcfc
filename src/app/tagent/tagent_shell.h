// What tagent's commands need from the shell they run in: a connection to
// the agent, the agent's window messages, the user's passphrase prompts and
// the watch subscription. Each shell implements these once.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>

#include "app/tagent/control_protocol.h"
#include "keys/buffer.h"
#include "keys/secure_memory.h"

// One connection to the agent, framed requests.
class AgentConnection {
public:
    // `address`: the agent socket (POSIX); unused on Windows, where the
    // agent is found by its window.
    explicit AgentConnection(const std::string &address);
    ~AgentConnection();
    AgentConnection(const AgentConnection &) = delete;
    AgentConnection &operator=(const AgentConnection &) = delete;

    bool connected() const;
    // Sends the body (message number and arguments) framed, and reads the
    // framed reply's body into `reply`. False on I/O failure.
    bool call(const Buffer &body, Buffer *reply);
    // Sends without waiting for a reply (for messages that have none).
    bool send_only(const Buffer &body);

    struct Channel;

private:
    std::unique_ptr<Channel> channel_;
};

// Sends one window message (as a control request) and reads its result;
// false when the agent is not reachable or did not answer.
bool control_call(const std::string &address, const ControlRequest &request, int64_t *result);

struct PassphraseQuestion {
    std::string title;
    std::string description;
    std::string prompt;
    std::string repeat;  // asked twice when set
};

// The typed text, or nothing on Cancel.
std::optional<SecretString> tagent_ask_passphrase(const PassphraseQuestion &question);

// The agent's data folder when none is named.
std::string tagent_default_data_folder();

// Prints a line for every change and lock change until the agent goes;
// tagent's exit status.
int tagent_watch(const std::string &control_address);

// The parts of tagent's usage text that differ between shells.
struct TagentUsageTexts {
    const char *synopsis;      // the "usage:" line
    const char *finding;       // how the agent is found, a paragraph
    const char *asked;         // how a password is asked: "through pinentry"
    const char *system_store;  // certificate location 1: "the user's NSS database"
};
extern const TagentUsageTexts TAGENT_USAGE_TEXTS;
