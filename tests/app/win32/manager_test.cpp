// The manager window (tagent.exe without arguments) under Wine, driven as a
// user would: every action must reach the agent, its settings file and
// tagent.exe list.
#include <windows.h>

#include <gtest/gtest.h>

#include "agent/settings.h"
#include "app/program_texts.h"
#include "app/win32/manager_window.h"
#include "app/win32/resource_texts.h"
#include "app/win32/resources/manager_dialog.h"
#include "win32/dialog_driver.h"
#include "win32/windows_agent.h"

namespace {

// The manager window of a tagent.exe started by the test.
class Manager {
public:
    explicit Manager(const WindowsAgent &agent)
    {
        agent.use_folder();
        process_ = start_process(program_path("tagent.exe"), L"tagent.exe");
        window_ = wait_for_dialog(resource_text(TEXT_APPLICATION_TITLE));
    }
    ~Manager()
    {
        if (window_ && IsWindow(window_))
            PostMessageW(window_, WM_CLOSE, 0, 0);
        wait_exit(&process_);
    }
    HWND window() const { return window_; }
    // A click that opens a dialog is posted: it would return only when the
    // dialog is closed. Any other click returns once it is done.
    void click_later(int control) const
    {
        PostMessageW(window_, WM_COMMAND, MAKEWPARAM(control, BN_CLICKED),
                     reinterpret_cast<LPARAM>(GetDlgItem(window_, control)));
    }
    void click(int control) const
    {
        DWORD_PTR ignored = 0;
        EXPECT_TRUE(SendMessageTimeoutW(GetDlgItem(window_, control), BM_CLICK, 0, 0, SMTO_NORMAL, 30000, &ignored))
            << "the click on " << control << " did not return";
    }
    std::wstring state() const { return control_text(window_, MANAGER_STATE); }
    int identities() const
    {
        return static_cast<int>(SendDlgItemMessageW(window_, MANAGER_IDENTITIES, LB_GETCOUNT, 0, 0));
    }
    bool ended_within(DWORD ms) const { return WaitForSingleObject(process_.hProcess, ms) == WAIT_OBJECT_0; }

private:
    PROCESS_INFORMATION process_ = {};
    HWND window_ = nullptr;
};

AgentSettings settings_file(const WindowsAgent &agent)
{
    std::string text = read_file_text(agent.path(AGENT_SETTINGS_FILE));
    return parse_agent_settings(reinterpret_cast<const uint8_t *>(text.data()), text.size());
}

void answer_dialog(const std::wstring &title, std::initializer_list<std::pair<int, const wchar_t *>> fields)
{
    HWND dialog = wait_for_dialog(title);
    ASSERT_NE(dialog, nullptr) << "no dialog " << wide_to_utf8(title.c_str(), title.size());
    for (const auto &field : fields)
        type_into(dialog, field.first, field.second);
    press(dialog, IDOK);
}

}  // namespace

TEST(ManagerWindow, EveryActionReachesTheAgent)
{
    WindowsAgent agent;
    agent.seed_passphrase("old");
    ASSERT_NE(agent.start(), nullptr) << agent.log();
    Manager manager(agent);
    ASSERT_NE(manager.window(), nullptr);
    EXPECT_EQ(manager.state(), L"The agent is locked.");

    // Each setting switched and back, so that the rest runs as it started.
    const struct {
        int control;
        uint32_t AgentSettings::*field;
    } switches[] = {{MANAGER_CONFIRM_KEY_OP, &AgentSettings::ConfirmKeyOp},
                               {MANAGER_ALLOW_ADD, &AgentSettings::AllowAdd},
                               {MANAGER_ALLOW_DELETE, &AgentSettings::AllowDelete},
                               {MANAGER_USE_ONLY_SHA1, &AgentSettings::UseOnlySha1},
                               {MANAGER_CREATE_LOG, &AgentSettings::CreateLog}};
    // The auto-lock values, which only the manager writes, survive the
    // agent's rewrites of the file.
    manager.click(MANAGER_AUTO_LOCK);
    type_into(manager.window(), MANAGER_AUTO_LOCK_MINUTES, L"15");
    for (const auto &entry : switches) {
        SCOPED_TRACE(entry.control);
        uint32_t before = settings_file(agent).*entry.field;
        EXPECT_EQ(IsDlgButtonChecked(manager.window(), entry.control) == BST_CHECKED, before != 0)
            << "the window shows the file";
        for (uint32_t expected : {before ? 0u : 1u, before}) {
            manager.click(entry.control);
            AgentSettings after = settings_file(agent);
            EXPECT_EQ(after.*entry.field, expected);
            EXPECT_EQ(after.AutoLock, 1u);
            EXPECT_EQ(after.AutoLockMinutes, 15);
        }
    }

    manager.click_later(MANAGER_UNLOCK);
    answer_dialog(resource_text(TEXT_UNLOCK_DIALOG), {{126, L"old"}});
    EXPECT_TRUE(eventually([&] { return manager.state() == L"The agent is unlocked."; }));

    // A failure is shown with tagent's own line.
    type_into(manager.window(), MANAGER_KEY_FILE, utf8_to_wide(agent.path("missing.pem")));
    manager.click_later(MANAGER_ADD);
    HWND failure = wait_for_dialog(MANAGER_BOX_CAPTION);
    ASSERT_NE(failure, nullptr);
    EXPECT_NE(static_texts(failure).find(L"cannot read a private key from "), std::wstring::npos);
    press(failure, IDOK);

    // A key added in the window, its password asked in dialog 219.
    std::string key_file = agent.path("id_ecdsa.pem");
    EVP_PKEY_free(write_pem_key(key_file, "EC", "key password"));
    type_into(manager.window(), MANAGER_KEY_FILE, utf8_to_wide(key_file));
    manager.click_later(MANAGER_ADD);
    answer_dialog(resource_text(TEXT_KEY_PASSPHRASE_DIALOG), {{126, L"key password"}});
    EXPECT_TRUE(eventually([&] { return manager.identities() == 1; }));
    EXPECT_NE(agent.tagent("list").out.find("ECDSA 256  SHA256:"), std::string::npos);

    // The change of passphrase writes the store again under the new one.
    std::string store = read_file_text(agent.path("tAgentKeys"));
    manager.click_later(MANAGER_CHANGE_PASSPHRASE);
    answer_dialog(L"Change Agent Passphrase", {{CHANGE_OLD, L"old"}, {CHANGE_NEW, L"new"}, {CHANGE_REPEAT, L"new"}});
    HWND done = wait_for_dialog(MANAGER_BOX_CAPTION);
    ASSERT_NE(done, nullptr);
    press(done, IDOK);
    EXPECT_NE(read_file_text(agent.path("tAgentKeys")), store);
    manager.click(MANAGER_LOCK);
    EXPECT_TRUE(eventually([&] { return manager.state() == L"The agent is locked."; }));
    manager.click_later(MANAGER_UNLOCK);
    answer_dialog(resource_text(TEXT_UNLOCK_DIALOG), {{126, L"new"}});
    EXPECT_TRUE(eventually([&] { return manager.state() == L"The agent is unlocked."; }));

    SendDlgItemMessageW(manager.window(), MANAGER_IDENTITIES, LB_SETCURSEL, 0, 0);
    manager.click(MANAGER_REMOVE);
    EXPECT_TRUE(eventually([&] { return manager.identities() == 0; }));
    EXPECT_NE(agent.tagent("list").out.find("The agent has no identities."), std::string::npos);

    // Reset, confirmed: the agent destroys its data and stops, and closes
    // the manager on its way out.
    manager.click_later(MANAGER_RESET);
    HWND confirm = wait_for_dialog(MANAGER_BOX_CAPTION);
    ASSERT_NE(confirm, nullptr);
    press(confirm, IDYES);
    EXPECT_TRUE(manager.ended_within(20000));
    EXPECT_EQ(agent.close(), 0);
    EXPECT_FALSE(std::filesystem::exists(agent.path("tAgentKeys")));
    EXPECT_FALSE(std::filesystem::exists(agent.path(AGENT_SETTINGS_FILE)));
}
