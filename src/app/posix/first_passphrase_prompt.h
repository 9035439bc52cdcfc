// The first-passphrase dialog through pinentry.
#pragma once

#include "app/startup_passphrase.h"

// An empty entry is the "no passphrase" choice, which the user then
// confirms; a passphrase that cannot be stored is refused and asked for
// again. False when the user cancels or no pinentry can be shown.
bool ask_first_passphrase_through_pinentry(StartupPassphrase *startup);
