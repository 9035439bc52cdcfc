// The one thread on which every agent request, and all crypto and
// certificate work, runs. Connection threads hand requests to it one at a
// time and wait for the reply.
#pragma once

#include <cstdint>
#include <functional>

void message_processor_start();
void message_processor_stop();

// Turns the bytes of one client read into a request, has it processed and
// copies the framed reply (at most `reply_capacity` bytes) into `reply`,
// storing its length (0: nothing to send). `agent_protocol` and
// `forwarding_chain` may be null; they carry the connection's saved values
// in and out. False when the client's bytes were rejected and its
// connection is to be closed.
bool submit_client_request(const uint8_t *data, uint32_t count, uint8_t *reply, uint32_t reply_capacity,
                           uint32_t *reply_length, int32_t *agent_protocol, int32_t *forwarding_chain,
                           uint64_t connection);

// Whether the calling thread and the message-processing thread keep to one
// processor core: the calling thread at once, the message thread from its
// next request on. A transport that submits many short requests back to back
// from one thread asks for it while clients queue up: each hand-over then
// passes the core to the other thread instead of waiting for the other
// thread's core, which the clients are using. Off again, both run anywhere.
void message_processor_share_core(bool share);

// The two halves of submit_client_request, for a transport that serves many
// clients from one thread: between them the message thread works on the
// request while the submitter reads and writes other clients. The submitter
// holds the hand-over until it finishes, so it finishes each request it
// began, before beginning the next; finishing frees the request.
struct PendingRequest;
PendingRequest *begin_client_request(const uint8_t *data, uint32_t count, int32_t agent_protocol,
                                     int32_t forwarding_chain, uint64_t connection);
bool finish_client_request(PendingRequest *request, uint8_t *reply, uint32_t reply_capacity, uint32_t *reply_length,
                           int32_t *agent_protocol, int32_t *forwarding_chain);

// The line of a submitter that finds another request in the hand-over; for
// transports that queue their clients' requests themselves and submit them
// one after another.
void log_hand_over_busy();

// Runs `task` on the message-processing thread, which owns the agent's
// state (identity tables, lock flag, passphrase, settings, key store, notice
// lists), through the same hand-over as a request, and waits for it. Before
// the thread starts, after it stops, and on the thread itself, the task runs
// at once on the caller's thread. A fatal error inside the task leads to the
// fatal shutdown on the caller's thread.
void run_on_message_thread(const std::function<void()> &task);

// The same for a task with a result.
template <typename Result, typename Task>
Result on_message_thread(Task task)
{
    Result result{};
    run_on_message_thread([&] { result = task(); });
    return result;
}
