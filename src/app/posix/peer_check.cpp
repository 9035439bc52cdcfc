#include "app/posix/peer_check.h"

#include <cerrno>
#include <cstring>
#include <sys/socket.h>
#include <unistd.h>

#include "log/agent_log.h"

bool peer_is_this_user(int fd)
{
    struct ucred cred;
    socklen_t size = sizeof cred;
    if (getsockopt(fd, SOL_SOCKET, SO_PEERCRED, &cred, &size) != 0) {
        agent_log("Refused a client: its credentials cannot be read (%s)", strerror(errno));
        return false;
    }
    if (cred.uid != getuid()) {
        agent_log("Refused a client of uid %u (pid %d): only uid %u may use this agent",
                  static_cast<unsigned>(cred.uid), static_cast<int>(cred.pid), static_cast<unsigned>(getuid()));
        return false;
    }
    return true;
}

int accept_this_user(int listen_fd)
{
    int fd = accept4(listen_fd, nullptr, nullptr, SOCK_CLOEXEC);
    if (fd >= 0 && !peer_is_this_user(fd)) {
        close(fd);
        return -1;
    }
    return fd;
}
