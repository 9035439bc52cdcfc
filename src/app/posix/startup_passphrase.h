// The agent passphrase at start-up: a first run sets it from a file or takes
// the empty passphrase; later runs start locked and unlock when they can.
#pragma once

#include <string>

#include "app/posix/agent_options.h"
#include "keys/secure_memory.h"

struct StartupPassphrase {
    bool first_run = false;   // no digest stored yet
    bool from_file = false;   // --passphrase-file was given
    bool empty_choice = false;  // --empty-passphrase
    bool announced = false;   // the first-run line is logged already
    SecretString text;        // the file's first line, or the typed passphrase
};

// Reads the first line of `path` (without its line ending).
bool read_passphrase_file(const std::string &path, SecretString *text, std::string *message);

// Runs before the agent detaches, with the settings already read, so that a
// start that cannot succeed is reported to the caller with exit status 1.
// False with `message` set when the agent must not start.
bool startup_passphrase_prepare(const AgentOptions &options, StartupPassphrase *startup, std::string *message);

// Runs once the message-processing thread is up: sets the passphrase on a
// first run, else loads the public key store and unlocks with the empty
// passphrase (`AttemptEmpty`) or the file's line.
void startup_passphrase_apply(StartupPassphrase *startup);
