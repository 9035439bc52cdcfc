// What the Windows shell does for the core: quit and redraw through the
// hidden window's thread, message boxes, the dialogs, the manager window.
#pragma once

#include <windows.h>

#include "agent/shell_services.h"

// The main thread (the window's) and the hidden window, set before the
// services are used.
void windows_services_attach(DWORD main_thread, HWND window);

ShellServices windows_shell_services();

// Asks the manager window, when it is open, to close.
void close_manager_window();

// A message box with text `text_id`, caption string 101, error icon, topmost.
void show_error_text(int text_id);
