// The key passphrase prompt (a certificate's PIN), filled in by the shell.
#pragma once

#include "keys/secure_memory.h"

using KeyPassphrasePrompt = bool (*)(const char *prompt, SecretString *answer);

// Without a prompt from the shell every question is cancelled.
void key_passphrase_prompt_set(KeyPassphrasePrompt prompt);
// True with the typed text; false on cancel.
bool ask_key_passphrase(const char *prompt, SecretString *answer);
