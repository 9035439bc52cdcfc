// Asks the user through a pinentry program, spoken to over its Assuan pipe
// protocol. The program is $TARNWELL_PINENTRY, else "pinentry" on the PATH.
// No program, no terminal or display, Cancel or 120 s without an answer all
// count as Cancel (or No).
#pragma once

#include <optional>
#include <string>

#include "keys/secure_memory.h"

struct PinentryDialog {
    std::string title;
    std::string description;
    std::string prompt;
    std::string repeat;  // GETPIN asks twice when set (the repeat prompt)
};

// The entered text, or nothing on Cancel.
std::optional<SecretString> pinentry_get_pin(const PinentryDialog &dialog);
// True only when the user chose OK / Yes.
bool pinentry_confirm(const PinentryDialog &dialog);

// The terminal and display the shell started from, passed to pinentry as
// its ttyname, ttytype and display options. Recorded before detaching.
void pinentry_remember_terminal();

// Percent-escaping of the Assuan protocol, exposed for tests.
std::string assuan_escape(const std::string &text);
std::string assuan_unescape(const std::string &text);
