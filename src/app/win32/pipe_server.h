// The per-client named pipes: each window message 1034 creates one pipe
// instance with a fresh name, waits for its one client and serves it.
#pragma once

#include <cstdint>

// Starts a listening thread and waits (at most 10000 ms) until its pipe
// exists. The pipe identifier, or 0 when no pipe was created in time.
uint32_t pipe_server_start();
