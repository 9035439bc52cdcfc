// Whole reads and writes on POSIX descriptors, retried after signals.
#pragma once

#include <cstddef>

// Writes all `size` bytes (with MSG_NOSIGNAL semantics on sockets: a closed
// peer is an error, not a signal). False on any failure.
bool fd_write_all(int fd, const void *data, size_t size);
// The same for a descriptor known to be a socket, without asking which it is.
bool fd_send_all(int fd, const void *data, size_t size);
// Reads exactly `size` bytes; false on end of file or failure.
bool fd_read_exact(int fd, void *data, size_t size);
// Reads what is there, at most `size` bytes: the count, 0 at end of file or
// on failure.
size_t fd_read_some(int fd, void *data, size_t size);
