// The passphrase dialogs (first passphrase 133, unlock 124, key passphrase
// 219) from the resource library, and the confirmation message box. All run
// modal on the calling thread.
#pragma once

#include <windows.h>

#include <cstdint>

#include "keys/secure_memory.h"

constexpr int DIALOG_FIRST_PASSPHRASE = 133;
constexpr int DIALOG_UNLOCK = 124;
constexpr int DIALOG_KEY_PASSPHRASE = 219;
constexpr int CONTROL_PASSPHRASE = 126;
constexpr int CONTROL_PROMPT = 145;
constexpr int CONTROL_NO_PASSPHRASE = 221;
constexpr int CONTROL_HELP = 9;

// The first-passphrase dialog: true on OK, with the typed text, or with
// `no_passphrase` set (and no text) when the check box was ticked.
bool ask_first_passphrase(HWND owner, SecretString *passphrase, bool *no_passphrase);

// The shell services of the dialogs.
bool ask_unlock_passphrase(SecretString *passphrase);
bool ask_key_passphrase(const char *prompt, SecretString *answer);
bool confirm_key_operation(const char *key_name);

// The owner of the first-passphrase dialog: `window` when it is a live
// window, else the desktop.
HWND dialog_owner(int64_t window);
