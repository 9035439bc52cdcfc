// The agent socket: one listening Unix stream socket, one thread per client.
#pragma once

#include <cstdint>
#include <string>

constexpr int AGENT_MAX_CONNECTIONS = 255;

// Binds and listens on `path` with mode 0600, replacing a stale socket file.
// Returns the descriptor, or -1 with `message` set.
int agent_server_listen(const std::string &path, std::string *message);

// Accepts one waiting client on `listen_fd`, checks its uid and starts its
// connection thread.
void agent_server_accept(int listen_fd);

// Ends every open connection and waits for their threads to finish.
void agent_server_close_connections();

// Connections currently served.
int agent_server_connection_count();
