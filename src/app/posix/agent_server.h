// The agent socket: one listening Unix stream socket; each client of this
// user is served by the shared connection loop on a thread of its own.
#pragma once

// Accepts one waiting client on `listen_fd`, checks its uid and starts its
// connection.
void agent_server_accept(int listen_fd);
