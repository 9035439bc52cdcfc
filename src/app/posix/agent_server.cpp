#include "app/posix/agent_server.h"

#include <memory>
#include <sys/socket.h>
#include <unistd.h>

#include "app/client_connection.h"
#include "platform/posix/fd_io.h"
#include "app/posix/peer_check.h"

namespace {

class SocketStream : public ClientStream {
public:
    explicit SocketStream(int fd) : fd_(fd) {}
    ~SocketStream() override { close(fd_); }
    size_t read_some(uint8_t *data, size_t size) override { return fd_read_some(fd_, data, size); }
    bool write_all(const uint8_t *data, size_t size) override { return fd_send_all(fd_, data, size); }
    void interrupt() override { shutdown(fd_, SHUT_RDWR); }
    uint32_t log_handle() const override { return static_cast<uint32_t>(fd_); }

private:
    int fd_;
};

}  // namespace

void agent_server_accept(int listen_fd)
{
    int fd = accept_this_user(listen_fd);
    if (fd >= 0)
        start_client_connection(std::make_unique<SocketStream>(fd), Framing::EXACT_LENGTH);
}
