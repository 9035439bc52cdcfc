#include "platform/posix/fd_io.h"

#include <cerrno>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

// Repeats `step` (a read or a write of at most n bytes at p) until all bytes
// have moved; a step that moves nothing or fails ends it.
template <typename Step>
bool transfer_all(char *p, size_t size, Step step)
{
    while (size > 0) {
        ssize_t n = step(p, size);
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0)
            return false;
        p += n;
        size -= static_cast<size_t>(n);
    }
    return true;
}

}  // namespace

bool fd_write_all(int fd, const void *data, size_t size)
{
    struct stat st;
    bool socket = fstat(fd, &st) == 0 && S_ISSOCK(st.st_mode);
    return transfer_all(const_cast<char *>(static_cast<const char *>(data)), size, [&](char *p, size_t n) {
        return socket ? send(fd, p, n, MSG_NOSIGNAL) : write(fd, p, n);
    });
}

bool fd_send_all(int fd, const void *data, size_t size)
{
    return transfer_all(const_cast<char *>(static_cast<const char *>(data)), size,
                        [&](char *p, size_t n) { return send(fd, p, n, MSG_NOSIGNAL); });
}

bool fd_read_exact(int fd, void *data, size_t size)
{
    return transfer_all(static_cast<char *>(data), size, [&](char *p, size_t n) { return read(fd, p, n); });
}

size_t fd_read_some(int fd, void *data, size_t size)
{
    for (;;) {
        ssize_t n = read(fd, data, size);
        if (n < 0 && errno == EINTR)
            continue;
        return n > 0 ? static_cast<size_t>(n) : 0;
    }
}
