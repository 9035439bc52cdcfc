// `tagent watch` on Windows: the agent posts its change notices to windows
// registered for them, so a message-only window of ours is registered and
// each notice is printed; the lock state is asked after each one.
#include <windows.h>

#include <cstdio>

#include "agent/protocol.h"
#include "app/tagent/tagent_args.h"
#include "app/tagent/tagent_commands.h"
#include "app/tagent/tagent_shell.h"
#include "app/win32/agent_client_access.h"
#include "app/win32/agent_window.h"

namespace {

constexpr uint32_t NOTICE_COMMAND = 0x7A11;  // posted as WM_COMMAND's wparam

// Owns the message-only window that receives the notices.
class NoticeWindow {
public:
    NoticeWindow()
        : window_(CreateWindowExW(0, L"STATIC", L"", 0, 0, 0, 0, 0, HWND_MESSAGE, nullptr, nullptr, nullptr))
    {
    }
    ~NoticeWindow()
    {
        if (window_)
            DestroyWindow(window_);
    }
    NoticeWindow(const NoticeWindow &) = delete;
    NoticeWindow &operator=(const NoticeWindow &) = delete;
    HWND get() const { return window_; }

private:
    HWND window_;
};

// The is-locked reply's number, or 0 when the agent did not answer.
uint8_t lock_state(HANDLE pipe)
{
    Buffer body, reply;
    buffer_put_char(&body, SSH_AGENT_ZEM_ISLOCKED);
    if (!agent_pipe_call(pipe, body, &reply) || buffer_len(&reply) == 0)
        return 0;
    return buffer_get_char(&reply);
}

void print_line(const char *line)
{
    printf("%s\n", line);
    fflush(stdout);  // a reader waits for each line; the runtime has no line buffering
}

}  // namespace

int tagent_watch(const std::string &agent_name)
{
    HWND agent = find_agent_window();
    DWORD agent_process_id = 0;
    if (agent)
        GetWindowThreadProcessId(agent, &agent_process_id);
    WinHandle agent_process(agent_process_id ? OpenProcess(SYNCHRONIZE, FALSE, agent_process_id) : nullptr);
    WinHandle pipe = agent_process ? agent_pipe_open(agent) : WinHandle();
    NoticeWindow notices;
    if (!pipe || !notices.get())
        return tagent_unreachable(agent_name);

    // The reply to a registration is the window handle alone.
    Buffer registration, registered;
    buffer_put_char(&registration, SSH_AGENT_ZEM_REGISTERREFRESH);
    buffer_put_int64(&registration, reinterpret_cast<uintptr_t>(notices.get()));
    buffer_put_int(&registration, NOTICE_COMMAND);
    if (!agent_pipe_call(pipe.get(), registration, &registered) || buffer_len(&registered) != 8)
        return tagent_unreachable(agent_name);
    uint8_t state = lock_state(pipe.get());

    // Notices arrive as posted messages; the agent's end is its process's.
    HANDLE waits[] = {agent_process.get()};
    for (;;) {
        DWORD woken = MsgWaitForMultipleObjects(1, waits, FALSE, INFINITE, QS_ALLINPUT);
        if (woken != WAIT_OBJECT_0 + 1)
            return TAGENT_DONE;
        MSG message;
        while (PeekMessageW(&message, nullptr, 0, 0, PM_REMOVE)) {
            if (message.hwnd != notices.get() || message.message != WM_COMMAND || message.wParam != NOTICE_COMMAND) {
                DispatchMessageW(&message);
                continue;
            }
            print_line("changed");
            uint8_t now = lock_state(pipe.get());
            if (now == 0)
                return TAGENT_DONE;  // the agent is stopping
            if (now != state)
                print_line(now == SSH_AGENT_ZEM_LOCKED ? "locked" : "unlocked");
            state = now;
        }
    }
}
