#include "app/posix/control_client.h"

#include <cstring>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include "platform/posix/fd_io.h"

int control_connect(const std::string &path)
{
    struct sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    if (path.size() >= sizeof address.sun_path)
        return -1;
    memcpy(address.sun_path, path.c_str(), path.size() + 1);
    int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0)
        return -1;
    if (connect(fd, reinterpret_cast<struct sockaddr *>(&address), sizeof address) != 0) {
        close(fd);
        return -1;
    }
    return fd;
}

bool control_call(const std::string &path, const ControlRequest &request, int64_t *result)
{
    int fd = control_connect(path);
    if (fd < 0)
        return false;
    std::string bytes = control_encode_request(request);
    uint8_t reply[12];
    bool ok = fd_write_all(fd, bytes.data(), bytes.size()) && fd_read_exact(fd, reply, sizeof reply);
    close(fd);
    if (!ok)
        return false;
    uint64_t value = 0;
    for (int i = 4; i < 12; ++i)
        value = value << 8 | reply[i];
    *result = static_cast<int64_t>(value);
    return true;
}

bool control_send(const std::string &path, const ControlRequest &request)
{
    int64_t ignored = 0;
    return control_call(path, request, &ignored);
}
