// The dialogs from tagent.dll driven from another thread as a user would;
// their help, which opens the page beside the programs through the .html
// association (a stand-in browser copies the file it is asked to open);
// and the agent's first start.

#include <cstring>
#include <thread>

#include "agent/settings.h"
#include "app/win32/dialogs.h"
#include "app/win32/help.h"
#include "win32/dialog_driver.h"

namespace {

std::wstring text(int id) { return resource_text(id); }

bool set_default_value(const wchar_t *key, const std::wstring &value)
{
    return RegSetKeyValueW(HKEY_CLASSES_ROOT, key, nullptr, REG_SZ, value.c_str(),
                           static_cast<DWORD>((value.size() + 1) * sizeof(wchar_t))) == ERROR_SUCCESS;
}

// Registers "open" for .html files as a copy to `copy` (Wine reads
// associations from the machine's classes only), and puts the association
// back when it goes.
class StandInBrowser {
public:
    explicit StandInBrowser(const std::filesystem::path &copy)
    {
        DWORD size = sizeof old_html_;
        had_html_ = !RegGetValueW(HKEY_CLASSES_ROOT, L".html", nullptr, RRF_RT_REG_SZ, nullptr, old_html_, &size);
        ok_ = set_default_value(L"TarnwellHelpProbe\\shell\\open\\command",
                                L"cmd.exe /c copy /y \"%1\" \"" + copy.wstring() + L"\"") &&
              set_default_value(L".html", L"TarnwellHelpProbe");
    }
    ~StandInBrowser()
    {
        if (!had_html_ || !set_default_value(L".html", old_html_))
            RegDeleteTreeW(HKEY_CLASSES_ROOT, L".html");
        RegDeleteTreeW(HKEY_CLASSES_ROOT, L"TarnwellHelpProbe");
    }
    StandInBrowser(const StandInBrowser &) = delete;
    StandInBrowser &operator=(const StandInBrowser &) = delete;
    bool ok() const { return ok_; }

private:
    bool had_html_ = false, ok_ = false;
    wchar_t old_html_[512] = L"";
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

// The string table holds the program texts and the icons are there; the
// tray's topic opens the page, which explains every setting that the
// manager shows.
TEST_F(Dialogs, ResourcesAndTheHelpPageBesideThePrograms)
{
    for (int id : {TEXT_APPLICATION_TITLE, TEXT_CONFIRM_KEY_OPERATION, TEXT_FATAL_ERROR, TEXT_PASSPHRASES_DIFFER}) {
        const wchar_t *loaded = nullptr;
        int length = LoadStringW(resource_library(), static_cast<UINT>(id), reinterpret_cast<LPWSTR>(&loaded), 0);
        EXPECT_EQ(std::wstring(loaded, static_cast<size_t>(std::max(length, 0))), utf8_to_wide(program_text(id))) << id;
    }
    for (int icon : {101, 234, 235})
        EXPECT_NE(FindResourceW(resource_library(), MAKEINTRESOURCEW(icon), MAKEINTRESOURCEW(14)), nullptr) << icon;
    EXPECT_TRUE(open_help_topic(HELP_TOPIC_MANAGER));
    EXPECT_TRUE(page_opened());
    for (const char *name :
         {"ConfirmKeyOp", "AllowAdd", "AllowDelete", "UseOnlySha1", "CreateLog", "AutoLock", "AutoLockMinutes"})
        EXPECT_NE(page_.find(std::string("<code>") + name + "</code>"), std::string::npos) << name;
}

// What the user does in each dialog, and what the asking code gets back.
// Cancel answers nothing; Help and the title bar's context help open the
// help page and leave the dialog open.
TEST_F(Dialogs, ReturnWhatTheUserTypedTickedOrCancelled)
{
    using Ask = std::function<bool(SecretString *, bool *)>;
    Ask first = [](SecretString *s, bool *none) { return ask_first_passphrase(GetDesktopWindow(), s, none); };
    Ask unlock = [](SecretString *s, bool *) { return ask_unlock_passphrase(s); };
    Ask key = [](SecretString *s, bool *) { return ask_key_passphrase("Enter the passphrase for 'id_rsa':", s); };
    auto help_then_cancel = [](bool context_help) {
        return [context_help](HWND d) {
            if (context_help)
                SendMessageW(d, WM_SYSCOMMAND, SC_CONTEXTHELP, 0);
            else
                press(d, CONTROL_HELP);
            EXPECT_TRUE(IsWindow(d));
            type_into(d, 126, L"never used");
            press(d, IDCANCEL);
        };
    };
    const struct {
        int dialog;
        Ask ask;
        std::function<void(HWND)> user;
        bool ok;
        const char *answer;
        bool no_passphrase, help;
    } cases[] = {
        {133, first, [](HWND d) {
             EXPECT_NE(GetPropW(d, L"ReadPassphraseParam"), nullptr);
             EXPECT_EQ(control_text(d, 145), text(222));
             type_into(d, 126, L"correct horse");
             press(d, IDOK);
         }, true, "correct horse", false, false},
        {133, first, [](HWND d) {  // no passphrase ticked, unticked and ticked again
             type_into(d, 126, L"typed before the tick");
             press(d, 221);
             EXPECT_FALSE(IsWindowEnabled(GetDlgItem(d, 126)));
             press(d, 221);
             EXPECT_TRUE(IsWindowEnabled(GetDlgItem(d, 126)));
             press(d, 221);
             press(d, IDOK);
         }, true, "", true, false},
        {219, key, [](HWND d) {
             EXPECT_EQ(control_text(d, 145), L"Enter the passphrase for 'id_rsa':");
             type_into(d, 126, L"p\u00e4ss");
             press(d, IDOK);
         }, true, "p\xc3\xa4ss", false, false},
        {133, first, help_then_cancel(false), false, "", false, true},
        {124, unlock, help_then_cancel(false), false, "", false, true},
        {219, key, help_then_cancel(false), false, "", false, true},
        {133, first, help_then_cancel(true), false, "", false, true},
        {124, unlock, help_then_cancel(true), false, "", false, true},
        {219, key, help_then_cancel(true), false, "", false, true},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(testing::Message() << "dialog " << c.dialog << " case " << (&c - cases));
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
        EXPECT_TRUE(!c.help || page_opened()) << "the help page was not opened";
    }
}

// The agent's first start asks for its passphrase in dialog 133 and is
// ready once the user has answered; the next start asks nothing. No
// passphrase ticked stores the empty one with AttemptEmpty; cancel ends
// the agent before it starts.
TEST_F(Dialogs, AgentAsksForItsPassphraseOnItsFirstStartOnly)
{
    for (int answer : {IDOK, 221, IDCANCEL}) {
        SCOPED_TRACE(answer);
        WindowsAgent agent;
        PROCESS_INFORMATION first = agent.launch();
        HWND dialog = wait_for_dialog(text(133));
        ASSERT_NE(dialog, nullptr) << agent.log();
        type_into(dialog, 126, L"first secret");
        if (answer == 221)
            press(dialog, 221);
        press(dialog, answer == 221 ? IDOK : answer);
        if (answer == IDCANCEL) {
            EXPECT_EQ(wait_exit(&first), 0);
            EXPECT_TRUE(agent.logged("keyagent: User cancelled agent passphrase initialization"));
            EXPECT_FALSE(agent.logged("Key Agent started"));
            continue;
        }
        ASSERT_NE(WindowsAgent::wait_ready_of(first), nullptr) << agent.log();
        PostMessageW(find_agent_window(), WM_CLOSE, 0, 0);
        EXPECT_EQ(wait_exit(&first), 0);
        EXPECT_TRUE(agent.logged("keyagent: Agent has a passphrase now"));
        std::string file = read_file_text(agent.path(AGENT_SETTINGS_FILE));
        AgentSettings settings = parse_agent_settings(reinterpret_cast<const uint8_t *>(file.data()), file.size());
        uint8_t digest[20];
        agent_passphrase_digest(answer == 221 ? "" : "first secret", digest);
        EXPECT_EQ(memcmp(digest, settings.passphrase_digest, sizeof digest), 0);
        EXPECT_EQ(settings.AttemptEmpty, answer == 221 ? 1u : 0u);
        if (answer == 221)
            continue;
        ASSERT_NE(agent.start(), nullptr);
        EXPECT_EQ(agent.close(), 0);
        EXPECT_LE(count_of(agent.log(), "Agent not initialized with passphrase yet"), 1u);
    }
}

}  // namespace
