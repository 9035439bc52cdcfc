#include "app/posix/agent_client.h"

#include <cstdlib>
#include <unistd.h>

#include "agent/protocol.h"
#include "platform/posix/fd_io.h"
#include "app/posix/folders.h"
#include "app/posix/unix_socket.h"
#include "keys/buffer.h"

AgentConnection::AgentConnection(const std::string &socket_path) : fd_(unix_socket_connect(socket_path)) {}

AgentConnection::~AgentConnection()
{
    if (fd_ >= 0)
        close(fd_);
}

bool AgentConnection::send_only(const Buffer &body)
{
    Buffer framed;
    buffer_put_buffer_string(&framed, &body);
    return fd_ >= 0 && fd_write_all(fd_, buffer_ptr(&framed), buffer_len(&framed));
}

bool AgentConnection::call(const Buffer &body, Buffer *reply)
{
    if (!send_only(body))
        return false;
    SecureBytes bytes;
    if (!socket_read_framed(fd_, AGENT_MAX_REQUEST, &bytes))
        return false;
    buffer_clear(reply);
    buffer_append(reply, bytes.data(), static_cast<uint32_t>(bytes.size()));
    return true;
}

std::string agent_socket_for_client(const std::string &explicit_path)
{
    if (!explicit_path.empty())
        return explicit_path;
    const char *env = getenv("SSH_AUTH_SOCK");
    if (env && *env)
        return env;
    return agent_folders("", "", "").agent_socket;
}

std::string control_socket_beside(const std::string &agent_socket)
{
    auto slash = agent_socket.find_last_of('/');
    std::string folder = slash == std::string::npos ? "." : agent_socket.substr(0, slash);
    return folder + "/control.sock";
}
