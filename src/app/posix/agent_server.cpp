#include "app/posix/agent_server.h"

#include <cerrno>
#include <chrono>
#include <cstring>
#include <map>
#include <memory>
#include <mutex>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <system_error>
#include <thread>
#include <unistd.h>
#include <vector>

#include "agent/protocol.h"
#include "app/client_connection.h"
#include "app/message_processor.h"
#include "app/posix/peer_check.h"
#include "app/request_reader.h"
#include "keys/secure_memory.h"
#include "log/agent_log.h"

namespace {

// A request's time in the hand-over that counts as quick: far above an empty
// list's, and below one ECDSA signature's.
constexpr std::chrono::microseconds QUICK_REQUEST(10);

// Reads and writes never block: the event loop calls again when the
// socket is ready.
class SocketStream : public ClientStream {
public:
    explicit SocketStream(int fd) : fd_(fd) {}
    ~SocketStream() override { close(fd_); }
    size_t read_some(uint8_t *data, size_t size) override
    {
        // A read that got less than it asked for emptied the socket: the
        // next one would only find nothing, until the loop says otherwise.
        if (drained_) {
            would_block_ = true;
            return 0;
        }
        ssize_t n;
        do
            n = recv(fd_, data, size, MSG_DONTWAIT);
        while (n < 0 && errno == EINTR);
        would_block_ = n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK);
        drained_ = would_block_ || (n > 0 && static_cast<size_t>(n) < size);
        return n > 0 ? static_cast<size_t>(n) : 0;
    }
    // The loop saw the socket readable.
    void readable() { drained_ = false; }
    // Writes what the socket takes now; false on failure. `*sent` gets the count.
    bool send_some(const uint8_t *data, size_t size, size_t *sent)
    {
        ssize_t n;
        do
            n = send(fd_, data, size, MSG_DONTWAIT | MSG_NOSIGNAL);
        while (n < 0 && errno == EINTR);
        *sent = n > 0 ? static_cast<size_t>(n) : 0;
        return n >= 0 || errno == EAGAIN || errno == EWOULDBLOCK;
    }
    bool write_all(const uint8_t *data, size_t size) override
    {
        size_t sent = 0;
        return send_some(data, size, &sent) && sent == size;
    }
    void interrupt() override { shutdown(fd_, SHUT_RDWR); }
    uint32_t log_handle() const override { return static_cast<uint32_t>(fd_); }
    bool would_block() const override { return would_block_; }
    int fd() const { return fd_; }

private:
    int fd_;
    bool would_block_ = false;
    bool drained_ = false;
};

// One client: its requests, cut out of its bytes as on a thread of its own,
// and the reply bytes the socket has not taken yet. While a request or a
// reply waits, nothing more of that client is read or processed.
struct Connection {
    explicit Connection(int fd) : stream(std::make_unique<SocketStream>(fd)), reader(stream.get()) {}
    std::unique_ptr<SocketStream> stream;
    RequestReader reader;
    uint64_t id = 0;
    int32_t agent_protocol = 0, forwarding_chain = 0;
    uint32_t skip = 0;   // body bytes of an over-long request still to drop
    SecureBytes output;  // reply bytes not sent yet, from `sent`
    size_t sent = 0;
    bool writing = false;  // waiting for the socket to take output
    bool ended = false;    // to be closed: its bytes were rejected or it is gone
};

class EventLoop {
public:
    // Hands a connected socket to the loop, starting its thread when none runs.
    void add(int fd)
    {
        std::lock_guard<std::mutex> guard(lock_);
        if (!setup()) {
            close(fd);
            return;
        }
        arrived_.push_back(fd);
        if (running_) {
            uint64_t one = 1;
            if (write(wake_fd_, &one, sizeof one) < 0) {
                // The counter is already non-zero: the loop wakes anyway.
            }
            return;
        }
        try {
            std::thread([this] { run(); }).detach();
            running_ = true;
        } catch (const std::system_error &) {
            agent_log("Error creating connection thread.");
            arrived_.pop_back();
            close(fd);
        }
    }

private:
    bool setup()
    {
        if (epoll_fd_ >= 0)
            return true;
        epoll_fd_ = epoll_create1(EPOLL_CLOEXEC);
        wake_fd_ = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
        epoll_event wake{};
        wake.events = EPOLLIN;
        wake.data.u64 = 0;
        if (epoll_fd_ < 0 || wake_fd_ < 0 || epoll_ctl(epoll_fd_, EPOLL_CTL_ADD, wake_fd_, &wake) != 0) {
            if (epoll_fd_ >= 0)
                close(epoll_fd_);
            if (wake_fd_ >= 0)
                close(wake_fd_);
            epoll_fd_ = wake_fd_ = -1;
            return false;
        }
        return true;
    }

    // Takes the arrived sockets; false (and the thread ends) when there are
    // none and no connection is open.
    bool take_arrivals()
    {
        std::vector<int> arrived;
        {
            std::lock_guard<std::mutex> guard(lock_);
            arrived.swap(arrived_);
            if (arrived.empty() && connections_.empty()) {
                share_core(false);
                running_ = false;
                return false;
            }
        }
        for (int fd : arrived)
            open_connection(fd);
        return true;
    }

    void open_connection(int fd)
    {
        auto connection = std::make_unique<Connection>(fd);
        connection->id = admit_client_connection(connection->stream.get());
        if (!connection->id)
            return;  // refused: the stream closes the socket
        epoll_event event{};
        event.events = EPOLLIN;
        event.data.u64 = connection->id;
        if (epoll_ctl(epoll_fd_, EPOLL_CTL_ADD, fd, &event) != 0) {
            release_client_connection(connection->id);
            return;
        }
        log_connection_established(connection->stream.get());
        connections_[connection->id] = std::move(connection);
    }

    void close_connection(uint64_t id)
    {
        // The shutdown's clean-up goes through the hand-over, which the
        // request out holds.
        settle();
        auto found = connections_.find(id);
        if (found == connections_.end())
            return;
        std::unique_ptr<Connection> connection = std::move(found->second);
        connections_.erase(found);
        epoll_ctl(epoll_fd_, EPOLL_CTL_DEL, connection->stream->fd(), nullptr);
        log_connection_shutdown(connection->stream.get(), id);
        release_client_connection(id);
    }

    void watch(Connection *connection, bool writing)
    {
        if (connection->writing == writing)
            return;
        connection->writing = writing;
        epoll_event event{};
        event.events = writing ? EPOLLOUT : EPOLLIN;
        event.data.u64 = connection->id;
        epoll_ctl(epoll_fd_, EPOLL_CTL_MOD, connection->stream->fd(), &event);
    }

    // Sends what is waiting; false when the client is gone.
    bool flush(Connection *connection)
    {
        while (connection->sent < connection->output.size()) {
            size_t sent = 0;
            if (!connection->stream->send_some(connection->output.data() + connection->sent,
                                               connection->output.size() - connection->sent, &sent))
                return false;
            if (sent == 0) {
                watch(connection, true);
                return true;
            }
            connection->sent += sent;
        }
        wipe_memory(connection->output.data(), connection->output.size());
        connection->output.clear();
        connection->sent = 0;
        watch(connection, false);
        return true;
    }

    // Waits for the reply of the request with the message thread and keeps
    // it for its connection (marked ended when its bytes were rejected);
    // returns that connection, null when no request was out.
    Connection *finish_in_flight()
    {
        Connection *c = in_flight_.connection;
        if (c == nullptr)
            return nullptr;
        uint32_t reply_length = 0;
        if (!finish_client_request(in_flight_.request, reply_.get(), AGENT_MAX_REPLY, &reply_length,
                                   &c->agent_protocol, &c->forwarding_chain))
            c->ended = true;
        quick_requests_ = std::chrono::steady_clock::now() - in_flight_.start < QUICK_REQUEST;
        c->skip = in_flight_.skip;
        in_flight_ = {};
        c->output.assign(reply_.get(), reply_.get() + reply_length);
        wipe_memory(reply_.get(), reply_length);
        return c;
    }

    // Sends the reply of a finished request. The connection goes on the
    // ready list: it may hold more requests, or (rejected or gone) it is to
    // be closed, which happens there, never under a caller that uses it.
    void deliver(Connection *c)
    {
        if (!c->ended && !c->skip && !flush(c))
            c->ended = true;
        ready_.push_back(c->id);
    }

    // Answers the request out, if any.
    void settle()
    {
        if (Connection *c = finish_in_flight())
            deliver(c);
    }

    // Hands `c`'s request over. Working on cores of their own, the loop
    // takes the reply of the request before it only now, and sends it while
    // the message thread works on this one. Sharing a core, the message
    // thread runs only while the loop waits, so the loop waits at once.
    void hand_over(Connection *c, const uint8_t *request, uint32_t size, uint32_t skip)
    {
        Connection *previous = finish_in_flight();
        in_flight_.request = begin_client_request(request, size, c->agent_protocol, c->forwarding_chain, c->id);
        in_flight_.connection = c;
        in_flight_.skip = skip;
        in_flight_.start = std::chrono::steady_clock::now();
        handed_over_ = true;
        if (previous)
            deliver(previous);
        if (sharing_core_)
            settle();
    }

    // Hands over the next whole request that has arrived, if the client
    // waits for nothing; false when the connection is to end.
    bool answer(Connection *c, uint64_t *submitted)
    {
        while (!c->writing && in_flight_.connection != c && !c->ended) {
            if (c->skip) {
                if (!c->reader.discard(&c->skip))
                    return c->stream->would_block();
                if (!flush(c))
                    return false;
                continue;
            }
            const uint8_t *request = nullptr;
            uint32_t size = 0, skip = 0;
            if (!c->reader.next(&request, &size, &skip))
                return c->stream->would_block();
            // Requests of several clients that are answered one after
            // another waited for each other, as submitters wait for the
            // hand-over's mutex.
            if (*submitted && *submitted != c->id)
                log_hand_over_busy();
            *submitted = c->id;
            hand_over(c, request, size, skip);
            c->reader.release();
        }
        return !c->ended;
    }

    bool serve(Connection *c, uint32_t events, uint64_t *submitted)
    {
        if (c->ended)
            return false;
        if (events & (EPOLLIN | EPOLLHUP | EPOLLERR))
            c->stream->readable();
        if (c->writing) {
            if (!(events & (EPOLLOUT | EPOLLERR | EPOLLHUP)))
                return true;
            if (!flush(c))
                return false;
            if (c->writing)
                return true;
            // The client took its reply: what it sent meanwhile is next.
        }
        return answer(c, submitted);
    }

    void share_core(bool share)
    {
        if (sharing_core_ != share)
            message_processor_share_core(share);
        sharing_core_ = share;
    }

    // From the moment several clients are found waiting with quick requests
    // until the loop runs out of work, the loop and the message thread keep
    // to one core, and each hand-over passes that core to the other thread
    // at once. Otherwise each waits for the other to be given a core, while
    // clients take both. With one client, or with requests that keep the
    // message thread busy (signatures), they run apart: the loop's work
    // overlaps the clients' on the other core.
    int wait_for_events(epoll_event *events, int capacity, bool may_sleep)
    {
        int n = 0;
        if (!may_sleep || sharing_core_)
            n = epoll_wait(epoll_fd_, events, capacity, 0);
        if (n == 0 && may_sleep) {
            share_core(false);
            n = epoll_wait(epoll_fd_, events, capacity, -1);
        }
        if (!quick_requests_)
            share_core(false);
        else if (n > 1)
            share_core(true);
        return n;
    }

    void run()
    {
        epoll_event events[64];
        while (take_arrivals()) {
            // With a request out, or clients that may hold more, look without sleeping.
            int n = wait_for_events(events, 64, in_flight_.connection == nullptr && ready_.empty());
            if (n < 0 && errno != EINTR) {
                agent_log("epoll_wait failed: %s", strerror(errno));
                settle();
                std::lock_guard<std::mutex> guard(lock_);
                running_ = false;
                return;
            }
            handed_over_ = false;
            uint64_t submitted = 0;  // the connection of this turn's last request
            for (int i = 0; i < n; ++i) {
                uint64_t id = events[i].data.u64;
                if (id == 0) {
                    uint64_t count = 0;
                    if (read(wake_fd_, &count, sizeof count) < 0) {
                        // Nothing to take: another read got it.
                    }
                    continue;
                }
                auto found = connections_.find(id);
                if (found != connections_.end() && !serve(found->second.get(), events[i].events, &submitted))
                    close_connection(id);
            }
            answering_.swap(ready_);
            ready_.clear();
            for (uint64_t id : answering_) {
                auto found = connections_.find(id);
                if (found != connections_.end() && !answer(found->second.get(), &submitted))
                    close_connection(id);
            }
            // Nothing new to hand over: the request out is answered now.
            if (!handed_over_)
                settle();
        }
    }

    std::mutex lock_;  // guards arrived_ and running_
    std::vector<int> arrived_;
    bool running_ = false;
    int epoll_fd_ = -1, wake_fd_ = -1;
    // Used by the loop's thread alone.
    std::map<uint64_t, std::unique_ptr<Connection>> connections_;
    bool sharing_core_ = false;   // with the message thread
    bool quick_requests_ = true;  // the last request took less than QUICK_REQUEST
    // The request with the message thread: at most one.
    struct {
        Connection *connection = nullptr;
        PendingRequest *request = nullptr;
        uint32_t skip = 0;  // body bytes of an over-long request to drop after it
        std::chrono::steady_clock::time_point start;
    } in_flight_;
    bool handed_over_ = false;         // in this turn of the loop
    std::vector<uint64_t> ready_;      // answered clients that may hold more requests
    std::vector<uint64_t> answering_;  // those of the last turn, being served
    std::unique_ptr<uint8_t[]> reply_{new uint8_t[AGENT_MAX_REPLY]};
};

// Never destroyed: the loop's thread may outlive the shutdown wait.
EventLoop &event_loop()
{
    static EventLoop *loop = new EventLoop;
    return *loop;
}

}  // namespace

void agent_server_accept(int listen_fd)
{
    int fd = accept_this_user(listen_fd);
    if (fd >= 0)
        event_loop().add(fd);
}
