#include "app/win32/agent_client_access.h"

#include <vector>

#include "agent/protocol.h"
#include "app/win32/agent_window.h"
#include "app/win32/pipe_name.h"
#include "app/window_messages.h"
#include "keys/secure_memory.h"
#include "platform/win32/text_conversion.h"

namespace {

constexpr DWORD POLL_MS = 50;

bool launch_agent(const std::string &program_folder, HWND caller)
{
    std::wstring program = utf8_to_wide(program_folder + "tkeyagent.exe");
    std::wstring line = std::to_wstring(reinterpret_cast<uintptr_t>(caller));
    STARTUPINFOW startup = {};
    startup.cb = sizeof startup;
    PROCESS_INFORMATION process = {};
    if (!CreateProcessW(program.c_str(), line.data(), nullptr, nullptr, FALSE, 0, nullptr, nullptr, &startup,
                        &process))
        return false;
    CloseHandle(process.hThread);
    CloseHandle(process.hProcess);
    return true;
}

bool answers_ready(HWND window)
{
    DWORD_PTR ready = 0;
    return SendMessageTimeoutW(window, WM_QUERY_READY, 0, 0, SMTO_ABORTIFHUNG, 5000, &ready) && ready == 1;
}

bool read_exact(HANDLE pipe, uint8_t *data, size_t size)
{
    while (size > 0) {
        DWORD got = 0;
        if (!ReadFile(pipe, data, static_cast<DWORD>(size), &got, nullptr) || got == 0)
            return false;
        data += got;
        size -= got;
    }
    return true;
}

}  // namespace

HWND agent_window_when_ready(const std::string &program_folder, HWND caller, const AgentClientLimits &limits)
{
    if (!find_agent_window() && (!limits.start_agent || !launch_agent(program_folder, caller)))
        return nullptr;
    ULONGLONG deadline = GetTickCount64() + limits.ready_wait_ms;
    do {
        HWND window = find_agent_window();
        if (window && answers_ready(window))
            return window;
        Sleep(POLL_MS);
    } while (GetTickCount64() < deadline);
    return nullptr;
}

WinHandle agent_pipe_open(HWND agent_window, const AgentClientLimits &limits, uint32_t *identifier)
{
    DWORD_PTR id = 0;
    // The agent waits up to 10000 ms for its pipe before it answers.
    if (!SendMessageTimeoutW(agent_window, WM_CREATE_PIPE, 0, 0, SMTO_ABORTIFHUNG, 15000, &id) || id == 0)
        return WinHandle();
    if (identifier)
        *identifier = static_cast<uint32_t>(id);
    std::wstring name = utf8_to_wide(agent_pipe_name_for_user(static_cast<uint32_t>(id)));
    for (int attempt = 0; attempt < limits.open_attempts; ++attempt) {
        HANDLE pipe = CreateFileW(name.c_str(), GENERIC_READ | GENERIC_WRITE, 0, nullptr, OPEN_EXISTING, 0, nullptr);
        if (pipe != INVALID_HANDLE_VALUE)
            return WinHandle(pipe);
        DWORD error = GetLastError();
        if (error == ERROR_PIPE_BUSY)
            WaitNamedPipeW(name.c_str(), limits.open_retry_ms);
        else if (error == ERROR_FILE_NOT_FOUND)
            Sleep(limits.open_retry_ms);
        else
            break;
    }
    return WinHandle();
}

bool agent_pipe_call(HANDLE pipe, const Buffer &body, Buffer *reply)
{
    Buffer framed;
    buffer_put_buffer_string(&framed, &body);
    DWORD written = 0;
    bool sent = WriteFile(pipe, buffer_ptr(&framed), buffer_len(&framed), &written, nullptr) &&
                written == buffer_len(&framed);
    buffer_clear_wipe(&framed);
    uint8_t header[4];
    if (!sent || !read_exact(pipe, header, sizeof header))
        return false;
    uint32_t length = get_u32(header);
    if (length > AGENT_MAX_REPLY)
        return false;
    std::vector<uint8_t> bytes(length);
    bool got = read_exact(pipe, bytes.data(), length);
    buffer_clear(reply);
    if (got)
        buffer_append(reply, bytes.data(), length);
    wipe_memory(bytes.data(), bytes.size());
    return got;
}

bool agent_pipe_request(HANDLE pipe, const Buffer &body, uint8_t expected, Buffer *reply)
{
    return agent_pipe_call(pipe, body, reply) && buffer_len(reply) > 0 && buffer_ptr(reply)[0] == expected;
}
