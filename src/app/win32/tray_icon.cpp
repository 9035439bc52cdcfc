#include "app/win32/tray_icon.h"

#include <shellapi.h>

#include <string>

#include "agent/handlers.h"
#include "app/program_texts.h"
#include "app/win32/help.h"
#include "app/win32/resource_texts.h"
#include "app/win32/tray_menu.h"
#include "app/win32/windows_services.h"
#include "app/window_messages.h"
#include "platform/platform.h"
#include "platform/win32/text_conversion.h"

namespace {

constexpr UINT_PTR CLICK_TIMER_ID = 1;

HWND owner_window = nullptr;
UINT_PTR click_timer = 0;

NOTIFYICONDATAW icon_record(UINT flags)
{
    NOTIFYICONDATAW record = {};
    record.cbSize = sizeof record;
    record.hWnd = owner_window;
    record.uID = TRAY_ICON_ID;
    record.uFlags = flags;
    return record;
}

// The picture for the lock state; the caller destroys it once the shell has
// made its copy.
HICON lock_state_icon()
{
    HMODULE library = resource_library();
    if (!library)
        return nullptr;
    int id = agent_is_locked() ? ICON_LOCKED : ICON_UNLOCKED;
    return static_cast<HICON>(LoadImageW(library, MAKEINTRESOURCEW(id), IMAGE_ICON, 16, 16, 0));
}

void notify_with_icon(DWORD action, NOTIFYICONDATAW *record)
{
    record->hIcon = lock_state_icon();
    Shell_NotifyIconW(action, record);  // failures are ignored: no tray, no icon
    if (record->hIcon)
        DestroyIcon(record->hIcon);
}

// A single click closes the manager once it is clear that no second click
// follows.
void CALLBACK click_timer_expired(HWND window, UINT, UINT_PTR, DWORD)
{
    KillTimer(window, CLICK_TIMER_ID);
    click_timer = 0;
    close_manager_window();
}

void stop_click_timer()
{
    if (click_timer)
        KillTimer(owner_window, CLICK_TIMER_ID);
    click_timer = 0;
}

}  // namespace

void tray_icon_attach(HWND window) { owner_window = window; }

void tray_icon_add()
{
    NOTIFYICONDATAW record = icon_record(NIF_MESSAGE | NIF_ICON | NIF_TIP);
    record.uCallbackMessage = WM_TRAY_NOTIFICATION;
    std::wstring tip = resource_text(TEXT_APPLICATION_TITLE);
    lstrcpynW(record.szTip, tip.c_str(), ARRAYSIZE(record.szTip));
    notify_with_icon(NIM_ADD, &record);
}

void tray_icon_redraw()
{
    NOTIFYICONDATAW record = icon_record(NIF_ICON);
    notify_with_icon(NIM_MODIFY, &record);
}

void tray_icon_remove()
{
    if (!owner_window)
        return;
    stop_click_timer();
    NOTIFYICONDATAW record = icon_record(0);
    Shell_NotifyIconW(NIM_DELETE, &record);
}

void tray_icon_notification(uint32_t mouse_message)
{
    switch (mouse_message) {
    case WM_LBUTTONDOWN:
        if (!click_timer)
            click_timer = SetTimer(owner_window, CLICK_TIMER_ID, GetDoubleClickTime(), click_timer_expired);
        break;
    case WM_LBUTTONDBLCLK:
        stop_click_timer();
        start_manager_program();
        break;
    case WM_RBUTTONDOWN: tray_menu_show(owner_window, agent_is_locked()); break;
    default: break;
    }
}

bool tray_menu_command(uint32_t command)
{
    switch (command) {
    case MENU_OPEN_MANAGER: start_manager_program(); return true;
    case MENU_HELP: open_help_topic(HELP_TOPIC_MANAGER); return true;
    case MENU_EXIT: close_manager_window(); return false;  // the quit follows
    default: return false;
    }
}

void start_manager_program()
{
    std::wstring program = utf8_to_wide(platform_executable_dir()) + MANAGER_PROGRAM;
    std::wstring line;  // no command line at all
    STARTUPINFOW startup = {};
    startup.cb = sizeof startup;
    startup.dwFlags = STARTF_USESHOWWINDOW;
    startup.wShowWindow = SW_SHOWNORMAL;
    PROCESS_INFORMATION process = {};
    if (CreateProcessW(program.c_str(), line.data(), nullptr, nullptr, FALSE, NORMAL_PRIORITY_CLASS, nullptr,
                       nullptr, &startup, &process)) {
        CloseHandle(process.hThread);
        CloseHandle(process.hProcess);
    }
}
