#include "app/posix/agent_server.h"

#include <chrono>
#include <cerrno>
#include <condition_variable>
#include <cstring>
#include <map>
#include <mutex>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/un.h>
#include <thread>
#include <unistd.h>
#include <vector>

#include "agent/handlers.h"
#include "agent/protocol.h"
#include "app/message_processor.h"
#include "app/posix/peer_check.h"
#include "log/agent_log.h"
#include "platform/posix/fd_io.h"

namespace {

struct Connections {
    std::mutex lock;
    std::condition_variable ended;
    std::map<uint64_t, int> open;  // connection handle -> socket
    uint64_t next_handle = 1;
};

Connections &connections()
{
    static Connections state;
    return state;
}

bool discard(int fd, uint32_t size)
{
    uint8_t scratch[16384];
    while (size > 0) {
        uint32_t chunk = size < sizeof scratch ? size : static_cast<uint32_t>(sizeof scratch);
        if (!fd_read_exact(fd, scratch, chunk))
            return false;
        size -= chunk;
    }
    return true;
}

// Reads requests with exact framing and answers each one. A request longer
// than the dispatcher accepts reaches it as its length and first body byte
// (it refuses that without an answer); the rest is read and thrown away so
// that the stream stays in step.
void serve_connection(int fd, uint64_t handle)
{
    unsigned thread_id = static_cast<unsigned>(syscall(SYS_gettid));
    agent_log("Connection established (pipe: 0x%08x, thread: 0x%08x)", static_cast<unsigned>(fd), thread_id);

    int32_t agent_protocol = 0, forwarding_chain = 0;
    std::vector<uint8_t> request;
    std::vector<uint8_t> reply(AGENT_MAX_REPLY);
    for (;;) {
        uint8_t header[4];
        if (!fd_read_exact(fd, header, 4))
            break;
        uint32_t length = static_cast<uint32_t>(header[0]) << 24 | static_cast<uint32_t>(header[1]) << 16 |
                          static_cast<uint32_t>(header[2]) << 8 | header[3];
        uint32_t body = length > AGENT_MAX_REQUEST ? 1 : length;
        request.assign(header, header + 4);
        request.resize(4 + static_cast<size_t>(body));
        if (!fd_read_exact(fd, request.data() + 4, body))
            break;
        uint32_t reply_length = 0;
        submit_client_request(request.data(), static_cast<uint32_t>(request.size()), reply.data(),
                              static_cast<uint32_t>(reply.size()), &reply_length, &agent_protocol,
                              &forwarding_chain, handle);
        wipe_memory(request.data(), request.size());
        if (length > AGENT_MAX_REQUEST && !discard(fd, length - 1))
            break;
        if (reply_length && !fd_write_all(fd, reply.data(), reply_length))
            break;
        wipe_memory(reply.data(), reply_length);
    }
    agent_log("Connection shutdown (pipe: 0x%08x, thread: 0x%08x)", static_cast<unsigned>(fd), thread_id);
    forwarding_notice_connection_closed(handle);

    Connections &state = connections();
    {
        std::lock_guard<std::mutex> guard(state.lock);
        state.open.erase(handle);
        close(fd);
    }
    state.ended.notify_all();
}

}  // namespace

void agent_server_accept(int listen_fd)
{
    int fd = accept_this_user(listen_fd);
    if (fd < 0)
        return;
    Connections &state = connections();
    std::lock_guard<std::mutex> guard(state.lock);
    if (state.open.size() >= AGENT_MAX_CONNECTIONS) {
        agent_log("Refused a client: %d connections are open already", AGENT_MAX_CONNECTIONS);
        close(fd);
        return;
    }
    uint64_t handle = state.next_handle++;
    state.open[handle] = fd;
    try {
        std::thread(serve_connection, fd, handle).detach();
        agent_log("Connection thread created.");
    } catch (const std::system_error &) {
        agent_log("Error creating connection thread.");
        state.open.erase(handle);
        close(fd);
    }
}

void agent_server_close_connections()
{
    Connections &state = connections();
    std::unique_lock<std::mutex> guard(state.lock);
    for (const auto &entry : state.open)
        shutdown(entry.second, SHUT_RDWR);
    // A connection waiting on a long request (a prompt for the user) is not
    // waited for beyond this; it ends with the process.
    state.ended.wait_for(guard, std::chrono::seconds(3), [&] { return state.open.empty(); });
}

int agent_server_connection_count()
{
    Connections &state = connections();
    std::lock_guard<std::mutex> guard(state.lock);
    return static_cast<int>(state.open.size());
}
