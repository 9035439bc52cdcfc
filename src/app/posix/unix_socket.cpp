#include "app/posix/unix_socket.h"

#include <cerrno>
#include <cstring>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include "keys/buffer.h"
#include "platform/posix/fd_io.h"

namespace {

bool socket_address(const std::string &path, struct sockaddr_un *address)
{
    *address = {};
    address->sun_family = AF_UNIX;
    if (path.size() >= sizeof address->sun_path)
        return false;
    memcpy(address->sun_path, path.c_str(), path.size() + 1);
    return true;
}

}  // namespace

int unix_socket_connect(const std::string &path)
{
    struct sockaddr_un address;
    if (!socket_address(path, &address))
        return -1;
    int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd >= 0 && connect(fd, reinterpret_cast<struct sockaddr *>(&address), sizeof address) != 0) {
        close(fd);
        return -1;
    }
    return fd;
}

int unix_socket_listen(const std::string &path, std::string *message)
{
    struct sockaddr_un address;
    if (!socket_address(path, &address)) {
        *message = "socket path too long: " + path;
        return -1;
    }

    int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0) {
        *message = std::string("cannot create socket: ") + strerror(errno);
        return -1;
    }
    // The caller holds the instance lock, so a socket file left here belongs
    // to an agent that is gone.
    unlink(path.c_str());
    mode_t old_mask = umask(0177);
    int bound = bind(fd, reinterpret_cast<struct sockaddr *>(&address), sizeof address);
    umask(old_mask);
    if (bound != 0 || chmod(path.c_str(), 0600) != 0 || listen(fd, 128) != 0) {
        *message = "cannot listen on " + path + ": " + strerror(errno);
        close(fd);
        return -1;
    }
    return fd;
}


bool socket_read_framed(int fd, uint32_t limit, SecureBytes *body)
{
    uint8_t header[4];
    if (!fd_read_exact(fd, header, 4))
        return false;
    uint32_t length = get_u32(header);
    if (length > limit)
        return false;
    body->assign(length, 0);
    return length == 0 || fd_read_exact(fd, body->data(), length);
}
