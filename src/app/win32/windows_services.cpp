#include "app/win32/windows_services.h"

#include <atomic>
#include <string>

#include "app/program_texts.h"
#include "app/win32/dialogs.h"
#include "app/win32/resource_texts.h"
#include "app/window_messages.h"

namespace {

std::atomic<DWORD> main_thread_id{0};
std::atomic<HWND> agent_window{nullptr};

// May be called from any thread: the quit goes to the main thread's queue.
void post_quit() { PostThreadMessageW(main_thread_id, WM_QUIT, 0, 0); }

void redraw_tray() { PostMessageW(agent_window, WM_REDRAW_TRAY_ICON, 0, 0); }

void fatal_shutdown()
{
    show_error_text(TEXT_FATAL_ERROR);
    post_quit();
}

// The manager window is a dialog whose title is the application title.
HWND manager_window() { return FindWindowW(L"#32770", resource_text(TEXT_APPLICATION_TITLE).c_str()); }

void notify_manager()
{
    if (HWND manager = manager_window())
        PostMessageW(manager, WM_MANAGER_NOTICE, 0, 0);
}

HWND as_window(uint64_t window) { return reinterpret_cast<HWND>(static_cast<uintptr_t>(window)); }

bool window_exists(uint64_t window) { return IsWindow(as_window(window)); }

void post_command(uint64_t window, uint32_t command) { PostMessageW(as_window(window), WM_COMMAND, command, 0); }

}  // namespace

void windows_services_attach(DWORD main_thread, HWND window)
{
    main_thread_id = main_thread;
    agent_window = window;
}

void close_manager_window()
{
    if (HWND manager = manager_window())
        PostMessageW(manager, WM_CLOSE, 0, 0);
}

void show_error_text(int text_id)
{
    MessageBoxW(nullptr, resource_text(text_id).c_str(), resource_text(TEXT_APPLICATION_TITLE).c_str(),
                MB_OK | MB_ICONERROR | MB_TOPMOST);
}

ShellServices windows_shell_services()
{
    ShellServices services;
    services.post_quit = post_quit;
    services.redraw_tray = redraw_tray;
    services.ask_unlock_passphrase = ask_unlock_passphrase;
    services.ask_key_passphrase = ask_key_passphrase;
    services.confirm_key_operation = confirm_key_operation;
    services.show_error = show_error_text;
    services.notify_manager = notify_manager;
    services.window_exists = window_exists;
    services.post_command = post_command;
    services.fatal_shutdown = fatal_shutdown;
    return services;
}
