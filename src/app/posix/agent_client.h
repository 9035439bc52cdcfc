// The client side of the agent protocol over the agent socket: the POSIX
// AgentConnection (declared with tagent's shell services) and where the
// sockets are.
#pragma once

#include <string>

#include "app/tagent/tagent_shell.h"

// The agent socket a client should use: `explicit_path`, else
// $SSH_AUTH_SOCK, else the default runtime folder's agent.sock.
std::string agent_socket_for_client(const std::string &explicit_path);
// control.sock beside the agent socket.
std::string control_socket_beside(const std::string &agent_socket);
