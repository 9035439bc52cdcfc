#include "platform/posix/fd_io.h"

#include <cerrno>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

bool fd_write_all(int fd, const void *data, size_t size)
{
    struct stat st;
    bool socket = fstat(fd, &st) == 0 && S_ISSOCK(st.st_mode);
    const char *p = static_cast<const char *>(data);
    while (size > 0) {
        ssize_t n = socket ? send(fd, p, size, MSG_NOSIGNAL) : write(fd, p, size);
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0)
            return false;
        p += n;
        size -= static_cast<size_t>(n);
    }
    return true;
}

bool fd_read_exact(int fd, void *data, size_t size)
{
    char *p = static_cast<char *>(data);
    while (size > 0) {
        ssize_t n = read(fd, p, size);
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0)
            return false;
        p += n;
        size -= static_cast<size_t>(n);
    }
    return true;
}
