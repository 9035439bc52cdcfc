// The messages of the agent's hidden window. The Windows shell receives
// them as window messages; the POSIX shell as requests on its control
// socket. Both hand them to agent_window_message, which answers with the
// window procedure's result.
#pragma once

#include <cstdint>
#include <string>


enum AgentWindowMessage : uint32_t {
    WM_CREATE_MESSAGE = 1,
    WM_DESTROY_MESSAGE = 2,
    WM_CLOSE_MESSAGE = 16,
    WM_COPYDATA_MESSAGE = 74,
    WM_COMMAND_MESSAGE = 273,
    WM_TRAY_NOTIFICATION = 1025,
    WM_RESET_AGENT_DATA = 1026,
    WM_MANAGER_NOTICE = 1028,
    WM_SET_CONFIRM_KEY_OP = 1029,
    WM_SET_ALLOW_ADD = 1030,
    WM_SET_ALLOW_DELETE = 1031,
    WM_REDRAW_TRAY_ICON = 1032,
    WM_SET_USE_ONLY_SHA1 = 1033,
    WM_CREATE_PIPE = 1034,
    WM_QUERY_READY = 1035,
    WM_SET_CREATE_LOG = 1036,
    // Not a Windows message: the control socket's question how many stored
    // records could not be read (tagent status).
    WM_QUERY_UNREADABLE_RECORDS = 0x8001,
};

// Copy-data identifier of the change-passphrase record: the old passphrase
// at byte 0, the new one at byte 256 (both zero-terminated), and at byte 512
// a 32-bit flag marking the new passphrase as empty.
constexpr uint64_t COPYDATA_CHANGE_PASSPHRASE = 1027;
constexpr size_t CHANGE_PASSPHRASE_RECORD_SIZE = 516;

enum TrayMenuCommand : uint32_t {
    MENU_OPEN_MANAGER = 40001,
    MENU_LOCK = 40002,
    MENU_UNLOCK = 40003,
    MENU_HELP = 40004,
    MENU_EXIT = 40005,
};

// The ready flag: 1 from "Key Agent started" until the loop ends.
void agent_ready_set(bool ready);
bool agent_ready();

// Handles one message on the shell's thread; `data` is the copy-data record
// for message 74. The work on the agent's state is carried out on the
// message-processing thread; dialogs stay on the caller's thread. The shell's
// side (post quit, redraw, dialogs) comes from its services record.
int64_t agent_window_message(uint32_t message, uint64_t wparam, uint64_t lparam, const std::string &data);
