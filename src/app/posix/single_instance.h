// One agent per runtime folder: "agent.lock" is held with flock for the
// agent's life and holds its pid.
#pragma once

#include <string>
#include <sys/types.h>

struct InstanceLock {
    int fd = -1;
    std::string path;
};

// True when this process now holds the lock. False when another agent holds
// it; `message` is empty then. On an error `message` says what went wrong.
bool instance_lock_acquire(InstanceLock *lock, const std::string &path, std::string *message);
// Writes the pid of the holder (after a fork the child records itself).
void instance_lock_write_pid(InstanceLock *lock, pid_t pid);
// The pid recorded by the agent holding the lock, or 0.
pid_t instance_lock_holder(const std::string &path);
void instance_lock_release(InstanceLock *lock);
