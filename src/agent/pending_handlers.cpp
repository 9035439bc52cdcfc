// Handlers whose subsystems are not built yet. Each answers its family's
// failure reply, so clients get a clear refusal rather than silence.
#include "agent/handlers.h"
#include "agent/key_store.h"
#include "agent/reply.h"

// The key store arrives with the key-store files; until then there is
// nothing to save or load.
void save_key_store() {}
void load_public_key_store() {}
void load_private_key_store() {}
