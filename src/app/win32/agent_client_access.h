// The client side of the Windows agent: find (or start) the agent, wait
// until it is ready, ask it for a pipe, and exchange framed requests on it.
#pragma once

#include <windows.h>

#include <cstdint>
#include <string>

#include "keys/buffer.h"
#include "platform/win32/win_handle.h"

struct AgentClientLimits {
    DWORD ready_wait_ms = 30000;  // for the agent's window and its 1035 answer
    int open_attempts = 50;       // pipe missing or busy
    DWORD open_retry_ms = 100;
    bool start_agent = true;  // start tkeyagent.exe when none runs
};

// The running agent's window once it answers ready. When none runs,
// tkeyagent.exe is started from `program_folder` with `caller` (the caller's
// window handle, or 0) as its command line, unless the limits say not to. Null when no agent became ready
// in time.
HWND agent_window_when_ready(const std::string &program_folder, HWND caller, const AgentClientLimits &limits = {});

// Asks the agent for a pipe (message 1034) and opens it for reading and
// writing, unshared; `identifier` receives the pipe's number. Empty on
// failure.
WinHandle agent_pipe_open(HWND agent_window, const AgentClientLimits &limits = {}, uint32_t *identifier = nullptr);

// Sends `body` (message number and arguments) with its length prefix and
// reads one framed reply's body into `reply`. False on I/O failure.
bool agent_pipe_call(HANDLE pipe, const Buffer &body, Buffer *reply);

// The same, and true only when the reply's message number is `expected`.
bool agent_pipe_request(HANDLE pipe, const Buffer &body, uint8_t expected, Buffer *reply);
