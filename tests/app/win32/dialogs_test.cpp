// The passphrase dialogs from tagent.dll and the confirmation message box,
// driven from another thread as a user would.
#include <windows.h>

#include <gtest/gtest.h>

#include <functional>
#include <thread>

#include "app/program_texts.h"
#include "app/win32/dialogs.h"
#include "app/win32/resource_texts.h"
#include "win32/dialog_driver.h"
#include "win32/windows_agent.h"

namespace {

std::wstring text(int id) { return resource_text(id); }

class Dialogs : public ::testing::Test {
protected:
    void SetUp() override
    {
        ASSERT_TRUE(desktop_ready());
        ASSERT_NE(resource_library_load(), nullptr) << "tagent.dll beside the tests";
    }

    // Runs `user` on a thread of its own while the dialog runs here.
    template <typename Dialog>
    auto with_user(std::function<void()> user, Dialog dialog)
    {
        std::thread acting(user);
        auto result = dialog();
        acting.join();
        return result;
    }
};

TEST_F(Dialogs, StringTableHoldsTheProgramTexts)
{
    for (int id : {TEXT_APPLICATION_TITLE, TEXT_CONFIRM_KEY_OPERATION, TEXT_FATAL_ERROR, TEXT_PASSPHRASES_DIFFER}) {
        const wchar_t *loaded = nullptr;
        int length = LoadStringW(resource_library(), static_cast<UINT>(id), reinterpret_cast<LPWSTR>(&loaded), 0);
        ASSERT_GT(length, 0) << id;
        std::wstring from_table(program_text(id), program_text(id) + strlen(program_text(id)));
        EXPECT_EQ(std::wstring(loaded, static_cast<size_t>(length)), from_table) << id;
    }
    for (int icon : {101, 234, 235})
        EXPECT_NE(FindResourceW(resource_library(), MAKEINTRESOURCEW(icon), MAKEINTRESOURCEW(14)), nullptr) << icon;
}

TEST_F(Dialogs, FirstPassphraseReturnsTheTypedText)
{
    SecretString passphrase;
    bool no_passphrase = true;
    bool ok = with_user(
        [] {
            HWND dialog = wait_for_dialog(text(133));
            ASSERT_NE(dialog, nullptr);
            EXPECT_NE(GetPropW(dialog, L"ReadPassphraseParam"), nullptr);
            EXPECT_EQ(control_text(dialog, 145), text(222));
            type_into(dialog, 126, L"correct horse");
            press(dialog, IDOK);
        },
        [&] { return ask_first_passphrase(GetDesktopWindow(), &passphrase, &no_passphrase); });
    EXPECT_TRUE(ok);
    EXPECT_FALSE(no_passphrase);
    EXPECT_STREQ(passphrase.c_str(), "correct horse");
}

TEST_F(Dialogs, NoPassphraseBoxDisablesTheFieldAndReturnsNoText)
{
    SecretString passphrase;
    bool no_passphrase = false;
    bool ok = with_user(
        [] {
            HWND dialog = wait_for_dialog(text(133));
            ASSERT_NE(dialog, nullptr);
            type_into(dialog, 126, L"typed before the tick");
            press(dialog, 221);
            EXPECT_FALSE(IsWindowEnabled(GetDlgItem(dialog, 126)));
            press(dialog, 221);
            EXPECT_TRUE(IsWindowEnabled(GetDlgItem(dialog, 126)));
            press(dialog, 221);
            press(dialog, IDOK);
        },
        [&] { return ask_first_passphrase(GetDesktopWindow(), &passphrase, &no_passphrase); });
    EXPECT_TRUE(ok);
    EXPECT_TRUE(no_passphrase);
    EXPECT_TRUE(passphrase.empty());
}

TEST_F(Dialogs, CancelAnswersNothing)
{
    const struct {
        int dialog;
        std::function<bool(SecretString *)> ask;
    } cases[] = {
        {133, [](SecretString *s) { bool none = false; return ask_first_passphrase(nullptr, s, &none); }},
        {124, [](SecretString *s) { return ask_unlock_passphrase(s); }},
        {219, [](SecretString *s) { return ask_key_passphrase("prompt", s); }},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.dialog);
        SecretString answer;
        int id = c.dialog;
        bool ok = with_user(
            [id] {
                HWND dialog = wait_for_dialog(text(id));
                ASSERT_NE(dialog, nullptr);
                type_into(dialog, 126, L"never used");
                press(dialog, IDCANCEL);
            },
            [&] { return c.ask(&answer); });
        EXPECT_FALSE(ok);
        EXPECT_TRUE(answer.empty());
    }
}

TEST_F(Dialogs, KeyPassphrasePromptShowsThePromptAndReturnsTheText)
{
    SecretString answer;
    bool ok = with_user(
        [] {
            HWND dialog = wait_for_dialog(text(219));
            ASSERT_NE(dialog, nullptr);
            EXPECT_EQ(control_text(dialog, 145), L"Enter the passphrase for the key 'id_rsa':");
            type_into(dialog, 126, L"p\u00e4ss");
            press(dialog, IDOK);
        },
        [&] { return ask_key_passphrase("Enter the passphrase for the key 'id_rsa':", &answer); });
    EXPECT_TRUE(ok);
    EXPECT_STREQ(answer.c_str(), "p\xc3\xa4ss");
}

TEST_F(Dialogs, ConfirmationNamesTheKeyAndFollowsTheAnswer)
{
    for (int button : {IDYES, IDNO}) {
        bool yes = with_user(
            [button] {
                HWND box = wait_for_dialog(text(101));
                ASSERT_NE(box, nullptr);
                EXPECT_NE(static_texts(box).find(L"'work key'"), std::wstring::npos);
                press(box, button);
            },
            [] { return confirm_key_operation("work key"); });
        EXPECT_EQ(yes, button == IDYES);
    }
}

// The agent's first start asks for its passphrase in dialog 133; it is
// ready once the user has answered, and the next start asks nothing.
TEST(TkeyagentFirstStart, AsksForThePassphraseOnce)
{
    WindowsAgent agent;
    ASSERT_NE(resource_library_load(), nullptr);
    PROCESS_INFORMATION first = agent.launch();
    HWND dialog = wait_for_dialog(text(133));
    ASSERT_NE(dialog, nullptr) << agent.log();
    type_into(dialog, 126, L"first secret");
    press(dialog, IDOK);
    ASSERT_NE(WindowsAgent::wait_ready_of(first), nullptr) << agent.log();
    PostMessageW(find_agent_window(), WM_CLOSE, 0, 0);
    EXPECT_EQ(WindowsAgent::wait_exit(&first), 0);
    std::string log = agent.log();
    EXPECT_NE(log.find("keyagent: Agent has a passphrase now"), std::string::npos);
    EXPECT_TRUE(std::filesystem::exists(agent.path("tAgent")));

    ASSERT_NE(agent.start(), nullptr);
    EXPECT_EQ(agent.close(), 0);
    log = agent.log();
    EXPECT_EQ(log.find("Agent not initialized with passphrase yet"),
              log.rfind("Agent not initialized with passphrase yet"));
}

TEST(TkeyagentFirstStart, CancelledDialogEndsTheStart)
{
    WindowsAgent agent;
    ASSERT_NE(resource_library_load(), nullptr);
    PROCESS_INFORMATION process = agent.launch();
    HWND dialog = wait_for_dialog(text(133));
    ASSERT_NE(dialog, nullptr);
    press(dialog, IDCANCEL);
    EXPECT_EQ(WindowsAgent::wait_exit(&process), 0);
    std::string log = agent.log();
    EXPECT_NE(log.find("keyagent: User cancelled agent passphrase initialization"), std::string::npos);
    EXPECT_EQ(log.find("Key Agent started"), std::string::npos);
}

// The menu's unlock asks in dialog 124; a wrong passphrase is reported in
// message box 123 and leaves the agent locked, the right one unlocks it.
TEST(TkeyagentUnlock, MenuUnlockThroughDialog124)
{
    WindowsAgent agent;
    ASSERT_NE(resource_library_load(), nullptr);
    agent.seed_passphrase("the right one");
    HWND window = agent.start();
    ASSERT_NE(window, nullptr) << agent.log();

    PostMessageW(window, WM_COMMAND, 40003, 0);
    HWND dialog = wait_for_dialog(text(124));
    ASSERT_NE(dialog, nullptr) << agent.log();
    type_into(dialog, 126, L"a wrong one");
    press(dialog, IDOK);
    HWND box = wait_for_dialog(text(101));
    ASSERT_NE(box, nullptr) << agent.log();
    EXPECT_NE(static_texts(box).find(text(123)), std::wstring::npos);
    PostMessageW(box, WM_CLOSE, 0, 0);
    EXPECT_NE(agent.log().find("keyagent: Unlock failed: wrong passphrase"), std::string::npos);

    PostMessageW(window, WM_COMMAND, 40003, 0);
    dialog = wait_for_dialog(text(124));
    ASSERT_NE(dialog, nullptr) << agent.log();
    type_into(dialog, 126, L"the right one");
    press(dialog, IDOK);
    EXPECT_EQ(agent.close(), 0);
    EXPECT_NE(agent.log().find("keyagent: UNLOCKED"), std::string::npos) << agent.log();
}

}  // namespace
