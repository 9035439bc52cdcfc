// The client side of the agent protocol: one connection, framed requests.
#pragma once

#include <string>
#include <vector>

#include "keys/buffer.h"

class AgentConnection {
public:
    explicit AgentConnection(const std::string &socket_path);
    ~AgentConnection();
    AgentConnection(const AgentConnection &) = delete;
    AgentConnection &operator=(const AgentConnection &) = delete;

    bool connected() const { return fd_ >= 0; }
    // Sends the body (message number and arguments) framed, and reads the
    // framed reply's body into `reply`. False on I/O failure.
    bool call(const Buffer &body, Buffer *reply);
    // Sends without waiting for a reply (for messages that have none).
    bool send_only(const Buffer &body);

private:
    int fd_ = -1;
};

// The agent socket a client should use: `explicit_path`, else
// $SSH_AUTH_SOCK, else the default runtime folder's agent.sock.
std::string agent_socket_for_client(const std::string &explicit_path);
// control.sock beside the agent socket.
std::string control_socket_beside(const std::string &agent_socket);
