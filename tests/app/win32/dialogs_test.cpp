// The resources in tagent.dll; the help, which opens the page beside the
// programs through the .html association (a stand-in browser copies the
// file it is asked to open); and the agent's first start, its dialog
// driven as a user would.


#include <thread>

#include "app/win32/dialogs.h"
#include "app/win32/help.h"
#include "win32/agent_channels.h"
#include "win32/dialog_driver.h"

namespace {

bool set_default_value(const wchar_t *key, const std::wstring &value)
{
    return RegSetKeyValueW(HKEY_CLASSES_ROOT, key, nullptr, REG_SZ, value.c_str(),
                           static_cast<DWORD>((value.size() + 1) * sizeof(wchar_t))) == ERROR_SUCCESS;
}

// Registers "open" for .html files as a copy into a folder of its own (Wine
// reads associations from the machine's classes only), and puts the
// association back when it goes.
class StandInBrowser {
public:
    StandInBrowser()
    {
        DWORD size = sizeof old_html_;
        had_html_ = !RegGetValueW(HKEY_CLASSES_ROOT, L".html", nullptr, RRF_RT_REG_SZ, nullptr, old_html_, &size);
        ok_ = set_default_value(L"TarnwellHelpProbe\\shell\\open\\command",
                                L"cmd.exe /c copy /y \"%1\" \"" + copy_.wstring() + L"\"") &&
              set_default_value(L".html", L"TarnwellHelpProbe");
    }
    ~StandInBrowser()
    {
        if (!had_html_ || !set_default_value(L".html", old_html_))
            RegDeleteTreeW(HKEY_CLASSES_ROOT, L".html");
        RegDeleteTreeW(HKEY_CLASSES_ROOT, L"TarnwellHelpProbe");
        EXPECT_TRUE(remove_folder(folder_));
    }
    StandInBrowser(const StandInBrowser &) = delete;
    StandInBrowser &operator=(const StandInBrowser &) = delete;
    bool ok() const { return ok_; }

    // True once the stand-in, which the shell starts on its own, has copied
    // `page`; the copy is then removed.
    bool opened(const std::string &page)
    {
        bool opened = eventually([&] { return read_file_text(copy_) == page; }, 30000);
        std::filesystem::remove(copy_);
        return opened;
    }

private:
    std::filesystem::path folder_ = fresh_temp_folder("help"), copy_ = folder_ / "opened.html";
    bool had_html_ = false, ok_ = false;
    wchar_t old_html_[512] = L"";
};

// The string table holds the program texts; the tray's topic opens the
// page. The confirmation names the key. The agent's first start asks for
// its passphrase in dialog 133 (whose Help opens the page and leaves it
// open) and is ready once the user has answered. No passphrase ticked
// stores the empty one with AttemptEmpty, and unlock then asks nothing.
TEST(Dialogs, ResourcesHelpAndTheAgentsFirstStart)
{
    ASSERT_NE(resource_library_load(), nullptr) << "tagent.dll beside the tests";
    const std::string page = read_file_text(platform_executable_dir() + HELP_PAGE_FILE);
    ASSERT_FALSE(page.empty()) << "the help page beside the programs";
    StandInBrowser browser;
    ASSERT_TRUE(browser.ok());
    EXPECT_TRUE(open_help_topic(HELP_TOPIC_MANAGER));
    EXPECT_TRUE(browser.opened(page));

    // The confirmation names the key and follows the answer.
    for (int button : {IDYES, IDNO}) {
        std::thread user([button] {
            HWND box = wait_for_dialog(resource_text(TEXT_APPLICATION_TITLE));
            EXPECT_NE(static_texts(box).find(L"'work key'."), std::wstring::npos) << "the key is named";
            press(box, button);
        });
        EXPECT_EQ(confirm_key_operation("work key"), button == IDYES);
        user.join();
    }

    for (int answer : {IDOK, 221}) {
        SCOPED_TRACE(answer);
        WindowsAgent agent;
        PROCESS_INFORMATION first = agent.launch();
        HWND dialog = wait_for_dialog(resource_text(133));
        ASSERT_NE(dialog, nullptr) << agent.log();
        EXPECT_EQ(control_text(dialog, 145), resource_text(222));
        type_into(dialog, 126, L"first s\u00e9cret");
        if (answer == IDOK) {
            press(dialog, CONTROL_HELP);
            EXPECT_TRUE(browser.opened(page)) << "the help page was not opened";
        }
        if (answer == 221) {  // ticked, unticked and ticked again
            press(dialog, 221);
            EXPECT_FALSE(IsWindowEnabled(GetDlgItem(dialog, 126)));
            press(dialog, 221);
            EXPECT_TRUE(IsWindowEnabled(GetDlgItem(dialog, 126)));
            press(dialog, 221);
        }
        press(dialog, IDOK);
        HWND window = agent_when_ready();
        ASSERT_NE(window, nullptr) << agent.log();
        if (answer == 221) {
            DWORD_PTR result = 0;
            ASSERT_TRUE(SendMessageTimeoutW(window, WM_COMMAND, MENU_LOCK, 0, SMTO_NORMAL, 20000, &result));
            EXPECT_TRUE(agent_locked(window));
            ASSERT_TRUE(SendMessageTimeoutW(window, WM_COMMAND, MENU_UNLOCK, 0, SMTO_NORMAL, 20000, &result))
                << "the unlock waited for a dialog";
            EXPECT_FALSE(agent_locked(window));
        }
        PostMessageW(window, WM_CLOSE, 0, 0);
        EXPECT_EQ(wait_exit(&first), 0);
        EXPECT_TRUE(agent.logged("keyagent: Agent has a passphrase now"));
        EXPECT_TRUE(agent.passphrase_is(answer == 221 ? "" : "first s\xc3\xa9" "cret"));
        EXPECT_EQ(agent.settings().AttemptEmpty, answer == 221 ? 1u : 0u);
    }
}

}  // namespace
