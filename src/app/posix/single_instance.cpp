#include "app/posix/single_instance.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

bool instance_lock_acquire(InstanceLock *lock, const std::string &path, std::string *message)
{
    message->clear();
    int fd = open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0600);
    if (fd < 0) {
        *message = "cannot open " + path + ": " + strerror(errno);
        return false;
    }
    if (flock(fd, LOCK_EX | LOCK_NB) != 0) {
        if (errno != EWOULDBLOCK)
            *message = "cannot lock " + path + ": " + strerror(errno);
        close(fd);
        return false;
    }
    lock->fd = fd;
    lock->path = path;
    instance_lock_write_pid(lock, getpid());
    return true;
}

void instance_lock_write_pid(InstanceLock *lock, pid_t pid)
{
    if (lock->fd < 0)
        return;
    std::string text = std::to_string(pid) + "\n";
    if (ftruncate(lock->fd, 0) == 0 && pwrite(lock->fd, text.data(), text.size(), 0) == static_cast<ssize_t>(text.size()))
        fsync(lock->fd);
}

pid_t instance_lock_holder(const std::string &path)
{
    int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW);
    if (fd < 0)
        return 0;
    char text[32] = {};
    ssize_t n = read(fd, text, sizeof text - 1);
    close(fd);
    return n > 0 ? static_cast<pid_t>(strtol(text, nullptr, 10)) : 0;
}

void instance_lock_release(InstanceLock *lock)
{
    if (lock->fd < 0)
        return;
    unlink(lock->path.c_str());
    close(lock->fd);
    lock->fd = -1;
}
