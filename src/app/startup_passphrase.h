// The agent passphrase at start-up, the same for every shell: a first run
// sets it from a file, the shell's prompt or the empty passphrase; later
// runs start locked and unlock when they can.
#pragma once

#include <string>

#include "keys/secure_memory.h"

struct StartupPassphrase {
    bool first_run = false;   // no digest stored yet
    bool from_file = false;   // --passphrase-file was given
    bool empty_choice = false;  // --empty-passphrase
    bool announced = false;   // the first-run line is logged already
    bool store_kept = false;  // the settings file lost its digest; the store is kept
    std::string notice;       // a line for the user's terminal (also logged)
    SecretString text;        // the file's first line, or the typed passphrase
};

// Reads the first line of `path` (without its line ending).
bool read_passphrase_file(const std::string &path, SecretString *text, std::string *message);

// The settings file holds no digest but a key store exists. Unless
// `start_over` is set this is not a first run: the store is kept, one error
// line says what is wrong, and the old passphrase unlocks (and is stored
// again). With it the store is set aside, never deleted, and a first run
// follows. False with `message` set when the store cannot be set aside, or
// when `start_over` is given while the settings file is intact.
bool startup_keep_or_set_aside_store(bool start_over, StartupPassphrase *startup, std::string *message);

// What the user asked for on the command line.
struct StartupChoice {
    bool start_over = false;       // set an orphaned key store aside
    bool empty_passphrase = false;  // a first run takes the empty passphrase
    std::string passphrase_file;    // its first line sets or unlocks
};

// The shell's first-passphrase prompt: true with `startup->text` set, or
// with `startup->empty_choice` set for "no passphrase"; false on cancel.
using FirstPassphrasePrompt = bool (*)(StartupPassphrase *startup);

// Runs with the settings already read and before the message-processing
// thread starts, so that a start that cannot succeed is reported to the
// caller. False with `message` set when the agent must not start.
bool startup_passphrase_prepare(const StartupChoice &choice, FirstPassphrasePrompt ask_first,
                                StartupPassphrase *startup, std::string *message);

// Runs on the message-processing thread: sets the passphrase on a first run, else loads the public key store and unlocks with the empty
// passphrase (`AttemptEmpty`) or the file's line.
void startup_passphrase_apply(StartupPassphrase *startup);
