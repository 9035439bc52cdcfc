// Pictures of the windows a user sees, for a person to look at, taken by
// scripts/screenshots under Xvfb and a Wine virtual desktop. In the folder
// TARNWELL_PICTURES_DIR this program writes NAME.want with the window's
// rectangle on the desktop; the script answers with NAME.png. A new scene:
// raise the window, take_picture(NAME, WINDOW), end it.

#include <cstdlib>
#include <thread>

#include "app/win32/dialogs.h"
#include "win32/dialog_driver.h"

// The virtual desktop's taskbar, whose right end holds the notification
// icons.
HWND notification_area() { return wait_for_window_where([](HWND) { return true; }, L"Shell_TrayWnd"); }

namespace {

std::filesystem::path pictures_folder()
{
    const char *folder = getenv("TARNWELL_PICTURES_DIR");
    return folder ? folder : "";
}

}  // namespace

// Photographs `window` as it is on the screen now; false for no window or
// when no picture came within 30 s.
bool take_picture(const std::string &name, HWND window)
{
    RECT r = {};
    if (!window || !GetWindowRect(window, &r) || r.right <= r.left || r.bottom <= r.top)
        return false;
    RedrawWindow(window, nullptr, nullptr, RDW_INVALIDATE | RDW_UPDATENOW | RDW_ALLCHILDREN);
    GdiFlush();
    std::filesystem::path want = pictures_folder() / (name + ".want"), png = pictures_folder() / (name + ".png");
    {
        std::ofstream(want.string() + ".tmp") << r.left << ' ' << r.top << ' ' << r.right - r.left << ' '
                                              << r.bottom - r.top << '\n';
    }
    std::filesystem::rename(want.string() + ".tmp", want);
    for (int attempt = 0; attempt < 300; ++attempt) {
        if (std::filesystem::exists(png))
            return true;
        Sleep(100);
    }
    return false;
}

namespace {

// A modal window raised by `show` on this thread, found by the title
// `title`, with `typed` in its passphrase field, photographed and ended by
// pressing `dismiss`.
void picture_of_modal(const std::string &name, const std::wstring &title, const std::function<void()> &show,
                      const wchar_t *typed, int dismiss)
{
    std::thread photographer([&] {
        HWND window = wait_for_dialog(title);
        ASSERT_NE(window, nullptr) << name << ": no window titled as expected";
        if (typed)
            type_into(window, CONTROL_PASSPHRASE, typed);
        EXPECT_TRUE(take_picture(name, window)) << name << ": no picture came back";
        press(window, dismiss);
    });
    show();
    photographer.join();
}

class Pictures : public ::testing::Test {
protected:
    void SetUp() override
    {
        ASSERT_FALSE(pictures_folder().empty()) << "run through scripts/screenshots";
        ASSERT_TRUE(desktop_ready());
        ASSERT_NE(resource_library_load(), nullptr) << "tagent.dll beside the program";
    }
};

TEST_F(Pictures, DialogsAndConfirmationBox)
{
    const struct {
        const char *name;
        int title;
        std::function<void()> show;
        const wchar_t *typed;
        int dismiss;
    } scenes[] = {
        {"dialog-133-first-passphrase", DIALOG_FIRST_PASSPHRASE,
         [] { SecretString s; bool none = false; ask_first_passphrase(nullptr, &s, &none); }, L"correct horse", IDCANCEL},
        {"dialog-124-unlock", DIALOG_UNLOCK, [] { SecretString s; ask_unlock_passphrase(&s); }, L"battery staple",
         IDCANCEL},
        {"dialog-219-key-passphrase", DIALOG_KEY_PASSPHRASE,
         [] { SecretString s; ask_key_passphrase("Enter the passphrase for the key 'id_ecdsa':", &s); }, nullptr,
         IDCANCEL},
        {"confirm-key-operation", TEXT_APPLICATION_TITLE, [] { confirm_key_operation("work key"); }, nullptr, IDNO},
    };
    for (const auto &scene : scenes)
        picture_of_modal(scene.name, resource_text(scene.title), scene.show, scene.typed, scene.dismiss);
}

// The icon unlocked and locked, the menu at the icon, and the manager window
// that the menu's first command opens.
TEST_F(Pictures, TrayIconMenuAndManager)
{
    WindowsAgent agent;
    agent.seed_passphrase("");
    HWND window = agent.start();
    ASSERT_NE(window, nullptr) << agent.log();
    EXPECT_TRUE(take_picture("tray-unlocked", notification_area()));
    SendMessageW(window, WM_COMMAND, MENU_LOCK, 0);
    Sleep(500);  // the icon is redrawn from a posted message
    EXPECT_TRUE(take_picture("tray-locked", notification_area()));
    HWND menu = open_tray_menu(window);
    EXPECT_TRUE(take_picture("tray-menu", menu));
    PostMessageW(menu, WM_KEYDOWN, VK_ESCAPE, 0);
    HWND manager = open_manager(window);
    EXPECT_TRUE(take_picture("manager", manager));
    EXPECT_EQ(agent.close(), 0);
}

}  // namespace
