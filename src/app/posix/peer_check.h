// Only processes of the agent's own user may use its sockets.
#pragma once

// True when the peer of the connected Unix socket runs under this process's
// uid; otherwise logs the refusal.
bool peer_is_this_user(int fd);
