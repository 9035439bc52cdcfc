// The one thread on which every agent request, and all crypto and
// certificate work, runs. Connection threads hand requests to it one at a
// time and wait for the reply.
#pragma once

#include <cstdint>

void message_processor_start();
void message_processor_stop();

// Turns the bytes of one client read into a request, has it processed and
// copies the framed reply (at most `reply_capacity` bytes) into `reply`,
// storing its length (0: nothing to send). `agent_protocol` and
// `forwarding_chain` may be null; they carry the connection's saved values
// in and out.
void submit_client_request(const uint8_t *data, uint32_t count, uint8_t *reply, uint32_t reply_capacity,
                           uint32_t *reply_length, int32_t *agent_protocol, int32_t *forwarding_chain,
                           uint64_t connection);

// What the shell does when a fatal error is caught on a submitting thread.
using FatalShutdownHandler = void (*)();
void set_fatal_shutdown_handler(FatalShutdownHandler handler);
void run_fatal_shutdown();
