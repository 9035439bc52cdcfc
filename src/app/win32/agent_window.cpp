#include "app/win32/agent_window.h"

#include <string>

#include "app/window_messages.h"
#include "app/win32/pipe_server.h"
#include "app/win32/tray_icon.h"
#include "keys/secure_memory.h"

namespace {

// The copy-data record carries passphrases: it is wiped once handled.
LRESULT copy_data(const COPYDATASTRUCT *record)
{
    std::string data(static_cast<const char *>(record->lpData), record->lpData ? record->cbData : 0);
    LRESULT result = agent_window_message(WM_COPYDATA, record->dwData, 0, data);
    wipe_memory(data.data(), data.size());
    return result;
}

LRESULT CALLBACK agent_window_procedure(HWND window, UINT message, WPARAM wparam, LPARAM lparam)
{
    switch (message) {
    case WM_COPYDATA: return copy_data(reinterpret_cast<const COPYDATASTRUCT *>(lparam));
    case WM_CREATE_PIPE: return pipe_server_start();
    // Posted by the core from any thread; the tray is redrawn here, on the
    // window's thread.
    case WM_REDRAW_TRAY_ICON: tray_icon_redraw(); return 0;
    case WM_TRAY_NOTIFICATION: tray_icon_notification(static_cast<uint32_t>(lparam)); return 0;
    case WM_COMMAND:
        if (tray_menu_command(LOWORD(wparam)))
            return 0;
        return static_cast<LRESULT>(agent_window_message(message, wparam, static_cast<uint64_t>(lparam), {}));
    case WM_CLOSE:
        agent_window_message(message, wparam, static_cast<uint64_t>(lparam), {});
        DestroyWindow(window);
        return 1;
    case WM_DESTROY:
        tray_icon_remove();
        return agent_window_message(message, wparam, static_cast<uint64_t>(lparam), {});
    case WM_CREATE:
    case WM_RESET_AGENT_DATA:
    case WM_SET_CONFIRM_KEY_OP:
    case WM_SET_ALLOW_ADD:
    case WM_SET_ALLOW_DELETE:
    case WM_SET_USE_ONLY_SHA1:
    case WM_QUERY_READY:
    case WM_SET_CREATE_LOG:
    case WM_QUERY_UNREADABLE_RECORDS:
        return static_cast<LRESULT>(agent_window_message(message, wparam, static_cast<uint64_t>(lparam), {}));
    default: return DefWindowProcW(window, message, wparam, lparam);
    }
}

}  // namespace

HWND find_agent_window()
{
    HWND window = FindWindowW(AGENT_WINDOW_CLASS, nullptr);
    return window && IsWindow(window) ? window : nullptr;
}

bool register_agent_window_class(HINSTANCE instance)
{
    WNDCLASSEXW window_class = {};
    window_class.cbSize = sizeof window_class;
    window_class.lpfnWndProc = agent_window_procedure;
    window_class.hInstance = instance;
    window_class.lpszClassName = AGENT_WINDOW_CLASS;
    return RegisterClassExW(&window_class) != 0;
}

HWND create_agent_window(HINSTANCE instance)
{
    HWND window = CreateWindowExW(0, AGENT_WINDOW_CLASS, AGENT_WINDOW_TITLE, 0, 0, 0, 0, 0, nullptr, nullptr,
                                  instance, nullptr);
    return window && IsWindow(window) ? window : nullptr;
}
