#include "app/message_processor.h"

#include <atomic>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <mutex>
#include <thread>

#include "agent/dispatch.h"
#include "agent/shell_services.h"
#include "app/auto_reset_events.h"
#include "app/thread_services.h"
#include "log/agent_log.h"
#include "log/log.h"
#include "platform/platform.h"

namespace {

enum Event : size_t { STOP_EVENT, REQUEST_EVENT, DONE_EVENT, EXITED_EVENT, EVENT_COUNT };

struct HandOver {
    std::thread thread;
    // A thread put to sleep takes tens of microseconds to wake on a loaded
    // or virtual machine, so both sides watch before they sleep. A submitter
    // watches for its reply for as long as an RSA-2048 signature takes, a
    // few times over. The thread watches for the next request for about one
    // client's round trip: longer, and with many clients it takes a core
    // that they need to send those requests.
    AutoResetEvents events{EVENT_COUNT,
                           {std::chrono::microseconds(0), std::chrono::microseconds(35),
                            std::chrono::microseconds(2000), std::chrono::microseconds(0)}};
    std::mutex request_mutex;  // admits one submitter at a time
    std::atomic<int> busy{0};
    std::atomic<std::thread::id> thread_id{};
    std::atomic<int> shared_core{-1};  // the core the thread is to keep to; -1: any
    // The slot: a client request, or a piece of the shell's work on the
    // agent's state. The mutex and the events order every access.
    RequestContext *pending = nullptr;
    const std::function<void()> *pending_task = nullptr;
    bool task_failed = false;  // a fatal error ended the task
};

std::unique_ptr<HandOver> &hand_over()
{
    static std::unique_ptr<HandOver> state;
    return state;
}

void run_task(HandOver *state, const std::function<void()> &task)
{
    try {
        task();
    } catch (const FatalError &) {
        // Reported on the submitting thread, which runs the fatal shutdown.
        state->task_failed = true;
    }
}

void thread_loop(HandOver *state)
{
    state->thread_id = std::this_thread::get_id();
    agent_log("Process message thread started.");
    agent_log("Crypto initialization");
    processor_crypto_init();
    agent_log("PKI creation");
    processor_pki_create();
    state->events.set(DONE_EVENT);

    int bound_core = -1;
    while (state->events.wait_any({STOP_EVENT, REQUEST_EVENT}) == REQUEST_EVENT) {
        int core = state->shared_core.load(std::memory_order_relaxed);
        if (core != bound_core && platform_bind_current_thread(core))
            bound_core = core;
        if (RequestContext *ctx = state->pending) {
            state->pending = nullptr;
            dispatch_request(ctx);
        } else if (const std::function<void()> *task = state->pending_task) {
            state->pending_task = nullptr;
            run_task(state, *task);
        }
        state->events.set(DONE_EVENT);
    }

    agent_log("PKI delete");
    processor_pki_delete();
    agent_log("Crypto cleanup");
    processor_crypto_cleanup();
    agent_log("Process message thread stopped.");
    state->events.set(EXITED_EVENT);
}

void thread_body(HandOver *state)
{
    try {
        thread_loop(state);
    } catch (const FatalError &) {
        // Not recoverable here: the clean-ups already ran inside fatal(),
        // so the process ends at once.
        std::_Exit(EXIT_FAILURE);
    }
}

}  // namespace

// A request in the hand-over: the submitter holds the mutex until the reply
// is taken.
struct PendingRequest {
    RequestContext ctx;
    HandOver *state = nullptr;
    std::unique_lock<std::mutex> lock;
};

namespace {

void hand_over_begin(PendingRequest *request)
{
    HandOver *state = request->state;
    if (state == nullptr) {
        error("submit_client_request: the message-processing thread is not running");
        return;
    }
    if (state->busy.load())
        log_hand_over_busy();
    request->lock = std::unique_lock<std::mutex>(state->request_mutex);
    state->busy = 1;
    state->pending = &request->ctx;
    state->events.set(REQUEST_EVENT);
}

void hand_over_end(PendingRequest *request)
{
    HandOver *state = request->state;
    if (!request->lock.owns_lock())
        return;
    state->events.wait(DONE_EVENT);
    state->pending = nullptr;
    state->busy = 0;
    request->lock.unlock();
}

// The shell's work goes through the same slot, so it never overlaps a
// request. Returns false when a fatal error ended the task.
bool hand_over_task(HandOver *state, const std::function<void()> &task)
{
    std::lock_guard<std::mutex> guard(state->request_mutex);
    state->task_failed = false;
    state->pending_task = &task;
    state->events.set(REQUEST_EVENT);
    state->events.wait(DONE_EVENT);
    state->pending_task = nullptr;
    return !state->task_failed;
}

}  // namespace

void message_processor_share_core(bool share)
{
    HandOver *state = hand_over().get();
    if (state == nullptr)
        return;
    int core = share ? platform_current_core() : -1;
    if (share && (core < 0 || !platform_bind_current_thread(core)))
        return;
    if (!share)
        platform_bind_current_thread(-1);
    state->shared_core = core;
}

void log_hand_over_busy() { agent_log("Already processing a message.  Wait for mutex to continue."); }

void message_processor_start()
{
    auto &state = hand_over();
    state = std::make_unique<HandOver>();
    state->thread = std::thread(thread_body, state.get());
    state->events.wait_for(DONE_EVENT, std::chrono::milliseconds(5000));
}

void message_processor_stop()
{
    auto &state = hand_over();
    if (!state)
        return;
    if (state->thread.joinable()) {
        state->events.set(STOP_EVENT);
        if (state->events.wait_for(EXITED_EVENT, std::chrono::milliseconds(1000))) {
            state->thread.join();
        } else {
            // A thread cannot be killed portably: leave it behind, it ends
            // with the process. Its state must outlive it, so keep it too.
            state->thread.detach();
            (void)state.release();
            return;
        }
    }
    state.reset();
}

PendingRequest *begin_client_request(const uint8_t *data, uint32_t count, int32_t agent_protocol,
                                     int32_t forwarding_chain, uint64_t connection)
{
    auto request = std::make_unique<PendingRequest>();
    request->state = hand_over().get();
    try {
        RequestContext &ctx = request->ctx;
        ctx.agent_protocol = agent_protocol;
        ctx.forwarding_chain = forwarding_chain;
        ctx.connection = connection;
        buffer_append(&ctx.input, data, count);
        agent_log("Received client request");
        hand_over_begin(request.get());
    } catch (const FatalError &) {
        run_fatal_shutdown();
    }
    return request.release();
}

bool finish_client_request(PendingRequest *pending, uint8_t *reply, uint32_t reply_capacity, uint32_t *reply_length,
                           int32_t *agent_protocol, int32_t *forwarding_chain)
{
    std::unique_ptr<PendingRequest> request(pending);
    *reply_length = 0;
    try {
        hand_over_end(request.get());
        RequestContext &ctx = request->ctx;
        uint32_t length = buffer_len(&ctx.output);
        if (length > reply_capacity) {
            error("submit_client_request: reply of %u bytes does not fit %u bytes; dropped", length,
                  reply_capacity);
            length = 0;
        }
        if (length)
            memcpy(reply, buffer_ptr(&ctx.output), length);
        *reply_length = length;
        if (agent_protocol)
            *agent_protocol = ctx.agent_protocol;
        if (forwarding_chain)
            *forwarding_chain = ctx.forwarding_chain;
        return !ctx.drop_connection;
    } catch (const FatalError &) {
        run_fatal_shutdown();
    }
    return true;
}

bool submit_client_request(const uint8_t *data, uint32_t count, uint8_t *reply, uint32_t reply_capacity,
                           uint32_t *reply_length, int32_t *agent_protocol, int32_t *forwarding_chain,
                           uint64_t connection)
{
    PendingRequest *request = begin_client_request(data, count, agent_protocol ? *agent_protocol : 0,
                                                   forwarding_chain ? *forwarding_chain : 0, connection);
    return finish_client_request(request, reply, reply_capacity, reply_length, agent_protocol, forwarding_chain);
}

void run_on_message_thread(const std::function<void()> &task)
{
    HandOver *state = hand_over().get();
    bool ok = true;
    if (state == nullptr || state->thread_id.load() == std::this_thread::get_id()) {
        try {
            task();
        } catch (const FatalError &) {
            ok = false;
        }
    } else {
        ok = hand_over_task(state, task);
    }
    if (!ok)
        run_fatal_shutdown();
}
