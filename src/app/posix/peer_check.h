// Only processes of the agent's own user may use its sockets.
#pragma once

// True when the peer of the connected Unix socket runs under this process's
// uid; otherwise logs the refusal.
bool peer_is_this_user(int fd);

// Accepts one waiting client on `listen_fd`; a client of another user is
// refused (and logged). The connected descriptor, or -1.
int accept_this_user(int listen_fd);
