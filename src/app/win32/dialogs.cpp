#include "app/win32/dialogs.h"

#include <optional>
#include <string>
#include <vector>

#include "app/program_texts.h"
#include "app/win32/help.h"
#include "app/win32/resource_texts.h"
#include "platform/win32/text_conversion.h"

namespace {

constexpr wchar_t PARAM_PROPERTY[] = L"ReadPassphraseParam";
constexpr size_t KEY_PROMPT_MAX = 512;

struct ReadPassphraseParam {
    uint32_t dialog = 0;
    std::optional<std::wstring> prompt;
    std::optional<SecretString> result;
    uint32_t no_passphrase = 0;
    HWND owner = nullptr;
};

ReadPassphraseParam *param_of(HWND dialog)
{
    return static_cast<ReadPassphraseParam *>(GetPropW(dialog, PARAM_PROPERTY));
}

SecretString read_passphrase_control(HWND dialog)
{
    HWND edit = GetDlgItem(dialog, CONTROL_PASSPHRASE);
    int length = GetWindowTextLengthW(edit);
    std::vector<wchar_t> wide(static_cast<size_t>(length) + 2, L'\0');
    int got = GetWindowTextW(edit, wide.data(), static_cast<int>(wide.size()));
    SecretString text;
    int bytes = WideCharToMultiByte(CP_UTF8, 0, wide.data(), got, nullptr, 0, nullptr, nullptr);
    text.resize(static_cast<size_t>(bytes));
    WideCharToMultiByte(CP_UTF8, 0, wide.data(), got, text.data(), bytes, nullptr, nullptr);
    wipe_memory(wide.data(), wide.size() * sizeof(wchar_t));
    return text;
}

// Places the dialog over its owner (the desktop when it has none).
void place_over_owner(HWND dialog, HWND owner)
{
    RECT area, own;
    if (!GetWindowRect(owner ? owner : GetDesktopWindow(), &area) || !GetWindowRect(dialog, &own))
        return;
    int width = own.right - own.left, height = own.bottom - own.top;
    SetWindowPos(dialog, nullptr, area.left + (area.right - area.left - width) / 2,
                 area.top + (area.bottom - area.top - height) / 2, 0, 0, SWP_NOSIZE | SWP_NOZORDER);
}

void initialise(HWND dialog, ReadPassphraseParam *param)
{
    SetPropW(dialog, PARAM_PROPERTY, param);
    // The layouts come from the resource library; their words from the
    // string table.
    SetWindowTextW(dialog, resource_text(static_cast<int>(param->dialog)).c_str());
    if (param->dialog == DIALOG_FIRST_PASSPHRASE) {
        SetDlgItemTextW(dialog, CONTROL_NO_PASSPHRASE, resource_text(TEXT_NO_PASSPHRASE).c_str());
        if (!param->prompt)
            param->prompt = resource_text(TEXT_FIRST_PASSPHRASE_DESCRIPTION);
    } else if (param->dialog == DIALOG_UNLOCK && !param->prompt) {
        param->prompt = resource_text(TEXT_UNLOCK_DESCRIPTION);
    }
    if (param->prompt)
        SetDlgItemTextW(dialog, CONTROL_PROMPT, param->prompt->c_str());
    if (HMODULE library = resource_library()) {
        auto icon = static_cast<HICON>(LoadImageW(library, MAKEINTRESOURCEW(TEXT_APPLICATION_TITLE), IMAGE_ICON, 16, 16, 0));
        if (icon) {
            SendMessageW(dialog, WM_SETICON, ICON_BIG, reinterpret_cast<LPARAM>(icon));
            DestroyIcon(icon);
        }
    }
    place_over_owner(dialog, param->owner);
}

INT_PTR CALLBACK passphrase_dialog_procedure(HWND dialog, UINT message, WPARAM wparam, LPARAM lparam)
{
    switch (message) {
    case WM_INITDIALOG: initialise(dialog, reinterpret_cast<ReadPassphraseParam *>(lparam)); return TRUE;
    case WM_COMMAND:
        switch (LOWORD(wparam)) {
        case IDOK: {
            ReadPassphraseParam *param = param_of(dialog);
            if (param->dialog == DIALOG_FIRST_PASSPHRASE)
                param->no_passphrase = IsDlgButtonChecked(dialog, CONTROL_NO_PASSPHRASE) == BST_CHECKED;
            if (!param->no_passphrase)
                param->result = read_passphrase_control(dialog);
            EndDialog(dialog, IDOK);
            return TRUE;
        }
        case IDCANCEL: EndDialog(dialog, IDCANCEL); return TRUE;
        case CONTROL_NO_PASSPHRASE:
            EnableWindow(GetDlgItem(dialog, CONTROL_PASSPHRASE),
                         IsDlgButtonChecked(dialog, CONTROL_NO_PASSPHRASE) != BST_CHECKED);
            return TRUE;
        case CONTROL_HELP: open_help_topic(HELP_TOPIC_DIALOGS); return TRUE;
        default: return FALSE;
        }
    case WM_SYSCOMMAND:
        if ((wparam & 0xfff0) != SC_CONTEXTHELP)
            return FALSE;
        open_help_topic(HELP_TOPIC_DIALOGS);
        SetWindowLongPtrW(dialog, DWLP_MSGRESULT, -1);
        return TRUE;
    case WM_DESTROY: RemovePropW(dialog, PARAM_PROPERTY); return FALSE;
    default: return FALSE;
    }
}

// A dialog that cannot be created counts as cancelled.
bool run_dialog(ReadPassphraseParam *param)
{
    HMODULE library = resource_library_load();
    if (!library)
        return false;
    INT_PTR result = DialogBoxParamW(library, MAKEINTRESOURCEW(param->dialog), param->owner,
                                     passphrase_dialog_procedure, reinterpret_cast<LPARAM>(param));
    return result == IDOK;
}

// The manager window when it is open, else the desktop.
HWND manager_or_desktop()
{
    HWND manager = FindWindowW(L"#32770", resource_text(TEXT_APPLICATION_TITLE).c_str());
    return manager ? manager : GetDesktopWindow();
}

bool ask_for_text(uint32_t dialog, std::optional<std::wstring> prompt, SecretString *answer)
{
    ReadPassphraseParam param;
    param.dialog = dialog;
    param.prompt = std::move(prompt);
    param.owner = manager_or_desktop();
    if (!run_dialog(&param) || !param.result)
        return false;
    *answer = std::move(*param.result);
    return true;
}

}  // namespace

HWND dialog_owner(int64_t window)
{
    HWND owner = reinterpret_cast<HWND>(static_cast<intptr_t>(window));
    return window && IsWindow(owner) ? owner : GetDesktopWindow();
}

bool ask_first_passphrase(HWND owner, SecretString *passphrase, bool *no_passphrase)
{
    ReadPassphraseParam param;
    param.dialog = DIALOG_FIRST_PASSPHRASE;
    param.owner = owner;
    if (!run_dialog(&param))
        return false;
    *no_passphrase = param.no_passphrase != 0;
    if (param.result)
        *passphrase = std::move(*param.result);
    return true;
}

bool ask_unlock_passphrase(SecretString *passphrase) { return ask_for_text(DIALOG_UNLOCK, std::nullopt, passphrase); }

bool ask_key_passphrase(const char *prompt, SecretString *answer)
{
    std::string text = prompt ? prompt : "";
    if (text.size() > KEY_PROMPT_MAX)
        text.resize(KEY_PROMPT_MAX);
    return ask_for_text(DIALOG_KEY_PASSPHRASE, utf8_to_wide(text), answer);
}

bool confirm_key_operation(const char *key_name)
{
    // The text is a format with one "%s" for the name; filled in here, not
    // by a printf whose wide "%s" differs between runtimes.
    std::wstring text = resource_text(TEXT_CONFIRM_KEY_OPERATION);
    size_t at = text.find(L"%s");
    if (at != std::wstring::npos)
        text.replace(at, 2, utf8_to_wide(key_name ? key_name : ""));
    return MessageBoxW(nullptr, text.c_str(), resource_text(TEXT_APPLICATION_TITLE).c_str(),
                       MB_YESNO | MB_ICONEXCLAMATION | MB_TOPMOST) != IDNO;
}
