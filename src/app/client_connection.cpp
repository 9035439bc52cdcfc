#include "app/client_connection.h"

#include <chrono>
#include <condition_variable>
#include <map>
#include <mutex>
#include <system_error>
#include <thread>
#include <vector>

#include "agent/handlers.h"
#include "agent/protocol.h"
#include "app/message_processor.h"
#include "app/request_reader.h"
#include "keys/buffer.h"
#include "keys/secure_memory.h"
#include "log/agent_log.h"
#include "platform/platform.h"

namespace {

constexpr size_t PIPE_READ_SIZE = 131072;

struct Registry {
    std::mutex lock;
    std::condition_variable ended;
    std::map<uint64_t, ClientStream *> open;  // connection -> its stream
    uint64_t next_connection = 1;
};

// Never destroyed: a connection thread that outlives the shutdown wait
// still finds it while the process exits.
Registry &registry()
{
    static Registry *state = new Registry;
    return *state;
}

// One pipe read, with the one extra read when it brought under 5 bytes.
bool read_pipe_request(ClientStream *stream, std::vector<uint8_t> *request)
{
    request->resize(PIPE_READ_SIZE);
    size_t count = stream->read_some(request->data(), PIPE_READ_SIZE);
    if (count == 0)
        return false;
    if (count < 5) {
        size_t more = stream->read_some(request->data() + count, PIPE_READ_SIZE - count);
        if (more == 0)
            return false;
        count += more;
    }
    request->resize(count);
    return true;
}

void unregister(uint64_t connection)
{
    Registry &state = registry();
    std::lock_guard<std::mutex> guard(state.lock);
    state.open.erase(connection);
    state.ended.notify_all();
}

void serve_and_unregister(std::unique_ptr<ClientStream> stream, Framing framing, uint64_t connection)
{
    serve_client_connection(stream.get(), framing, connection);
    Registry &state = registry();
    std::lock_guard<std::mutex> guard(state.lock);
    state.open.erase(connection);
    stream.reset();
    state.ended.notify_all();
}

// Takes a place in the registry; 0 when every place is taken.
uint64_t register_connection(ClientStream *stream)
{
    Registry &state = registry();
    std::lock_guard<std::mutex> guard(state.lock);
    if (state.open.size() >= AGENT_MAX_CONNECTIONS) {
        agent_log("Refused a client: %d connections are open already", AGENT_MAX_CONNECTIONS);
        return 0;
    }
    uint64_t connection = state.next_connection++;
    state.open[connection] = stream;
    return connection;
}

}  // namespace

void serve_client_connection(ClientStream *stream, Framing framing, uint64_t connection)
{
    log_connection_established(stream);

    int32_t agent_protocol = 0, forwarding_chain = 0;
    RequestReader reader(stream);
    std::vector<uint8_t> piped;  // the pipe framing's request
    std::unique_ptr<uint8_t[]> reply(new uint8_t[AGENT_MAX_REPLY]);
    for (;;) {
        const uint8_t *request = nullptr;
        uint32_t size = 0, skip = 0;
        if (framing == Framing::EXACT_LENGTH) {
            if (!reader.next(&request, &size, &skip))
                break;
        } else {
            if (!read_pipe_request(stream, &piped))
                break;
            request = piped.data();
            size = static_cast<uint32_t>(piped.size());
        }
        uint32_t reply_length = 0;
        bool keep = submit_client_request(request, size, reply.get(), AGENT_MAX_REPLY, &reply_length,
                                          &agent_protocol, &forwarding_chain, connection);
        if (framing == Framing::EXACT_LENGTH)
            reader.release();
        else
            wipe_memory(piped.data(), piped.size());
        if (!keep)
            break;
        if (skip && !reader.discard(&skip))
            break;
        if (reply_length && !stream->write_all(reply.get(), reply_length))
            break;
        wipe_memory(reply.get(), reply_length);
    }
    wipe_memory(piped.data(), piped.size());
    log_connection_shutdown(stream, connection);
}

void log_connection_established(const ClientStream *stream)
{
    agent_log("Connection established (pipe: 0x%08x, thread: 0x%08x)", stream->log_handle(), platform_thread_id());
}

void log_connection_shutdown(const ClientStream *stream, uint64_t connection)
{
    agent_log("Connection shutdown (pipe: 0x%08x, thread: 0x%08x)", stream->log_handle(), platform_thread_id());
    run_on_message_thread([connection] { forwarding_notice_connection_closed(connection); });
}

uint64_t admit_client_connection(ClientStream *stream)
{
    uint64_t connection = register_connection(stream);
    if (connection)
        agent_log("Connection thread created.");
    return connection;
}

void release_client_connection(uint64_t connection) { unregister(connection); }

bool start_client_connection(std::unique_ptr<ClientStream> stream, Framing framing)
{
    uint64_t connection = register_connection(stream.get());
    if (!connection)
        return false;
    try {
        std::thread(serve_and_unregister, std::move(stream), framing, connection).detach();
        agent_log("Connection thread created.");
        return true;
    } catch (const std::system_error &) {
        agent_log("Error creating connection thread.");
        unregister(connection);
        return false;
    }
}

void close_client_connections()
{
    Registry &state = registry();
    std::unique_lock<std::mutex> guard(state.lock);
    for (const auto &entry : state.open)
        entry.second->interrupt();
    // A connection waiting on a long request (a prompt for the user) is not
    // waited for beyond this; it ends with the process.
    state.ended.wait_for(guard, std::chrono::seconds(3), [&] { return state.open.empty(); });
}
