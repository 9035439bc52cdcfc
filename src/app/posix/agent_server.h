// The agent socket: one listening Unix stream socket, one thread per client.
#pragma once

#include <cstdint>
#include <string>

constexpr int AGENT_MAX_CONNECTIONS = 255;

// Accepts one waiting client on `listen_fd`, checks its uid and starts its
// connection thread.
void agent_server_accept(int listen_fd);

// Ends every open connection and waits for their threads to finish.
void agent_server_close_connections();

// Connections currently served.
int agent_server_connection_count();
