#include "app/message_processor.h"

#include <atomic>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <mutex>
#include <thread>

#include "agent/dispatch.h"
#include "app/auto_reset_events.h"
#include "app/thread_services.h"
#include "log/agent_log.h"
#include "log/log.h"

namespace {

enum Event : size_t { STOP_EVENT, REQUEST_EVENT, DONE_EVENT, EXITED_EVENT, EVENT_COUNT };

struct HandOver {
    std::thread thread;
    AutoResetEvents events{EVENT_COUNT};
    std::mutex request_mutex;  // admits one submitter at a time
    std::atomic<int> busy{0};
    RequestContext *pending = nullptr;
};

std::unique_ptr<HandOver> &hand_over()
{
    static std::unique_ptr<HandOver> state;
    return state;
}

std::atomic<FatalShutdownHandler> fatal_shutdown_handler{nullptr};

void thread_loop(HandOver *state)
{
    agent_log("Process message thread started.");
    agent_log("Crypto initialization");
    processor_crypto_init();
    agent_log("PKI creation");
    processor_pki_create();
    state->events.set(DONE_EVENT);

    while (state->events.wait_any({STOP_EVENT, REQUEST_EVENT}) == REQUEST_EVENT) {
        if (RequestContext *ctx = state->pending) {
            state->pending = nullptr;
            dispatch_request(ctx);
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

void hand_over_request(HandOver *state, RequestContext *ctx)
{
    if (state == nullptr) {
        error("submit_client_request: the message-processing thread is not running");
        return;
    }
    if (state->busy.load())
        agent_log("Already processing a message.  Wait for mutex to continue.");
    std::lock_guard<std::mutex> guard(state->request_mutex);
    state->busy = 1;
    state->pending = ctx;
    state->events.set(REQUEST_EVENT);
    state->events.wait(DONE_EVENT);
    state->pending = nullptr;
    state->busy = 0;
}

}  // namespace

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

void submit_client_request(const uint8_t *data, uint32_t count, uint8_t *reply, uint32_t reply_capacity,
                           uint32_t *reply_length, int32_t *agent_protocol, int32_t *forwarding_chain,
                           uint64_t connection)
{
    *reply_length = 0;
    try {
        RequestContext ctx;
        ctx.agent_protocol = agent_protocol ? *agent_protocol : 0;
        ctx.forwarding_chain = forwarding_chain ? *forwarding_chain : 0;
        ctx.connection = connection;
        buffer_append(&ctx.input, data, count);
        agent_log("Received client request");

        hand_over_request(hand_over().get(), &ctx);

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
    } catch (const FatalError &) {
        run_fatal_shutdown();
    }
}

void set_fatal_shutdown_handler(FatalShutdownHandler handler) { fatal_shutdown_handler = handler; }

void run_fatal_shutdown()
{
    agent_log("A fatal exception has occurred.  Shutting down now.");
    if (FatalShutdownHandler handler = fatal_shutdown_handler.load())
        handler();
}
