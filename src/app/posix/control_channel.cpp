#include "app/posix/control_channel.h"

#include <fcntl.h>
#include <map>
#include <mutex>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include "app/posix/control_protocol.h"
#include "app/posix/peer_check.h"
#include "app/window_messages.h"
#include "keys/buffer.h"
#include "platform/posix/fd_io.h"

namespace {

struct Subscribers {
    std::mutex lock;
    std::map<uint64_t, int> open;  // handle -> socket
    uint64_t next = 0x10000;      // handles look like window handles, never 0
};

Subscribers &subscribers()
{
    static Subscribers state;
    return state;
}

bool read_request(int fd, ControlRequest *request)
{
    uint8_t header[4];
    if (!fd_read_exact(fd, header, 4))
        return false;
    uint32_t len = static_cast<uint32_t>(header[0]) << 24 | header[1] << 16 | header[2] << 8 | header[3];
    if (len > CONTROL_MAX_DATA + 64)
        return false;
    std::string bytes(reinterpret_cast<char *>(header), 4);
    bytes.resize(4 + len);
    if (!fd_read_exact(fd, bytes.data() + 4, len))
        return false;
    bool ok = control_decode_request(bytes, request);
    wipe_memory(bytes.data(), bytes.size());
    return ok;
}

void write_result(int fd, int64_t result)
{
    Buffer reply;
    buffer_put_int(&reply, 8);
    buffer_put_int64(&reply, static_cast<uint64_t>(result));
    fd_write_all(fd, buffer_ptr(&reply), buffer_len(&reply));
}

bool gone(int fd)
{
    struct pollfd p = {fd, POLLRDHUP, 0};
    return poll(&p, 1, 0) > 0 && (p.revents & (POLLRDHUP | POLLHUP | POLLERR));
}

}  // namespace

void control_channel_accept(int listen_fd)
{
    int fd = accept_this_user(listen_fd);
    if (fd < 0)
        return;
    // The main thread serves this; a client that stalls is cut off.
    struct timeval limit = {2, 0};
    setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit);
    ControlRequest request;
    if (!read_request(fd, &request)) {
        close(fd);
        return;
    }
    if (request.message == CONTROL_WATCH) {
        Subscribers &state = subscribers();
        std::lock_guard<std::mutex> guard(state.lock);
        uint64_t handle = state.next++;
        state.open[handle] = fd;
        // Events must never block the agent: a subscriber that does not
        // read is dropped when its socket fills up.
        fcntl(fd, F_SETFL, fcntl(fd, F_GETFL) | O_NONBLOCK);
        write_result(fd, static_cast<int64_t>(handle));
        return;
    }
    int64_t result = agent_window_message(request.message, request.wparam, request.lparam, request.data);
    wipe_memory(request.data.data(), request.data.size());
    write_result(fd, result);
    close(fd);
}

void control_channel_broadcast(const std::string &line)
{
    Subscribers &state = subscribers();
    std::lock_guard<std::mutex> guard(state.lock);
    std::string text = line + "\n";
    for (auto it = state.open.begin(); it != state.open.end();) {
        if (fd_write_all(it->second, text.data(), text.size())) {
            ++it;
        } else {
            close(it->second);
            it = state.open.erase(it);
        }
    }
}

bool control_channel_send(uint64_t subscriber, const std::string &line)
{
    Subscribers &state = subscribers();
    std::lock_guard<std::mutex> guard(state.lock);
    auto it = state.open.find(subscriber);
    if (it == state.open.end())
        return false;
    std::string text = line + "\n";
    if (fd_write_all(it->second, text.data(), text.size()))
        return true;
    close(it->second);
    state.open.erase(it);
    return false;
}

bool control_channel_subscriber_alive(uint64_t subscriber)
{
    Subscribers &state = subscribers();
    std::lock_guard<std::mutex> guard(state.lock);
    auto it = state.open.find(subscriber);
    if (it == state.open.end())
        return false;
    if (!gone(it->second))
        return true;
    close(it->second);
    state.open.erase(it);
    return false;
}

void control_channel_close_all()
{
    Subscribers &state = subscribers();
    std::lock_guard<std::mutex> guard(state.lock);
    for (const auto &entry : state.open)
        close(entry.second);
    state.open.clear();
}
