#include "app/win32/tray_menu.h"

#include <string>

#include "app/program_texts.h"
#include "app/win32/resource_texts.h"
#include "app/window_messages.h"

std::vector<TrayMenuItem> tray_menu_items(bool locked)
{
    return {
        {MENU_OPEN_MANAGER, TEXT_MENU_MANAGER, true, true},
        {MENU_LOCK, TEXT_MENU_LOCK, false, !locked},
        {MENU_UNLOCK, TEXT_MENU_UNLOCK, false, locked},
        {MENU_HELP, TEXT_MENU_HELP, false, true},
        {MENU_EXIT, TEXT_MENU_EXIT, false, true},
    };
}

HMENU tray_menu_build(bool locked)
{
    HMENU menu = CreatePopupMenu();
    if (!menu)
        return nullptr;
    UINT position = 0;
    for (const TrayMenuItem &item : tray_menu_items(locked)) {
        std::wstring text = resource_text(item.text);
        UINT flags = MF_STRING | (item.enabled ? MF_ENABLED : MF_GRAYED);
        InsertMenuW(menu, position++, MF_BYPOSITION | flags, item.command, text.c_str());
        if (item.is_default)
            SetMenuDefaultItem(menu, item.command, FALSE);
    }
    return menu;
}

void tray_menu_show(HWND owner, bool locked)
{
    HMENU menu = tray_menu_build(locked);
    if (!menu)
        return;
    POINT cursor = {};
    GetCursorPos(&cursor);
    // Without the foreground the menu would stay open after a click
    // elsewhere; the null message lets it close properly.
    SetForegroundWindow(owner);
    TrackPopupMenu(menu, TPM_RIGHTBUTTON, cursor.x, cursor.y, 0, owner, nullptr);
    PostMessageW(owner, WM_NULL, 0, 0);
    DestroyMenu(menu);
}
