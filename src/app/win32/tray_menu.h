// The tray icon's right-click menu, built anew each time from the lock
// state: open the manager (the default item), lock, unlock, help, exit.
#pragma once

#include <windows.h>

#include <cstdint>
#include <vector>

struct TrayMenuItem {
    uint32_t command;  // 40001..40005
    int text;          // program text number
    bool is_default;
    bool enabled;
};

// The items in menu order for the given lock state.
std::vector<TrayMenuItem> tray_menu_items(bool locked);

// A popup menu of those items; the caller destroys it.
HMENU tray_menu_build(bool locked);

// Shows the menu at the cursor, owned by `owner` (the hidden window), which
// receives the chosen command.
void tray_menu_show(HWND owner, bool locked);
