// Listening Unix stream sockets private to the user.
#pragma once

#include <string>

// Binds and listens on `path` with mode 0600, replacing a stale socket file.
// Returns the descriptor, or -1 with `message` set.
int unix_socket_listen(const std::string &path, std::string *message);
