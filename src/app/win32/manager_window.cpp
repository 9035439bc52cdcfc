#include "app/win32/manager_window.h"

#include <windows.h>
#include <commdlg.h>

#include <cstdio>

#include <optional>
#include <string>
#include <vector>

#include "app/program_texts.h"
#include "app/tagent/tagent_commands.h"
#include "app/win32/agent_client_access.h"
#include "app/win32/dialogs.h"
#include "app/win32/help.h"
#include "app/win32/manager_actions.h"
#include "app/win32/manager_passphrase.h"
#include "app/win32/manager_settings.h"
#include "app/win32/resource_texts.h"
#include "app/win32/resources/manager_dialog.h"
#include "app/win32/tagent_shell_win32.h"
#include "app/window_messages.h"
#include "platform/platform.h"
#include "platform/win32/text_conversion.h"

namespace {

struct SettingSwitch {
    int control;
    uint32_t message;
    uint32_t AgentSettings::*field;
};

constexpr SettingSwitch SWITCHES[] = {
    {MANAGER_CONFIRM_KEY_OP, WM_SET_CONFIRM_KEY_OP, &AgentSettings::ConfirmKeyOp},
    {MANAGER_ALLOW_ADD, WM_SET_ALLOW_ADD, &AgentSettings::AllowAdd},
    {MANAGER_ALLOW_DELETE, WM_SET_ALLOW_DELETE, &AgentSettings::AllowDelete},
    {MANAGER_USE_ONLY_SHA1, WM_SET_USE_ONLY_SHA1, &AgentSettings::UseOnlySha1},
    {MANAGER_CREATE_LOG, WM_SET_CREATE_LOG, &AgentSettings::CreateLog},
};

// While the controls are filled from the file their change notices are
// not the user's.
bool filling = false;

// The identities as listed, in the list's order.
std::vector<IdentityRow> shown;

void show_failure(HWND window, const ManagerOutcome &outcome)
{
    if (!outcome.done)
        MessageBoxW(window, utf8_to_wide(outcome.message).c_str(), MANAGER_BOX_CAPTION, MB_OK | MB_ICONERROR);
}

bool checked(HWND window, int control) { return IsDlgButtonChecked(window, control) == BST_CHECKED; }

void fill_settings(HWND window)
{
    AgentSettings settings = manager_settings_read();
    filling = true;
    for (const SettingSwitch &entry : SWITCHES)
        CheckDlgButton(window, entry.control, settings.*entry.field ? BST_CHECKED : BST_UNCHECKED);
    CheckDlgButton(window, MANAGER_AUTO_LOCK, settings.AutoLock ? BST_CHECKED : BST_UNCHECKED);
    SetDlgItemInt(window, MANAGER_AUTO_LOCK_MINUTES, static_cast<UINT>(settings.AutoLockMinutes), FALSE);
    filling = false;
}

// The agent rewrites the whole settings file from the block it read at its
// start; the manager's auto-lock values are put back after each of its
// saves.
void keep_auto_lock(HWND window)
{
    BOOL number = FALSE;
    UINT minutes = GetDlgItemInt(window, MANAGER_AUTO_LOCK_MINUTES, &number, FALSE);
    manager_settings_write_auto_lock(checked(window, MANAGER_AUTO_LOCK) ? 1 : 0,
                                     number ? static_cast<int32_t>(minutes) : 0);
}

// While the agent is asked, messages sent to this window are handled, and
// one of them may change what is being asked for: the asking is repeated
// then, and the controls change only afterwards, all at once.
bool refreshing = false;
bool refresh_again = false;

void refresh(HWND window)
{
    if (refreshing) {
        refresh_again = true;
        return;
    }
    refreshing = true;
    std::optional<std::vector<IdentityRow>> rows;
    int state = -1;
    do {
        refresh_again = false;
        rows = manager_identities();
        state = rows ? manager_lock_state() : -1;
    } while (refresh_again);
    refreshing = false;
    HWND list = GetDlgItem(window, MANAGER_IDENTITIES);
    int selected = static_cast<int>(SendMessageW(list, LB_GETCURSEL, 0, 0));
    SendMessageW(list, LB_RESETCONTENT, 0, 0);
    shown = rows ? std::move(*rows) : std::vector<IdentityRow>();
    for (const IdentityRow &row : shown) {
        std::string line = row.name + "\t" + (row.type.empty() ? "(unreadable key)" : row.type) + "\t" +
                           row.fingerprint + "\t" + row.comment;
        SendMessageW(list, LB_ADDSTRING, 0, reinterpret_cast<LPARAM>(utf8_to_wide(line).c_str()));
    }
    if (selected >= 0)
        SendMessageW(list, LB_SETCURSEL, static_cast<WPARAM>(selected), 0);
    const wchar_t *text = state == 1 ? L"The agent is locked."
                          : state == 0 ? L"The agent is unlocked."
                                       : L"The agent is not running.";
    SetDlgItemTextW(window, MANAGER_STATE, text);
    EnableWindow(GetDlgItem(window, MANAGER_LOCK), state == 0);
    EnableWindow(GetDlgItem(window, MANAGER_UNLOCK), state == 1);
    fill_settings(window);
}

void browse(HWND window)
{
    wchar_t file[MAX_PATH] = L"";
    OPENFILENAMEW dialog = {};
    dialog.lStructSize = sizeof dialog;
    dialog.hwndOwner = window;
    dialog.lpstrFilter = L"Private keys\0*.pem;*.key;id_*\0All files\0*.*\0";
    dialog.lpstrFile = file;
    dialog.nMaxFile = MAX_PATH;
    dialog.Flags = OFN_FILEMUSTEXIST | OFN_HIDEREADONLY;
    if (GetOpenFileNameW(&dialog))
        SetDlgItemTextW(window, MANAGER_KEY_FILE, file);
}

void add_key(HWND window)
{
    wchar_t file[MAX_PATH] = L"";
    GetDlgItemTextW(window, MANAGER_KEY_FILE, file, MAX_PATH);
    if (!file[0]) {
        browse(window);
        GetDlgItemTextW(window, MANAGER_KEY_FILE, file, MAX_PATH);
        if (!file[0])
            return;
    }
    ManagerOutcome outcome = manager_add_key(wide_to_utf8(file, wcslen(file)));
    show_failure(window, outcome);
    if (outcome.done)
        SetDlgItemTextW(window, MANAGER_KEY_FILE, L"");
}

void remove_selected(HWND window)
{
    LRESULT index = SendDlgItemMessageW(window, MANAGER_IDENTITIES, LB_GETCURSEL, 0, 0);
    if (index == LB_ERR || static_cast<size_t>(index) >= shown.size()) {
        MessageBoxW(window, L"Select an identity to remove.", MANAGER_BOX_CAPTION, MB_OK | MB_ICONINFORMATION);
        return;
    }
    show_failure(window, manager_remove_identity(shown[static_cast<size_t>(index)]));
}

void unlock(HWND window)
{
    SecretString passphrase;
    if (ask_unlock_passphrase(&passphrase))
        show_failure(window, manager_unlock(passphrase));
}

void change_passphrase(HWND window)
{
    PassphraseChange change;
    if (!ask_passphrase_change(resource_library(), window, &change))
        return;
    ManagerOutcome outcome = manager_change_passphrase(change.old_passphrase, change.new_passphrase, change.empty);
    show_failure(window, outcome);
    if (outcome.done) {
        keep_auto_lock(window);
        MessageBoxW(window, L"The agent passphrase is changed.", MANAGER_BOX_CAPTION, MB_OK | MB_ICONINFORMATION);
    }
}

void reset(HWND window)
{
    int answer = MessageBoxW(window,
                             L"Destroy every key the agent keeps and its passphrase? The agent stops; the "
                             L"next start asks for a new passphrase.",
                             MANAGER_BOX_CAPTION, MB_YESNO | MB_ICONWARNING | MB_DEFBUTTON2);
    if (answer == IDYES)
        show_failure(window, manager_reset());
}

void change_switch(HWND window, const SettingSwitch &entry)
{
    ManagerOutcome outcome = manager_set(entry.message, checked(window, entry.control));
    show_failure(window, outcome);
    if (outcome.done)
        keep_auto_lock(window);
    fill_settings(window);
}

void initialise(HWND window)
{
    SetWindowTextW(window, resource_text(TEXT_APPLICATION_TITLE).c_str());
    if (HMODULE library = resource_library()) {
        auto icon = static_cast<HICON>(LoadImageW(library, MAKEINTRESOURCEW(TEXT_APPLICATION_TITLE), IMAGE_ICON,
                                                  16, 16, 0));
        if (icon)
            SendMessageW(window, WM_SETICON, ICON_SMALL, reinterpret_cast<LPARAM>(icon));
    }
    // Name, type and bits, fingerprint, comment: in dialog units.
    INT tabs[] = {90, 150, 330};
    SendDlgItemMessageW(window, MANAGER_IDENTITIES, LB_SETTABSTOPS, 3, reinterpret_cast<LPARAM>(tabs));
    SendDlgItemMessageW(window, MANAGER_IDENTITIES, LB_SETHORIZONTALEXTENT, 1600, 0);
    manager_register(reinterpret_cast<uintptr_t>(window), MANAGER_REFRESH);
    refresh(window);
}

bool command(HWND window, int control, int notice)
{
    for (const SettingSwitch &entry : SWITCHES)
        if (control == entry.control) {
            if (notice == BN_CLICKED && !filling)
                change_switch(window, entry);
            return true;
        }
    switch (control) {
    case MANAGER_AUTO_LOCK:
    case MANAGER_AUTO_LOCK_MINUTES:
        if (!filling && (notice == BN_CLICKED || notice == EN_CHANGE))
            keep_auto_lock(window);
        return true;
    case MANAGER_BROWSE: browse(window); return true;
    case MANAGER_ADD: add_key(window); break;
    case MANAGER_REMOVE: remove_selected(window); break;
    case MANAGER_REMOVE_ALL: show_failure(window, manager_remove_all()); break;
    case MANAGER_LOCK: show_failure(window, manager_lock()); break;
    case MANAGER_UNLOCK: unlock(window); break;
    case MANAGER_CHANGE_PASSPHRASE: change_passphrase(window); break;
    case MANAGER_RESET: reset(window); return true;
    case MANAGER_REFRESH: break;
    case MANAGER_HELP: open_help_topic(HELP_TOPIC_MANAGER); return true;
    case IDCANCEL:
        manager_unregister(reinterpret_cast<uintptr_t>(window));
        EndDialog(window, IDCANCEL);
        return true;
    default: return false;
    }
    refresh(window);
    return true;
}

INT_PTR CALLBACK manager_procedure(HWND window, UINT message, WPARAM wparam, LPARAM)
{
    switch (message) {
    case WM_INITDIALOG: initialise(window); return TRUE;
    case WM_MANAGER_NOTICE: refresh(window); return TRUE;
    case WM_COMMAND: return command(window, LOWORD(wparam), HIWORD(wparam)) ? TRUE : FALSE;
    case WM_CLOSE: return command(window, IDCANCEL, 0) ? TRUE : FALSE;
    case WM_DESTROY: {
        auto icon = reinterpret_cast<HICON>(SendMessageW(window, WM_GETICON, ICON_SMALL, 0));
        if (icon)
            DestroyIcon(icon);
        return FALSE;
    }
    default: return FALSE;
    }
}

// A console of its own is useless to a window: a manager started from the
// tray or the Start menu lets it go.
void drop_own_console()
{
    DWORD processes[2];
    if (GetConsoleProcessList(processes, 2) == 1)
        FreeConsole();
    // tagent's commands report success on the standard output, which a
    // window has no use for.
    freopen("NUL", "w", stdout);
}

}  // namespace

int run_manager_window()
{
    drop_own_console();
    HMODULE resources = resource_library_load();
    if (!resources) {
        MessageBoxW(nullptr, L"tagent.dll is missing beside tagent.exe.", MANAGER_BOX_CAPTION, MB_OK | MB_ICONERROR);
        return TAGENT_UNREACHABLE;
    }
    manager_settings_open();
    // The agent is started when none runs, once; afterwards the window only
    // talks to an agent that runs, so that it never restarts one that stops.
    agent_window_when_ready(platform_executable_dir(), nullptr);
    tagent_connect_to_running_agent_only();
    INT_PTR result = DialogBoxParamW(resources, MAKEINTRESOURCEW(MANAGER_DIALOG), nullptr, manager_procedure, 0);
    resource_library_unload();
    return result == -1 ? TAGENT_UNREACHABLE : TAGENT_DONE;
}
