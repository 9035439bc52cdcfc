// Opens the tray's menu and the manager window of a running agent as the
// mouse would, for tests and screenshots.
#pragma once

#include <windows.h>

#include "app/program_texts.h"
#include "app/win32/resource_texts.h"
#include "app/win32/tray_icon.h"
#include "app/window_messages.h"
#include "win32/dialog_driver.h"

// A right click on the icon opens the menu at the cursor: its window, or
// null. Escape (WM_KEYDOWN posted to it) closes it.
inline HWND open_tray_menu(HWND agent)
{
    PostMessageW(agent, WM_TRAY_NOTIFICATION, TRAY_ICON_ID, WM_RBUTTONDOWN);
    return wait_for_window_where([](HWND) { return true; }, L"#32768");
}

// The menu's first command starts tagent.exe: its window, or null.
inline HWND open_manager(HWND agent)
{
    PostMessageW(agent, WM_COMMAND, MENU_OPEN_MANAGER, 0);
    return wait_for_dialog(resource_text(TEXT_APPLICATION_TITLE));
}
