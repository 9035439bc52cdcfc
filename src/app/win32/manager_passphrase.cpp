#include "app/win32/manager_passphrase.h"

#include <vector>

#include "app/program_texts.h"
#include "app/win32/manager_window.h"
#include "app/win32/resource_texts.h"
#include "app/win32/resources/manager_dialog.h"

namespace {

INT_PTR CALLBACK change_procedure(HWND dialog, UINT message, WPARAM wparam, LPARAM lparam)
{
    auto *change = reinterpret_cast<PassphraseChange *>(GetWindowLongPtrW(dialog, DWLP_USER));
    switch (message) {
    case WM_INITDIALOG: SetWindowLongPtrW(dialog, DWLP_USER, lparam); return TRUE;
    case WM_COMMAND:
        switch (LOWORD(wparam)) {
        case IDOK: {
            change->old_passphrase = secret_control_text(dialog, CHANGE_OLD);
            change->empty = IsDlgButtonChecked(dialog, CHANGE_EMPTY) == BST_CHECKED;
            change->new_passphrase = change->empty ? SecretString() : secret_control_text(dialog, CHANGE_NEW);
            if (!change->empty && change->new_passphrase != secret_control_text(dialog, CHANGE_REPEAT)) {
                MessageBoxW(dialog, resource_text(TEXT_PASSPHRASES_DIFFER).c_str(), MANAGER_BOX_CAPTION,
                            MB_OK | MB_ICONERROR);
                return TRUE;
            }
            EndDialog(dialog, IDOK);
            return TRUE;
        }
        case IDCANCEL: EndDialog(dialog, IDCANCEL); return TRUE;
        case CHANGE_EMPTY: {
            bool typed = IsDlgButtonChecked(dialog, CHANGE_EMPTY) != BST_CHECKED;
            EnableWindow(GetDlgItem(dialog, CHANGE_NEW), typed);
            EnableWindow(GetDlgItem(dialog, CHANGE_REPEAT), typed);
            return TRUE;
        }
        default: return FALSE;
        }
    default: return FALSE;
    }
}

}  // namespace

SecretString secret_control_text(HWND dialog, int control)
{
    HWND edit = GetDlgItem(dialog, control);
    std::vector<wchar_t> wide(static_cast<size_t>(GetWindowTextLengthW(edit)) + 2, L'\0');
    int got = GetWindowTextW(edit, wide.data(), static_cast<int>(wide.size()));
    int bytes = WideCharToMultiByte(CP_UTF8, 0, wide.data(), got, nullptr, 0, nullptr, nullptr);
    SecretString text(static_cast<size_t>(bytes), '\0');
    WideCharToMultiByte(CP_UTF8, 0, wide.data(), got, text.data(), bytes, nullptr, nullptr);
    wipe_memory(wide.data(), wide.size() * sizeof(wchar_t));
    return text;
}

bool ask_passphrase_change(HMODULE resources, HWND owner, PassphraseChange *change)
{
    return DialogBoxParamW(resources, MAKEINTRESOURCEW(CHANGE_PASSPHRASE_DIALOG), owner, change_procedure,
                           reinterpret_cast<LPARAM>(change)) == IDOK;
}
