#include "app/window_messages.h"

#include <atomic>

#include "agent/handlers.h"
#include "log/agent_log.h"

namespace {

WindowShell &shell_state()
{
    static WindowShell shell;
    return shell;
}

std::atomic<bool> ready{false};

void post_quit()
{
    if (shell_state().post_quit)
        shell_state().post_quit();
}

void redraw_tray()
{
    if (shell_state().redraw_tray)
        shell_state().redraw_tray();
}

int64_t menu_command(uint32_t command)
{
    switch (command) {
    case MENU_EXIT: post_quit(); return 0;
    default: return 0;
    }
}

}  // namespace

void window_shell_set(const WindowShell &shell) { shell_state() = shell; }
const WindowShell &window_shell() { return shell_state(); }

void agent_ready_set(bool value) { ready = value; }
bool agent_ready() { return ready; }

int64_t agent_window_message(uint32_t message, uint64_t wparam, uint64_t, const std::string &)
{
    switch (message) {
    case WM_CREATE_MESSAGE: return 0;
    case WM_DESTROY_MESSAGE:
    case WM_CLOSE_MESSAGE: post_quit(); return 1;
    case WM_COMMAND_MESSAGE: return menu_command(static_cast<uint32_t>(wparam & 0xffff));
    case WM_REDRAW_TRAY_ICON: redraw_tray(); return 0;
    case WM_QUERY_READY:
        agent_log("Key agent %s ready to create pipe connections.", agent_ready() ? "is" : "is NOT");
        return agent_ready() ? 1 : 0;
    default: return 0;
    }
}
