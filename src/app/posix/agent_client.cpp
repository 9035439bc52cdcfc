#include "app/posix/agent_client.h"

#include <cstdlib>
#include <unistd.h>

#include "agent/protocol.h"
#include "platform/posix/fd_io.h"
#include "app/posix/folders.h"
#include "app/posix/unix_socket.h"
#include "keys/buffer.h"

struct AgentConnection::Channel {
    int fd = -1;
};

AgentConnection::AgentConnection(const std::string &socket_path) : channel_(std::make_unique<Channel>())
{
    channel_->fd = unix_socket_connect(socket_path);
}

AgentConnection::~AgentConnection()
{
    if (channel_->fd >= 0)
        close(channel_->fd);
}

bool AgentConnection::connected() const { return channel_->fd >= 0; }

bool AgentConnection::send_only(const Buffer &body)
{
    Buffer framed;
    buffer_put_buffer_string(&framed, &body);
    return channel_->fd >= 0 && fd_write_all(channel_->fd, buffer_ptr(&framed), buffer_len(&framed));
}

bool AgentConnection::call(const Buffer &body, Buffer *reply)
{
    if (!send_only(body))
        return false;
    SecureBytes bytes;
    if (!socket_read_framed(channel_->fd, AGENT_MAX_REQUEST, &bytes))
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
