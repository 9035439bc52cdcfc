#include "app/posix/control_channel.h"

#include <chrono>
#include <condition_variable>
#include <fcntl.h>
#include <map>
#include <mutex>
#include <poll.h>
#include <set>
#include <sys/socket.h>
#include <system_error>
#include <thread>
#include <unistd.h>

#include "app/tagent/control_protocol.h"
#include "app/posix/peer_check.h"
#include "app/posix/unix_socket.h"
#include "app/window_messages.h"
#include "keys/buffer.h"
#include "platform/posix/fd_io.h"

namespace {

struct Subscribers {
    std::mutex lock;
    std::condition_variable ended;
    std::map<uint64_t, int> open;  // handle -> socket
    uint64_t next = 0x10000;      // handles look like window handles, never 0
    std::set<int> serving;         // clients whose request is being served
};

// Never destroyed: a control thread that outlives the shutdown wait still
// finds it while the process exits.
Subscribers &subscribers()
{
    static Subscribers *state = new Subscribers;
    return *state;
}

bool read_request(int fd, ControlRequest *request)
{
    SecureBytes body;
    return socket_read_framed(fd, CONTROL_MAX_DATA + 64, &body) &&
           control_decode_request(body.data(), body.size(), request);
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

// Each control client has a thread of its own, so that one that is slow to
// send its request holds up nobody; the window procedure's work on the
// agent's state then waits its turn on the message-processing thread.
// Answers the request; true when the connection stays open as a watch
// subscription.
bool answer_control_request(int fd)
{
    ControlRequest request;
    if (!read_request(fd, &request))
        return false;
    if (request.message == CONTROL_WATCH) {
        Subscribers &state = subscribers();
        std::lock_guard<std::mutex> guard(state.lock);
        uint64_t handle = state.next++;
        state.open[handle] = fd;
        // Events must never block the agent: a subscriber that does not
        // read is dropped when its socket fills up.
        fcntl(fd, F_SETFL, fcntl(fd, F_GETFL) | O_NONBLOCK);
        write_result(fd, static_cast<int64_t>(handle));
        return true;
    }
    int64_t result = agent_window_message(request.message, request.wparam, request.lparam, request.data);
    wipe_memory(request.data.data(), request.data.size());
    write_result(fd, result);
    return false;
}

void serve_control_client(int fd)
{
    bool subscribed = answer_control_request(fd);
    Subscribers &state = subscribers();
    std::lock_guard<std::mutex> guard(state.lock);
    state.serving.erase(fd);
    if (!subscribed)
        close(fd);
    state.ended.notify_all();
}

}  // namespace

void control_channel_accept(int listen_fd)
{
    int fd = accept_this_user(listen_fd);
    if (fd < 0)
        return;
    // A client that never finishes its request is cut off.
    struct timeval limit = {10, 0};
    setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit);
    Subscribers &state = subscribers();
    std::lock_guard<std::mutex> guard(state.lock);
    state.serving.insert(fd);
    try {
        std::thread(serve_control_client, fd).detach();
    } catch (const std::system_error &) {
        state.serving.erase(fd);
        close(fd);
    }
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
    std::unique_lock<std::mutex> guard(state.lock);
    for (const auto &entry : state.open)
        close(entry.second);
    state.open.clear();
    // Clients still sending are cut off; those being answered (the stop
    // command among them) still get their result. A request that waits for
    // the user (the unlock prompt) is not waited for beyond this; it ends
    // with the process.
    for (int fd : state.serving)
        shutdown(fd, SHUT_RD);
    state.ended.wait_for(guard, std::chrono::seconds(3), [&] { return state.serving.empty(); });
}
