// Opens the tray's menu and the manager window of a running agent as the
// mouse would, for tests and screenshots.
#pragma once

#include <windows.h>

#include "app/program_texts.h"
#include "app/win32/resource_texts.h"
#include "app/win32/tray_icon.h"
#include "app/window_messages.h"
#include "win32/dialog_driver.h"

// A right click on the icon: the menu opens at the cursor. The visible menu
// window, or null after 10 s; Escape (WM_KEYDOWN posted to it) closes it.
inline HWND open_tray_menu(HWND agent)
{
    PostMessageW(agent, WM_TRAY_NOTIFICATION, TRAY_ICON_ID, WM_RBUTTONDOWN);
    for (int attempt = 0; attempt < 200; ++attempt) {
        HWND popup = FindWindowW(L"#32768", nullptr);
        if (popup && IsWindowVisible(popup))
            return popup;
        Sleep(50);
    }
    return nullptr;
}

// The menu's first command starts tagent.exe: its window, or null after 10 s.
inline HWND open_manager(HWND agent)
{
    PostMessageW(agent, WM_COMMAND, MENU_OPEN_MANAGER, 0);
    return wait_for_dialog(resource_text(TEXT_APPLICATION_TITLE));
}
