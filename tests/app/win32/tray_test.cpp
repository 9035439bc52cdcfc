// The tray icon and its menu under Wine. A stand-in notification area (a
// "Shell_TrayWnd" window) records the agent's shell calls; the expected
// records are made by the same shell call here, so that the comparison
// does not depend on how Wine packs them.
#include <windows.h>
#include <shellapi.h>

#include <mutex>
#include <thread>

#include "agent/protocol.h"
#include "app/win32/agent_client_access.h"
#include "app/win32/tray_menu.h"
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
    record.uID = TRAY_ICON_ID;
    record.uFlags = flags;
    record.uCallbackMessage = WM_TRAY_NOTIFICATION;
    if (flags & NIF_TIP)
        lstrcpynW(record.szTip, resource_text(TEXT_APPLICATION_TITLE).c_str(), ARRAYSIZE(record.szTip));
    if (icon)
        record.hIcon =
            static_cast<HICON>(LoadImageW(resource_library(), MAKEINTRESOURCEW(icon), IMAGE_ICON, 16, 16, 0));
    return record;
}

bool agent_locked(HWND agent)
{
    WinHandle pipe = agent_pipe_open(agent);
    Buffer body, reply;
    buffer_put_char(&body, SSH_AGENT_ZEM_ISLOCKED);
    return agent_pipe_request(pipe.get(), body, SSH_AGENT_ZEM_LOCKED, &reply);
}

// The manager window's process, once its window is up.
WinHandle manager_process()
{
    DWORD id = 0;
    GetWindowThreadProcessId(wait_for_dialog(resource_text(TEXT_APPLICATION_TITLE)), &id);
    return WinHandle(id ? OpenProcess(SYNCHRONIZE | PROCESS_TERMINATE, FALSE, id) : nullptr);
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

// The icon added, locked and unlocked (dialog 124, a wrong passphrase
// first), the clicks on it, and exit, which closes the manager and the icon.
TEST(TrayIcon, FollowsTheLockStateAndOpensAndClosesTheManager)
{
    resource_library_load();
    StandInTray tray;
    const std::string add_locked = tray.expected(NIM_ADD, icon_record(NIF_MESSAGE | NIF_ICON | NIF_TIP, ICON_LOCKED));
    const std::string locked_picture = tray.expected(NIM_MODIFY, icon_record(NIF_ICON, ICON_LOCKED));
    const std::string unlocked_picture = tray.expected(NIM_MODIFY, icon_record(NIF_ICON, ICON_UNLOCKED));
    const std::string removed = tray.expected(NIM_DELETE, icon_record(0, 0));
    ASSERT_NE(locked_picture, unlocked_picture);
    WindowsAgent agent;
    agent.seed_passphrase("secret");
    HWND window = agent.start();
    ASSERT_NE(window, nullptr) << agent.log();

    EXPECT_TRUE(tray.sees(window, NIM_ADD, add_locked))
        << "identifier 15000, message 1025, the title as tip and the locked picture";

    // A wrong passphrase is reported by message 123; the agent stays locked.
    for (const wchar_t *passphrase : {L"wrong", L"secret"}) {
        PostMessageW(window, WM_COMMAND, MENU_UNLOCK, 0);
        answer_dialog(resource_text(TEXT_UNLOCK_DIALOG), {{126, passphrase}});
        bool right = passphrase[0] == L's';
        if (!right) {
            HWND box = wait_for_dialog(resource_text(TEXT_APPLICATION_TITLE));
            ASSERT_NE(box, nullptr);
            EXPECT_NE(static_texts(box).find(resource_text(TEXT_UNLOCK_FAILED)), std::wstring::npos);
            press(box, IDOK);
        }
        EXPECT_TRUE(tray.sees(window, NIM_MODIFY, right ? unlocked_picture : locked_picture));
        EXPECT_EQ(agent_locked(window), !right);
    }

    PostMessageW(window, WM_COMMAND, MENU_LOCK, 0);
    EXPECT_TRUE(tray.sees(window, NIM_MODIFY, locked_picture));
    EXPECT_TRUE(agent_locked(window));

    // A double click opens the manager, and its first click's timer does
    // not close it.
    PostMessageW(window, WM_TRAY_NOTIFICATION, TRAY_ICON_ID, WM_LBUTTONDOWN);
    PostMessageW(window, WM_TRAY_NOTIFICATION, TRAY_ICON_ID, WM_LBUTTONDBLCLK);
    WinHandle manager = manager_process();
    ASSERT_TRUE(manager);
    EXPECT_FALSE(ends_within(manager, 3 * GetDoubleClickTime())) << "the double click closed the manager";
    // A single click closes it once the double-click time is over.
    PostMessageW(window, WM_TRAY_NOTIFICATION, TRAY_ICON_ID, WM_LBUTTONDOWN);
    EXPECT_TRUE(ends_within(manager, 20000));

    // Exit closes the manager and stops the agent, which removes its icon.
    ASSERT_NE(open_manager(window), nullptr);
    manager = manager_process();
    ASSERT_TRUE(manager);
    PostMessageW(window, WM_COMMAND, MENU_EXIT, 0);
    EXPECT_TRUE(ends_within(manager, 20000));
    EXPECT_EQ(agent.close(), 0);
    EXPECT_TRUE(tray.sees(window, NIM_DELETE, removed)) << "the icon was not removed";
    if (!ends_within(manager, 0))
        TerminateProcess(manager.get(), 1);
}

// With AttemptEmpty on and the empty passphrase valid, unlock asks nothing:
// the command returns while no dialog is open. Another process cannot read
// a menu's items (which are grayed is checked on the menu the same builder
// makes, above), but it can choose them with the keyboard.
TEST(TrayIcon, MenuLocksAndUnlocksWithTheEmptyPassphraseFirst)
{
    WindowsAgent agent;
    agent.seed_passphrase("");
    HWND window = agent.start();
    ASSERT_NE(window, nullptr) << agent.log();
    DWORD_PTR result = 0;
    ASSERT_TRUE(SendMessageTimeoutW(window, WM_COMMAND, MENU_LOCK, 0, SMTO_NORMAL, 20000, &result));
    EXPECT_TRUE(agent_locked(window));
    ASSERT_TRUE(SendMessageTimeoutW(window, WM_COMMAND, MENU_UNLOCK, 0, SMTO_NORMAL, 20000, &result))
        << "the unlock waited for a dialog";
    EXPECT_FALSE(agent_locked(window));

    for (int position : {1, 2}) {  // lock, then unlock
        HWND popup = open_tray_menu(window);
        ASSERT_NE(popup, nullptr) << "no menu opened";
        for (int i = 0; i <= position; ++i)
            PostMessageW(popup, WM_KEYDOWN, VK_DOWN, 0);
        PostMessageW(popup, WM_KEYDOWN, VK_RETURN, 0);
        EXPECT_TRUE(eventually([&] { return !IsWindowVisible(popup); })) << "the menu stayed open";
        EXPECT_TRUE(eventually([&] { return agent_locked(window) == (position == 1); }));
    }
}
