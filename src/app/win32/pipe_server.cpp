#include "app/win32/pipe_server.h"

#include <atomic>
#include <memory>
#include <system_error>
#include <thread>

#include "app/client_connection.h"
#include "app/win32/pipe_name.h"
#include "app/win32/pipe_stream.h"
#include "app/win32/user_security.h"
#include "log/agent_log.h"
#include "platform/win32/text_conversion.h"
#include "platform/win32/win_handle.h"

namespace {

constexpr DWORD PIPE_BUFFER_SIZE = 131072;
constexpr DWORD START_WAIT_MS = 10000;

// Shared by server start and the listening thread, which may still write the
// identifier after the start gave up waiting.
struct Handshake {
    WinHandle event{CreateEventW(nullptr, FALSE, FALSE, nullptr)};
    std::atomic<uint32_t> identifier{0};
};

// The tick count, but never an identifier handed out before: two requests in
// the same millisecond still get two names.
uint32_t fresh_identifier()
{
    static std::atomic<uint32_t> last{0};
    uint32_t identifier = static_cast<uint32_t>(GetTickCount64());
    uint32_t previous = last.load();
    do {
        if (identifier == 0 || identifier == previous)
            identifier = previous + 1 ? previous + 1 : 1;
    } while (!last.compare_exchange_weak(previous, identifier));
    return identifier;
}

void listen_for_client(std::shared_ptr<Handshake> handshake)
{
    agent_log("Key agent server listening thread started.");
    HANDLE pipe;
    std::string name;
    {
        std::unique_ptr<UserOnlySecurity> security = make_user_only_security();
        uint32_t identifier = fresh_identifier();
        handshake->identifier = identifier;
        name = agent_pipe_name_for_user(identifier);
        agent_log("Creating User named pipe (%s)", name.c_str());
        pipe = CreateNamedPipeW(utf8_to_wide(name).c_str(), PIPE_ACCESS_DUPLEX,
                                PIPE_TYPE_BYTE | PIPE_READMODE_BYTE | PIPE_WAIT, PIPE_UNLIMITED_INSTANCES,
                                PIPE_BUFFER_SIZE, PIPE_BUFFER_SIZE, 0, &security->attributes);
    }
    if (pipe == INVALID_HANDLE_VALUE) {
        agent_log("Create Named Pipe error");
        return;
    }
    agent_log("User named pipe (%s) created.", name.c_str());
    SetEvent(handshake->event.get());
    handshake.reset();

    if (!ConnectNamedPipe(pipe, nullptr) && GetLastError() != ERROR_PIPE_CONNECTED) {
        agent_log("Unable to connect to user named pipe (%s).", name.c_str());
        CloseHandle(pipe);
        return;
    }
    agent_log("Connected to user named pipe (%s) created.", name.c_str());
    // Logs "Connection thread created." or "Error creating connection
    // thread."; the dropped stream closes the pipe.
    start_client_connection(std::make_unique<PipeStream>(pipe), Framing::PIPE_READS);
}

}  // namespace

uint32_t pipe_server_start()
{
    auto handshake = std::make_shared<Handshake>();
    agent_log("Creating key agent server listening thread.");
    uint32_t identifier = 0;
    try {
        std::thread(listen_for_client, handshake).detach();
        if (handshake->event && WaitForSingleObject(handshake->event.get(), START_WAIT_MS) == WAIT_OBJECT_0)
            identifier = handshake->identifier;
    } catch (const std::system_error &) {
    }
    if (identifier)
        agent_log("Created key agent pipe (id = %lu).", static_cast<unsigned long>(identifier));
    else
        agent_log("Key agent pipe creation failed.");
    return identifier;
}
