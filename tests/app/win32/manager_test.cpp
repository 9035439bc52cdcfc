// The manager window (tagent.exe without arguments) under Wine, driven as a
// user would: every action must reach the agent, its settings file and
// tagent.exe list.

#include "agent/settings.h"
#include "app/win32/manager_window.h"
#include "app/win32/resources/manager_dialog.h"
#include "win32/dialog_driver.h"

namespace {

AgentSettings settings_file(const WindowsAgent &agent)
{
    std::string text = read_file_text(agent.path(AGENT_SETTINGS_FILE));
    return parse_agent_settings(reinterpret_cast<const uint8_t *>(text.data()), text.size());
}

}  // namespace

TEST(ManagerWindow, EveryActionReachesTheAgent)
{
    WindowsAgent agent;
    agent.seed_passphrase("old");
    ASSERT_NE(agent.start(), nullptr) << agent.log();
    agent.use_folder();
    PROCESS_INFORMATION process = start_process(program_path("tagent.exe"), L"tagent.exe");
    HWND manager = wait_for_dialog(resource_text(TEXT_APPLICATION_TITLE));
    ASSERT_NE(manager, nullptr);
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
    // The auto-lock values, which only the manager writes, survive the
    // agent's rewrites of the file.
    click(MANAGER_AUTO_LOCK);
    type_into(manager, MANAGER_AUTO_LOCK_MINUTES, L"15");
    const std::pair<int, uint32_t AgentSettings::*> switches[] = {
        {MANAGER_CONFIRM_KEY_OP, &AgentSettings::ConfirmKeyOp}, {MANAGER_ALLOW_ADD, &AgentSettings::AllowAdd},
        {MANAGER_ALLOW_DELETE, &AgentSettings::AllowDelete}, {MANAGER_USE_ONLY_SHA1, &AgentSettings::UseOnlySha1},
        {MANAGER_CREATE_LOG, &AgentSettings::CreateLog}};
    for (const auto &[control, field] : switches) {
        SCOPED_TRACE(control);
        uint32_t before = settings_file(agent).*field;
        EXPECT_EQ(IsDlgButtonChecked(manager, control) == BST_CHECKED, before != 0) << "the window shows the file";
        for (uint32_t expected : {before ? 0u : 1u, before}) {
            click(control);
            AgentSettings after = settings_file(agent);
            EXPECT_EQ(after.*field, expected);
            EXPECT_EQ(after.AutoLock, 1u);
            EXPECT_EQ(after.AutoLockMinutes, 15);
        }
    }

    click_later(MANAGER_UNLOCK);
    answer_dialog(resource_text(TEXT_UNLOCK_DIALOG), {{126, L"old"}});
    EXPECT_TRUE(shows(L"The agent is unlocked."));

    // A failure is shown with tagent's own line.
    type_into(manager, MANAGER_KEY_FILE, utf8_to_wide(agent.path("missing.pem")));
    click_later(MANAGER_ADD);
    HWND failure = wait_for_dialog(MANAGER_BOX_CAPTION);
    ASSERT_NE(failure, nullptr);
    EXPECT_NE(static_texts(failure).find(L"cannot read a private key from "), std::wstring::npos);
    press(failure, IDOK);

    // A key added in the window, its password asked in dialog 219.
    std::string key_file = agent.path("id_ecdsa.pem");
    EVP_PKEY_free(write_pem_key(key_file, "EC", "key password"));
    type_into(manager, MANAGER_KEY_FILE, utf8_to_wide(key_file));
    click_later(MANAGER_ADD);
    answer_dialog(resource_text(TEXT_KEY_PASSPHRASE_DIALOG), {{126, L"key password"}});
    EXPECT_TRUE(eventually([&] { return identities() == 1; }));
    EXPECT_NE(agent.tagent("list").out.find("ECDSA 256  SHA256:"), std::string::npos);

    // The change of passphrase writes the store again under the new one.
    std::string store = read_file_text(agent.path("tAgentKeys"));
    click_later(MANAGER_CHANGE_PASSPHRASE);
    answer_dialog(L"Change Agent Passphrase", {{CHANGE_OLD, L"old"}, {CHANGE_NEW, L"new"}, {CHANGE_REPEAT, L"new"}});
    answer_dialog(MANAGER_BOX_CAPTION, {});
    EXPECT_NE(read_file_text(agent.path("tAgentKeys")), store);
    click(MANAGER_LOCK);
    EXPECT_TRUE(shows(L"The agent is locked."));
    click_later(MANAGER_UNLOCK);
    answer_dialog(resource_text(TEXT_UNLOCK_DIALOG), {{126, L"new"}});
    EXPECT_TRUE(shows(L"The agent is unlocked."));

    SendDlgItemMessageW(manager, MANAGER_IDENTITIES, LB_SETCURSEL, 0, 0);
    click(MANAGER_REMOVE);
    EXPECT_TRUE(eventually([&] { return identities() == 0; }));
    EXPECT_NE(agent.tagent("list").out.find("The agent has no identities."), std::string::npos);

    // Reset, confirmed: the agent destroys its data and stops, and closes
    // the manager on its way out.
    click_later(MANAGER_RESET);
    answer_dialog(MANAGER_BOX_CAPTION, {}, IDYES);
    EXPECT_NE(wait_exit(&process, 20000), -1) << "the manager is still open";
    EXPECT_EQ(agent.close(), 0);
    EXPECT_FALSE(std::filesystem::exists(agent.path("tAgentKeys")));
    EXPECT_FALSE(std::filesystem::exists(agent.path(AGENT_SETTINGS_FILE)));
}
