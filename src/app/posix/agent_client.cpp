#include "app/posix/agent_client.h"

#include <cstdlib>
#include <cstring>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include "app/posix/folders.h"
#include "platform/posix/fd_io.h"

AgentConnection::AgentConnection(const std::string &socket_path)
{
    struct sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    if (socket_path.size() >= sizeof address.sun_path)
        return;
    memcpy(address.sun_path, socket_path.c_str(), socket_path.size() + 1);
    fd_ = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd_ >= 0 && connect(fd_, reinterpret_cast<struct sockaddr *>(&address), sizeof address) != 0) {
        close(fd_);
        fd_ = -1;
    }
}

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
    uint8_t header[4];
    if (!fd_read_exact(fd_, header, 4))
        return false;
    uint32_t len = static_cast<uint32_t>(header[0]) << 24 | header[1] << 16 | header[2] << 8 | header[3];
    if (len > 0x40000)
        return false;
    SecureBytes bytes(len);
    if (len && !fd_read_exact(fd_, bytes.data(), len))
        return false;
    buffer_clear(reply);
    buffer_append(reply, bytes.data(), len);
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
