// Drives the agent's dialogs, its tray menu and the manager as a user
// would, from another thread or process: find the window, type, tick, press.
#pragma once

#include "app/program_texts.h"
#include "app/win32/resource_texts.h"
#include "app/win32/tray_icon.h"
#include "app/window_messages.h"
#include "win32/windows_agent.h"

inline std::wstring window_title(HWND window)
{
    wchar_t title[256] = L"";
    GetWindowTextW(window, title, 256);
    return title;
}

// The visible top-level window of `window_class` that `wanted` picks,
// waiting at most 10 s; null if none.
inline HWND wait_for_window_where(const std::function<bool(HWND)> &wanted, const wchar_t *window_class = L"#32770")
{
    HWND found = nullptr;
    eventually([&] {
        for (HWND w = FindWindowExW(nullptr, nullptr, window_class, nullptr); w && !found;
             w = FindWindowExW(nullptr, w, window_class, nullptr))
            if (IsWindowVisible(w) && wanted(w))
                found = w;
        return found != nullptr;
    }, 10000);
    return found;
}

inline HWND wait_for_dialog(const std::wstring &title)
{
    return wait_for_window_where([&](HWND dialog) { return window_title(dialog) == title; });
}

inline void type_into(HWND dialog, int control, const std::wstring &text)
{
    SendDlgItemMessageW(dialog, control, WM_SETTEXT, 0, reinterpret_cast<LPARAM>(text.c_str()));
}

inline void press(HWND dialog, int control) { SendDlgItemMessageW(dialog, control, BM_CLICK, 0, 0); }

inline std::wstring control_text(HWND dialog, int control) { return window_title(GetDlgItem(dialog, control)); }

// Waits for the dialog titled `title`, fills `fields` and presses `button`.
inline void answer_dialog(const std::wstring &title, std::initializer_list<std::pair<int, const wchar_t *>> fields,
                          int button = IDOK)
{
    HWND dialog = wait_for_dialog(title);
    ASSERT_NE(dialog, nullptr) << "no dialog " << wide_to_utf8(title.c_str(), title.size());
    for (const auto &field : fields)
        type_into(dialog, field.first, field.second);
    press(dialog, button);
}

// Every static text of a message box, one after the other.
inline std::wstring static_texts(HWND box)
{
    std::wstring all;
    for (HWND child = FindWindowExW(box, nullptr, L"Static", nullptr); child;
         child = FindWindowExW(box, child, L"Static", nullptr))
        all += window_title(child);
    return all;
}

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
