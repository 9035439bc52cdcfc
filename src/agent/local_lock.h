// Locking and unlocking from inside the agent (tray or control commands,
// start-up), through the same handler as a client's request.
#pragma once

// Each returns true when the handler answered success. A fatal error inside
// is caught here and leads to the fatal shutdown.
bool agent_local_lock();
bool agent_local_unlock(const char *passphrase);
