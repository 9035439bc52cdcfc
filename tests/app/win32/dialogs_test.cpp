// The dialogs from tagent.dll driven from another thread as a user would;
// their help, which opens the page beside the programs through the .html
// association (a stand-in browser copies the file it is asked to open);
// and the agent's first start.
#include <windows.h>

#include <gtest/gtest.h>

#include <cstring>
#include <functional>
#include <thread>

#include "agent/settings.h"
#include "app/program_texts.h"
#include "app/win32/dialogs.h"
#include "app/win32/help.h"
#include "app/win32/resource_texts.h"
#include "win32/dialog_driver.h"
#include "win32/windows_agent.h"

namespace {

std::wstring text(int id) { return resource_text(id); }

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

class Dialogs : public ::testing::Test {
protected:
    void SetUp() override
    {
        ASSERT_TRUE(desktop_ready());
        ASSERT_NE(resource_library_load(), nullptr) << "tagent.dll beside the tests";
        page_ = read_file_text(platform_executable_dir() + HELP_PAGE_FILE);
        ASSERT_FALSE(page_.empty()) << "the help page beside the programs";
        ASSERT_TRUE(browser_.ok());
    }
    void TearDown() override { EXPECT_TRUE(remove_folder(folder_)); }

    // True once the stand-in browser, which the shell starts on its own,
    // has copied the help page; the copy is then removed.
    bool page_opened()
    {
        bool opened = eventually([&] { return read_file_text(copy_) == page_; }, 30000);
        std::filesystem::remove(copy_);
        return opened;
    }

    std::filesystem::path folder_ = fresh_temp_folder("help");
    std::filesystem::path copy_ = folder_ / "opened.html";
    StandInBrowser browser_{copy_};
    std::string page_;
};

// The tray's topic opens the page, which explains every setting that the
// manager shows.
TEST_F(Dialogs, HelpTopicOpensThePageBesideThePrograms)
{
    EXPECT_TRUE(open_help_topic(HELP_TOPIC_MANAGER));
    EXPECT_TRUE(page_opened());
    for (const char *name :
         {"ConfirmKeyOp", "AllowAdd", "AllowDelete", "UseOnlySha1", "CreateLog", "AutoLock", "AutoLockMinutes"})
        EXPECT_NE(page_.find(std::string("<code>") + name + "</code>"), std::string::npos) << name;
}

TEST_F(Dialogs, StringTableHoldsTheProgramTexts)
{
    for (int id : {TEXT_APPLICATION_TITLE, TEXT_CONFIRM_KEY_OPERATION, TEXT_FATAL_ERROR, TEXT_PASSPHRASES_DIFFER}) {
        const wchar_t *loaded = nullptr;
        int length = LoadStringW(resource_library(), static_cast<UINT>(id), reinterpret_cast<LPWSTR>(&loaded), 0);
        EXPECT_EQ(std::wstring(loaded, static_cast<size_t>(std::max(length, 0))), utf8_to_wide(program_text(id))) << id;
    }
    for (int icon : {101, 234, 235})
        EXPECT_NE(FindResourceW(resource_library(), MAKEINTRESOURCEW(icon), MAKEINTRESOURCEW(14)), nullptr) << icon;
}

// What the user does in each dialog, and what the asking code gets back.
TEST_F(Dialogs, ReturnWhatTheUserTypedTickedOrCancelled)
{
    auto first = [](SecretString *s, bool *none) { return ask_first_passphrase(GetDesktopWindow(), s, none); };
    auto unlock = [](SecretString *s, bool *) { return ask_unlock_passphrase(s); };
    auto key = [](SecretString *s, bool *) { return ask_key_passphrase("Enter the passphrase for 'id_rsa':", s); };
    const struct {
        const char *what;
        int dialog;
        std::function<bool(SecretString *, bool *)> ask;
        std::function<void(HWND)> user;
        bool ok;
        const char *answer;
        bool no_passphrase;
    } cases[] = {
        {"first typed", 133, first,
         [](HWND d) {
             EXPECT_NE(GetPropW(d, L"ReadPassphraseParam"), nullptr);
             EXPECT_EQ(control_text(d, 145), text(222));
             type_into(d, 126, L"correct horse");
             press(d, IDOK);
         },
         true, "correct horse", false},
        {"first without passphrase", 133, first,
         [](HWND d) {
             type_into(d, 126, L"typed before the tick");
             press(d, 221);
             EXPECT_FALSE(IsWindowEnabled(GetDlgItem(d, 126)));
             press(d, 221);
             EXPECT_TRUE(IsWindowEnabled(GetDlgItem(d, 126)));
             press(d, 221);
             press(d, IDOK);
         },
         true, "", true},
        {"key prompt", 219, key,
         [](HWND d) {
             EXPECT_EQ(control_text(d, 145), L"Enter the passphrase for 'id_rsa':");
             type_into(d, 126, L"p\u00e4ss");
             press(d, IDOK);
         },
         true, "p\xc3\xa4ss", false},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.what);
        SecretString answer;
        bool none = false;
        std::thread user([&] {
            HWND dialog = wait_for_dialog(text(c.dialog));
            ASSERT_NE(dialog, nullptr);
            c.user(dialog);
        });
        EXPECT_EQ(c.ask(&answer, &none), c.ok);
        user.join();
        EXPECT_STREQ(answer.c_str(), c.answer);
        EXPECT_EQ(none, c.no_passphrase);
    }
    // Cancel answers nothing; Help and the title bar's context help open
    // topic 1001 and leave the dialog open.
    using Ask = std::function<bool(SecretString *, bool *)>;
    for (bool context_help : {false, true}) {
        for (const auto &[dialog, ask] : {std::pair<int, Ask>{133, first}, {124, unlock}, {219, key}}) {
            SCOPED_TRACE(testing::Message() << dialog << (context_help ? " context help" : " Help button"));
            SecretString answer;
            bool none = false;
            std::thread user([dialog = dialog, context_help] {
                HWND window = wait_for_dialog(text(dialog));
                ASSERT_NE(window, nullptr);
                if (context_help)
                    SendMessageW(window, WM_SYSCOMMAND, SC_CONTEXTHELP, 0);
                else
                    press(window, CONTROL_HELP);
                EXPECT_TRUE(IsWindow(window));
                type_into(window, 126, L"never used");
                press(window, IDCANCEL);
            });
            EXPECT_FALSE(ask(&answer, &none));
            user.join();
            EXPECT_TRUE(answer.empty());
            EXPECT_TRUE(page_opened());
        }
    }
}

TEST_F(Dialogs, ConfirmationNamesTheKeyAndFollowsTheAnswer)
{
    for (int button : {IDYES, IDNO}) {
        std::thread user([button] {
            HWND box = wait_for_dialog(text(101));
            ASSERT_NE(box, nullptr);
            EXPECT_NE(static_texts(box).find(L"'work key'"), std::wstring::npos);
            press(box, button);
        });
        EXPECT_EQ(confirm_key_operation("work key"), button == IDYES);
        user.join();
    }
}

// The agent's first start asks for its passphrase in dialog 133 and is
// ready once the user has answered; the next start asks nothing. No
// passphrase ticked stores the empty one with AttemptEmpty.
TEST_F(Dialogs, AgentAsksForItsPassphraseOnItsFirstStartOnly)
{
    for (bool tick : {false, true}) {
        SCOPED_TRACE(tick ? "no passphrase" : "typed");
        WindowsAgent agent;
        PROCESS_INFORMATION first = agent.launch();
        HWND dialog = wait_for_dialog(text(133));
        ASSERT_NE(dialog, nullptr) << agent.log();
        type_into(dialog, 126, L"first secret");
        if (tick)
            press(dialog, 221);
        press(dialog, IDOK);
        ASSERT_NE(WindowsAgent::wait_ready_of(first), nullptr) << agent.log();
        PostMessageW(find_agent_window(), WM_CLOSE, 0, 0);
        EXPECT_EQ(wait_exit(&first), 0);
        EXPECT_TRUE(agent.logged("keyagent: Agent has a passphrase now"));
        std::string file = read_file_text(agent.path(AGENT_SETTINGS_FILE));
        AgentSettings settings = parse_agent_settings(reinterpret_cast<const uint8_t *>(file.data()), file.size());
        uint8_t digest[20];
        agent_passphrase_digest(tick ? "" : "first secret", digest);
        EXPECT_EQ(memcmp(digest, settings.passphrase_digest, sizeof digest), 0);
        EXPECT_EQ(settings.AttemptEmpty, tick ? 1u : 0u);
        if (tick)
            continue;
        ASSERT_NE(agent.start(), nullptr);
        EXPECT_EQ(agent.close(), 0);
        EXPECT_LE(count_of(agent.log(), "Agent not initialized with passphrase yet"), 1u);
    }
}

TEST_F(Dialogs, CancelledFirstPassphraseEndsTheAgent)
{
    WindowsAgent agent;
    PROCESS_INFORMATION process = agent.launch();
    HWND dialog = wait_for_dialog(text(133));
    ASSERT_NE(dialog, nullptr);
    press(dialog, IDCANCEL);
    EXPECT_EQ(wait_exit(&process), 0);
    EXPECT_TRUE(agent.logged("keyagent: User cancelled agent passphrase initialization"));
    EXPECT_FALSE(agent.logged("Key Agent started"));
}

}  // namespace
