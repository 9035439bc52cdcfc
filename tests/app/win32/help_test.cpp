// Help opens the page shipped beside the programs through the shell's
// association for .html files. A stand-in browser registered for the test
// copies whatever file it is asked to open, so the test sees which file the
// shell opened.
#include <windows.h>

#include <gtest/gtest.h>

#include <functional>
#include <thread>

#include "app/win32/dialogs.h"
#include "app/win32/help.h"
#include "app/win32/resource_texts.h"
#include "win32/dialog_driver.h"
#include "win32/windows_agent.h"

namespace {

// Wine reads associations from the machine's classes only, not the user's.
constexpr wchar_t HTML_KEY[] = L".html";
constexpr wchar_t PROBE_KEY[] = L"TarnwellHelpProbe";

bool set_default_value(const std::wstring &key, const std::wstring &value)
{
    return RegSetKeyValueW(HKEY_CLASSES_ROOT, key.c_str(), nullptr, REG_SZ, value.c_str(),
                           static_cast<DWORD>((value.size() + 1) * sizeof(wchar_t))) == ERROR_SUCCESS;
}

// Registers "open" for .html files as a copy to `copy`, and puts the
// association back when it goes.
class StandInBrowser {
public:
    explicit StandInBrowser(const std::filesystem::path &copy)
    {
        wchar_t old[512];
        DWORD size = sizeof old;
        had_html_key_ = RegGetValueW(HKEY_CLASSES_ROOT, HTML_KEY, nullptr, RRF_RT_REG_SZ, nullptr, old, &size) ==
                        ERROR_SUCCESS;
        if (had_html_key_)
            old_html_ = old;
        ok_ = set_default_value(std::wstring(PROBE_KEY) + L"\\shell\\open\\command",
                                L"cmd.exe /c copy /y \"%1\" \"" + copy.wstring() + L"\"") &&
              set_default_value(HTML_KEY, L"TarnwellHelpProbe");
    }
    ~StandInBrowser()
    {
        if (had_html_key_)
            set_default_value(HTML_KEY, old_html_);
        else
            RegDeleteTreeW(HKEY_CLASSES_ROOT, HTML_KEY);
        RegDeleteTreeW(HKEY_CLASSES_ROOT, PROBE_KEY);
    }
    StandInBrowser(const StandInBrowser &) = delete;
    StandInBrowser &operator=(const StandInBrowser &) = delete;
    bool ok() const { return ok_; }

private:
    bool had_html_key_ = false, ok_ = false;
    std::wstring old_html_;
};

class Help : public ::testing::Test {
protected:
    void SetUp() override
    {
        ASSERT_TRUE(desktop_ready());
        ASSERT_NE(resource_library_load(), nullptr) << "tagent.dll beside the tests";
        page_ = read_file_text(platform_executable_dir() + HELP_PAGE_FILE);
        ASSERT_FALSE(page_.empty()) << "the help page beside the programs";
        ASSERT_TRUE(browser_.ok());
    }
    void TearDown() override { std::filesystem::remove_all(folder_); }

    // True once the stand-in browser, which the shell starts on its own,
    // has copied the help page.
    bool page_opened()
    {
        return eventually([&] { return read_file_text(copy_) == page_; }, 30000);
    }

    std::filesystem::path folder_ = fresh_temp_folder("help");
    std::filesystem::path copy_ = folder_ / "opened.html";
    StandInBrowser browser_{copy_};
    std::string page_;
};

// The tray's topic opens the page, which explains every setting that the
// manager shows.
TEST_F(Help, TrayTopicOpensThePageBesideThePrograms)
{
    EXPECT_TRUE(open_help_topic(HELP_TOPIC_MANAGER));
    EXPECT_TRUE(page_opened());
    for (const char *name :
         {"ConfirmKeyOp", "AllowAdd", "AllowDelete", "UseOnlySha1", "CreateLog", "AutoLock", "AutoLockMinutes"})
        EXPECT_NE(page_.find(std::string("<code>") + name + "</code>"), std::string::npos) << name;
}

// Each passphrase dialog opens topic 1001 from its Help button and from the
// title bar's context-help command, and stays open for the answer.
TEST_F(Help, DialogsOpenThePageFromHelpAndContextHelp)
{
    const struct {
        int dialog;
        std::function<bool()> ask;
    } dialogs[] = {
        {133, [] { SecretString s; bool none = false; return ask_first_passphrase(nullptr, &s, &none); }},
        {124, [] { SecretString s; return ask_unlock_passphrase(&s); }},
        {219, [] { SecretString s; return ask_key_passphrase("prompt", &s); }},
    };
    for (bool context_help : {false, true}) {
        for (const auto &d : dialogs) {
            SCOPED_TRACE(testing::Message() << d.dialog << (context_help ? " context help" : " Help button"));
            std::filesystem::remove(copy_);
            int id = d.dialog;
            std::thread user([id, context_help] {
                HWND dialog = wait_for_dialog(resource_text(id));
                ASSERT_NE(dialog, nullptr);
                if (context_help)
                    SendMessageW(dialog, WM_SYSCOMMAND, SC_CONTEXTHELP, 0);
                else
                    press(dialog, CONTROL_HELP);
                EXPECT_TRUE(IsWindow(dialog));
                press(dialog, IDCANCEL);
            });
            EXPECT_FALSE(d.ask());
            user.join();
            EXPECT_TRUE(page_opened());
        }
    }
}

}  // namespace
