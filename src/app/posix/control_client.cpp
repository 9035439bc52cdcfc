#include "app/posix/control_client.h"

#include <unistd.h>

#include "platform/posix/fd_io.h"
#include "app/posix/unix_socket.h"

int control_open(const std::string &path, const ControlRequest &request, int64_t *result)
{
    int fd = unix_socket_connect(path);
    if (fd < 0)
        return -1;
    std::string bytes = control_encode_request(request);
    SecureBytes reply;
    if (!fd_write_all(fd, bytes.data(), bytes.size()) || !socket_read_framed(fd, 8, &reply) || reply.size() != 8) {
        close(fd);
        return -1;
    }
    uint64_t value = 0;
    for (uint8_t byte : reply)
        value = value << 8 | byte;
    *result = static_cast<int64_t>(value);
    return fd;
}

bool control_call(const std::string &path, const ControlRequest &request, int64_t *result)
{
    int fd = control_open(path, request, result);
    if (fd < 0)
        return false;
    close(fd);
    return true;
}

bool control_send(const std::string &path, const ControlRequest &request)
{
    int64_t ignored = 0;
    return control_call(path, request, &ignored);
}
