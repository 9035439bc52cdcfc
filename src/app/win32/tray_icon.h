// The notification-area icon: locked or unlocked picture, a double click
// opens the manager, a single click closes it, a right click shows the menu.
// Everything here runs on the hidden window's thread.
#pragma once

#include <windows.h>

#include <cstdint>

constexpr UINT TRAY_ICON_ID = 15000;
constexpr int ICON_UNLOCKED = 234;
constexpr int ICON_LOCKED = 235;
constexpr wchar_t MANAGER_PROGRAM[] = L"tagent.exe";

// The hidden window that owns the icon and receives its notices.
void tray_icon_attach(HWND window);

void tray_icon_add();
// Sets the picture from the lock flag.
void tray_icon_redraw();
void tray_icon_remove();

// The icon's notice (message 1025) with its mouse message.
void tray_icon_notification(uint32_t mouse_message);

// The menu commands only the Windows shell carries out: open the manager,
// help, and closing the manager before exit. True when `command` was one of
// those and needs nothing more.
bool tray_menu_command(uint32_t command);

// Starts tagent.exe from the agent's folder without arguments; failures
// are ignored.
void start_manager_program();
