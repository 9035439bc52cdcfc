// Unix stream sockets: listening ones private to the user, and connecting.
#pragma once

#include <cstdint>
#include <string>

#include "keys/secure_memory.h"

// Connects to the socket at `path`; the descriptor, or -1.
int unix_socket_connect(const std::string &path);

// Binds and listens on `path` with mode 0600, replacing a stale socket file.
// Returns the descriptor, or -1 with `message` set.
int unix_socket_listen(const std::string &path, std::string *message);

// Reads one message framed by its 4-byte big-endian length into `body`
// (without the length). False at end of stream, on failure, or when the
// length is above `limit`.
bool socket_read_framed(int fd, uint32_t limit, SecureBytes *body);
