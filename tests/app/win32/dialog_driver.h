// Drives the agent's dialogs as a user would, from another thread or
// process: find the dialog, type, tick, press.
#pragma once

#include <windows.h>

#include <string>

// The top-level dialog titled `title`, waiting at most 10 s; null if none.
inline HWND wait_for_dialog(const std::wstring &title)
{
    for (int attempt = 0; attempt < 200; ++attempt) {
        if (HWND dialog = FindWindowW(L"#32770", title.c_str()))
            if (IsWindowVisible(dialog))
                return dialog;
        Sleep(50);
    }
    return nullptr;
}

inline void type_into(HWND dialog, int control, const std::wstring &text)
{
    SendDlgItemMessageW(dialog, control, WM_SETTEXT, 0, reinterpret_cast<LPARAM>(text.c_str()));
}

inline void press(HWND dialog, int control) { SendDlgItemMessageW(dialog, control, BM_CLICK, 0, 0); }

inline std::wstring control_text(HWND dialog, int control)
{
    wchar_t text[1024] = L"";
    GetDlgItemTextW(dialog, control, text, 1024);
    return text;
}

// Every static text of a message box, one after the other.
inline std::wstring static_texts(HWND box)
{
    std::wstring all;
    EnumChildWindows(
        box,
        [](HWND child, LPARAM out) -> BOOL {
            wchar_t name[32] = L"", text[1024] = L"";
            GetClassNameW(child, name, 32);
            if (lstrcmpiW(name, L"Static") == 0 && GetWindowTextW(child, text, 1024) > 0)
                *reinterpret_cast<std::wstring *>(out) += text;
            return TRUE;
        },
        reinterpret_cast<LPARAM>(&all));
    return all;
}
