// The manager's change-passphrase dialog: current, new and repeated
// passphrase, or no passphrase at all.
#pragma once

#include <windows.h>

#include "keys/secure_memory.h"

struct PassphraseChange {
    SecretString old_passphrase;
    SecretString new_passphrase;
    bool empty = false;
};

// True on OK with matching new passphrases (asked again until they match
// or the user cancels).
bool ask_passphrase_change(HMODULE resources, HWND owner, PassphraseChange *change);

// The text of an edit control, wiped from the intermediate copies.
SecretString secret_control_text(HWND dialog, int control);
