// The key passphrase prompt (a key's password, a certificate's PIN).
#pragma once

#include "keys/secure_memory.h"

// True with the typed text; false on cancel, or when the shell has no prompt.
bool ask_key_passphrase(const char *prompt, SecretString *answer);
