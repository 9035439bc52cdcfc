#include "app/win32/openssh_pipe.h"

#include <windows.h>

#include <atomic>
#include <memory>
#include <system_error>
#include <thread>

#include "app/client_connection.h"
#include "app/win32/pipe_stream.h"
#include "app/win32/user_security.h"
#include "log/agent_log.h"
#include "platform/win32/win_handle.h"

namespace {

constexpr DWORD PIPE_BUFFER_SIZE = 131072;
constexpr DWORD STOP_WAIT_MS = 3000;
// Instances waiting for a client at any time, each on a thread of its own, so
// that clients arriving together seldom find the pipe busy.
constexpr int LISTENING_THREADS = 2;

struct Listener {
    std::atomic<bool> stopping{false};
    std::atomic<int> running{0};
    WinHandle ended{CreateEventW(nullptr, TRUE, FALSE, nullptr)};
};

// Never destroyed while its thread may run: a listener that outlives the stop
// wait keeps it until the process ends.
Listener *listener = nullptr;

// One instance of the pipe. The first is made with FILE_FLAG_FIRST_PIPE_INSTANCE
// so that a name another program owns is refused rather than shared.
HANDLE create_instance(bool first)
{
    std::unique_ptr<UserOnlySecurity> security = make_user_only_security();
    DWORD open_mode = PIPE_ACCESS_DUPLEX | (first ? FILE_FLAG_FIRST_PIPE_INSTANCE : 0);
    return CreateNamedPipeW(OPENSSH_AGENT_PIPE, open_mode,
                            PIPE_TYPE_BYTE | PIPE_READMODE_BYTE | PIPE_WAIT | PIPE_REJECT_REMOTE_CLIENTS,
                            PIPE_UNLIMITED_INSTANCES, PIPE_BUFFER_SIZE, PIPE_BUFFER_SIZE, 0, &security->attributes);
}

void listen(Listener *state, HANDLE first)
{
    HANDLE pipe = first;
    while (!state->stopping) {
        if (pipe == INVALID_HANDLE_VALUE) {
            pipe = create_instance(false);
            if (pipe == INVALID_HANDLE_VALUE) {
                agent_log("OpenSSH agent pipe: no further instance could be created (error %lu)",
                          static_cast<unsigned long>(GetLastError()));
                break;
            }
        }
        bool connected = ConnectNamedPipe(pipe, nullptr) || GetLastError() == ERROR_PIPE_CONNECTED;
        if (state->stopping || !connected) {
            DisconnectNamedPipe(pipe);
            CloseHandle(pipe);
        } else {
            agent_log("Connected to the OpenSSH agent pipe.");
            // Logs "Connection thread created." or the refusal; a refused
            // stream closes the pipe.
            start_client_connection(std::make_unique<PipeStream>(pipe), Framing::EXACT_LENGTH);
        }
        pipe = INVALID_HANDLE_VALUE;
    }
    if (pipe != INVALID_HANDLE_VALUE)
        CloseHandle(pipe);
    if (--state->running == 0)
        SetEvent(state->ended.get());
}

// True when some program has instances of the pipe already, whether or not
// one of them is free.
bool name_taken()
{
    return WaitNamedPipeW(OPENSSH_AGENT_PIPE, 1) || GetLastError() != ERROR_FILE_NOT_FOUND;
}

}  // namespace

void openssh_pipe_start()
{
    if (listener)
        return;
    // Windows refuses a first instance of a name that exists; Wine does not,
    // so the name is looked for first as well.
    bool taken = name_taken();
    HANDLE first = taken ? INVALID_HANDLE_VALUE : create_instance(true);
    if (first == INVALID_HANDLE_VALUE) {
        DWORD error = GetLastError();
        if (taken || error == ERROR_ACCESS_DENIED || error == ERROR_PIPE_BUSY)
            agent_log("The OpenSSH agent pipe is in use by another program (another agent?); "
                      "running without it.");
        else
            agent_log("The OpenSSH agent pipe could not be created (error %lu); running without it.",
                      static_cast<unsigned long>(error));
        return;
    }
    auto state = std::make_unique<Listener>();
    state->running = LISTENING_THREADS;
    for (int i = 0; i < LISTENING_THREADS; ++i) {
        HANDLE instance = i == 0 ? first : INVALID_HANDLE_VALUE;
        try {
            std::thread(listen, state.get(), instance).detach();
        } catch (const std::system_error &) {
            if (instance != INVALID_HANDLE_VALUE)
                CloseHandle(instance);
            if (--state->running == 0) {
                agent_log("The OpenSSH agent pipe: no listening thread; running without it.");
                return;
            }
        }
    }
    listener = state.release();
    agent_log("Listening on the OpenSSH agent pipe.");
}

void openssh_pipe_stop()
{
    if (!listener)
        return;
    listener->stopping = true;
    // Each listening thread waits for a client: one that connects and leaves
    // at once wakes it.
    for (int i = 0; i < LISTENING_THREADS; ++i) {
        WinHandle wake(CreateFileW(OPENSSH_AGENT_PIPE, GENERIC_READ | GENERIC_WRITE, 0, nullptr, OPEN_EXISTING, 0,
                                   nullptr));
        if (!wake && GetLastError() == ERROR_PIPE_BUSY && WaitNamedPipeW(OPENSSH_AGENT_PIPE, 200))
            wake = WinHandle(CreateFileW(OPENSSH_AGENT_PIPE, GENERIC_READ | GENERIC_WRITE, 0, nullptr,
                                         OPEN_EXISTING, 0, nullptr));
    }
    if (WaitForSingleObject(listener->ended.get(), STOP_WAIT_MS) == WAIT_OBJECT_0)
        delete listener;
    listener = nullptr;
    agent_log("Stopped listening on the OpenSSH agent pipe.");
}
