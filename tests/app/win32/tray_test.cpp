// The tray icon, its menu and the manager window under Wine. A stand-in notification area (a
// "Shell_TrayWnd" window) records the agent's shell calls; the expected
// records are made by the same shell call here, so that the comparison
// does not depend on how Wine packs them.
#include <windows.h>
#include <shellapi.h>

#include <mutex>
#include <thread>

#include "app/win32/manager_window.h"
#include "app/win32/resources/manager_dialog.h"
#include "app/win32/tray_menu.h"
#include "win32/agent_channels.h"
#include "win32/dialog_driver.h"

namespace {

// The notification area's stand-in, on a thread of its own: it keeps each
// shell call's record as "action:owner:the rest".
class StandInTray {
public:
    StandInTray() : thread_([this] { run(); }) { eventually([this] { return window_ != nullptr; }); }
    ~StandInTray()
    {
        PostMessageW(window_, WM_CLOSE, 0, 0);
        thread_.join();
    }

    // Waits for `owner`'s record of `action` that matches `expected`, or
    // any when it is null, and drops it and all before it (lock and unlock
    // redraw more than once). What the record holds after its owner.
    bool take(HWND owner, DWORD action, const std::string *expected, std::string *rest = nullptr)
    {
        std::string key = std::to_string(action) + ":" + std::to_string(static_cast<LONG>(reinterpret_cast<intptr_t>(owner))) + ":";
        return eventually([&] {
            std::lock_guard<std::mutex> lock(mutex_);
            for (auto at = records_.begin(); at != records_.end(); ++at) {
                if (at->rfind(key, 0) != 0 || (expected && at->substr(key.size()) != *expected))
                    continue;
                if (rest)
                    *rest = at->substr(key.size());
                records_.erase(records_.begin(), at + 1);
                return true;
            }
            return false;
        });
    }
    bool sees(HWND owner, DWORD action, const std::string &expected) { return take(owner, action, &expected); }

    // What the shell call makes of `record`, without its owner (asked here
    // for a made-up owner, and taken back out).
    std::string expected(DWORD action, NOTIFYICONDATAW record)
    {
        record.hWnd = reinterpret_cast<HWND>(static_cast<intptr_t>(0x7e57));
        EXPECT_TRUE(Shell_NotifyIconW(action, &record));
        if (record.hIcon)
            DestroyIcon(record.hIcon);
        std::string made;
        take(record.hWnd, action, nullptr, &made);
        return made;
    }

private:
    static LRESULT CALLBACK procedure(HWND window, UINT message, WPARAM wparam, LPARAM lparam)
    {
        auto *self = reinterpret_cast<StandInTray *>(GetWindowLongPtrW(window, GWLP_USERDATA));
        if (message == WM_COPYDATA && self) {
            auto *copy = reinterpret_cast<const COPYDATASTRUCT *>(lparam);
            LONG owner = 0;
            if (copy->cbData >= sizeof owner)
                memcpy(&owner, copy->lpData, sizeof owner);
            std::lock_guard<std::mutex> lock(self->mutex_);
            self->records_.push_back(std::to_string(copy->dwData) + ":" + std::to_string(owner) + ":" +
                                     std::string(static_cast<const char *>(copy->lpData), copy->cbData).substr(sizeof owner));
            return TRUE;
        }
        if (message == WM_CLOSE)
            PostQuitMessage(0);
        return DefWindowProcW(window, message, wparam, lparam);
    }

    void run()
    {
        WNDCLASSW tray_class = {};
        tray_class.lpfnWndProc = procedure;
        tray_class.lpszClassName = L"Shell_TrayWnd";
        RegisterClassW(&tray_class);
        HWND window = CreateWindowExW(0, L"Shell_TrayWnd", L"", 0, 0, 0, 0, 0, nullptr, nullptr, nullptr, nullptr);
        SetWindowLongPtrW(window, GWLP_USERDATA, reinterpret_cast<LONG_PTR>(this));
        window_ = window;
        MSG message;
        while (window && GetMessageW(&message, nullptr, 0, 0) > 0)
            DispatchMessageW(&message);
    }

    std::mutex mutex_;
    std::vector<std::string> records_;
    std::atomic<HWND> window_{nullptr};
    std::thread thread_;
};

NOTIFYICONDATAW icon_record(UINT flags, int icon)
{
    NOTIFYICONDATAW record = {};
    record.cbSize = sizeof record;
    record.uID = 15000;
    record.uFlags = flags;
    record.uCallbackMessage = 1025;
    if (flags & NIF_TIP)
        lstrcpynW(record.szTip, resource_text(TEXT_APPLICATION_TITLE).c_str(), ARRAYSIZE(record.szTip));
    if (icon)
        record.hIcon =
            static_cast<HICON>(LoadImageW(resource_library(), MAKEINTRESOURCEW(icon), IMAGE_ICON, 16, 16, 0));
    return record;
}

bool ends_within(const WinHandle &process, DWORD ms) { return WaitForSingleObject(process.get(), ms) == WAIT_OBJECT_0; }

}  // namespace

TEST(TrayMenu, ItemsFollowTheLockState)
{
    for (bool locked : {true, false}) {
        SCOPED_TRACE(locked ? "locked" : "unlocked");
        HMENU menu = tray_menu_build(locked);
        const struct {
            uint32_t command;
            int text;
            bool enabled;
        } items[] = {{MENU_OPEN_MANAGER, TEXT_MENU_MANAGER, true}, {MENU_LOCK, TEXT_MENU_LOCK, !locked},
                     {MENU_UNLOCK, TEXT_MENU_UNLOCK, locked}, {MENU_HELP, TEXT_MENU_HELP, true},
                     {MENU_EXIT, TEXT_MENU_EXIT, true}};
        ASSERT_EQ(GetMenuItemCount(menu), 5);
        for (UINT at = 0; at < 5; ++at) {
            wchar_t text[128] = L"";
            GetMenuStringW(menu, at, text, 128, MF_BYPOSITION);
            EXPECT_EQ(text, resource_text(items[at].text));
            EXPECT_EQ(GetMenuItemID(menu, static_cast<int>(at)), items[at].command);
            EXPECT_EQ((GetMenuState(menu, at, MF_BYPOSITION) & MF_GRAYED) == 0, items[at].enabled) << text;
        }
        EXPECT_EQ(GetMenuDefaultItem(menu, FALSE, 0), MENU_OPEN_MANAGER);
        DestroyMenu(menu);
    }
}

// The icon added, unlocked (dialog 124) and locked from the menu. Then the
// manager, driven as a
// user would: every action must reach the agent and its settings file;
// its reset stops the agent, which closes the manager and
// removes the icon.
TEST(TrayIcon, FollowsTheLockStateAndOpensTheManagerWhoseActionsReachTheAgent)
{
    resource_library_load();
    StandInTray tray;
    const std::string add_locked = tray.expected(NIM_ADD, icon_record(NIF_MESSAGE | NIF_ICON | NIF_TIP, ICON_LOCKED));
    const std::string locked_picture = tray.expected(NIM_MODIFY, icon_record(NIF_ICON, ICON_LOCKED));
    const std::string unlocked_picture = tray.expected(NIM_MODIFY, icon_record(NIF_ICON, ICON_UNLOCKED));
    ASSERT_NE(locked_picture, unlocked_picture);
    WindowsAgent agent;
    agent.seed_passphrase("old");
    HWND window = agent.start();
    ASSERT_NE(window, nullptr) << agent.log();

    EXPECT_TRUE(tray.sees(window, NIM_ADD, add_locked))
        << "identifier 15000, message 1025, the title as tip and the locked picture";

    PostMessageW(window, WM_COMMAND, MENU_UNLOCK, 0);
    answer_dialog(resource_text(TEXT_UNLOCK_DIALOG), {{126, L"old"}});
    EXPECT_TRUE(tray.sees(window, NIM_MODIFY, unlocked_picture));
    EXPECT_FALSE(agent_locked(window));

    // Another process cannot read a menu's items (which are grayed is
    // checked on the menu the same builder makes, above), but it can choose
    // them with the keyboard: lock.
    HWND popup = open_tray_menu(window);
    ASSERT_NE(popup, nullptr) << "no menu opened";
    for (int key : {VK_DOWN, VK_DOWN, VK_RETURN})
        PostMessageW(popup, WM_KEYDOWN, key, 0);
    EXPECT_TRUE(tray.sees(window, NIM_MODIFY, locked_picture));
    EXPECT_TRUE(agent_locked(window));

    HWND manager = open_manager(window);
    ASSERT_NE(manager, nullptr);
    DWORD id = 0;
    GetWindowThreadProcessId(manager, &id);
    WinHandle process(OpenProcess(SYNCHRONIZE | PROCESS_TERMINATE, FALSE, id));
    ASSERT_TRUE(process);
    // A click that opens a dialog is posted: it would return only when the
    // dialog is closed. Any other click returns once it is done.
    auto click_later = [&](int control) {
        PostMessageW(manager, WM_COMMAND, MAKEWPARAM(control, BN_CLICKED),
                     reinterpret_cast<LPARAM>(GetDlgItem(manager, control)));
    };
    auto click = [&](int control) {
        DWORD_PTR ignored = 0;
        EXPECT_TRUE(SendMessageTimeoutW(GetDlgItem(manager, control), BM_CLICK, 0, 0, SMTO_NORMAL, 30000, &ignored))
            << "the click on " << control << " did not return";
    };
    auto shows = [&](const wchar_t *state) { return eventually([&] { return control_text(manager, MANAGER_STATE) == state; }); };
    auto identities = [&] { return SendDlgItemMessageW(manager, MANAGER_IDENTITIES, LB_GETCOUNT, 0, 0); };
    EXPECT_TRUE(shows(L"The agent is locked."));

    // Each setting switched and back, so that the rest runs as it started.
    const std::pair<int, uint32_t AgentSettings::*> switches[] = {
        {MANAGER_CONFIRM_KEY_OP, &AgentSettings::ConfirmKeyOp}, {MANAGER_ALLOW_ADD, &AgentSettings::AllowAdd},
        {MANAGER_ALLOW_DELETE, &AgentSettings::AllowDelete}, {MANAGER_USE_ONLY_SHA1, &AgentSettings::UseOnlySha1},
        {MANAGER_CREATE_LOG, &AgentSettings::CreateLog}};
    for (const auto &[control, field] : switches) {
        SCOPED_TRACE(control);
        uint32_t before = agent.settings().*field;
        EXPECT_EQ(IsDlgButtonChecked(manager, control) == BST_CHECKED, before != 0) << "the window shows the file";
        for (uint32_t expected : {before ? 0u : 1u, before}) {
            click(control);
            EXPECT_EQ(agent.settings().*field, expected);
        }
    }

    click_later(MANAGER_UNLOCK);
    answer_dialog(resource_text(TEXT_UNLOCK_DIALOG), {{126, L"old"}});
    EXPECT_TRUE(shows(L"The agent is unlocked."));

    // A key added in the window, its password asked in dialog 219.
    std::string key_file = agent.path("id_ecdsa.pem");
    EVP_PKEY_free(write_pem_key(key_file, "EC", "key password"));
    type_into(manager, MANAGER_KEY_FILE, utf8_to_wide(key_file));
    click_later(MANAGER_ADD);
    answer_dialog(resource_text(TEXT_KEY_PASSPHRASE_DIALOG), {{126, L"key password"}});
    EXPECT_TRUE(eventually([&] { return identities() == 1; }));

    click_later(MANAGER_CHANGE_PASSPHRASE);
    answer_dialog(L"Change Agent Passphrase", {{CHANGE_OLD, L"old"}, {CHANGE_NEW, L"new"}, {CHANGE_REPEAT, L"new"}});
    answer_dialog(MANAGER_BOX_CAPTION, {});
    EXPECT_TRUE(agent.passphrase_is("new"));

    SendDlgItemMessageW(manager, MANAGER_IDENTITIES, LB_SETCURSEL, 0, 0);
    click(MANAGER_REMOVE);
    EXPECT_TRUE(eventually([&] { return identities() == 0; }));
    click(MANAGER_LOCK);
    EXPECT_TRUE(shows(L"The agent is locked."));

    // Reset, confirmed: the agent destroys its data and stops, and closes
    // the manager and removes its icon on its way out.
    click_later(MANAGER_RESET);
    answer_dialog(MANAGER_BOX_CAPTION, {}, IDYES);
    EXPECT_TRUE(ends_within(process, 20000)) << "the manager is still open";
    EXPECT_EQ(agent.close(), 0);
    EXPECT_TRUE(tray.take(window, NIM_DELETE, nullptr)) << "the icon was not removed";
    EXPECT_FALSE(std::filesystem::exists(agent.path("tAgentKeys")));
    EXPECT_FALSE(std::filesystem::exists(agent.path(AGENT_SETTINGS_FILE)));
    if (!ends_within(process, 0))
        TerminateProcess(process.get(), 1);
}
