// tkeyagent.exe under Wine: start, single instance, the settings messages,
// and the orderly stop.
#include <gtest/gtest.h>

#include <cstdio>
#include <cstring>
#include <filesystem>

#include "agent/settings.h"
#include "win32/windows_agent.h"

namespace {

struct SettingMessage {
    UINT message;
    uint32_t default_value;
    const char *name;
};

// Each setting message stores a new value (result 1, the settings file is
// rewritten) and ignores the value it has (result 0, nothing written).
TEST(Tkeyagent, StartsOnceAnswersSettingsAndStopsInOrder)
{
    WindowsAgent agent;
    agent.seed_passphrase("");
    HWND window = agent.start();
    ASSERT_NE(window, nullptr) << agent.log();
    printf("tkeyagent.exe answered ready %llu ms after its start\n", static_cast<unsigned long long>(agent.ready_ms()));
    EXPECT_NE(log_position(agent.log(), "keyagent: Key Agent started ==========="), std::string::npos);
    EXPECT_NE(log_position(agent.log(), "keyagent: Key agent is ready to create pipe connections."), std::string::npos);

    PROCESS_INFORMATION second = agent.launch();
    EXPECT_EQ(WindowsAgent::wait_exit(&second), 0);
    EXPECT_NE(log_position(agent.log(), "keyagent: Key Agent already running. Exit."), std::string::npos);
    EXPECT_EQ(find_agent_window(), window);

    const SettingMessage settings[] = {
        {1029, 0, "ConfirmKeyOp"}, {1030, 1, "AllowAdd"}, {1031, 1, "AllowDelete"}, {1033, 0, "UseOnlySha1"}};
    std::string settings_file = agent.path("tAgent");
    for (const SettingMessage &setting : settings) {
        SCOPED_TRACE(setting.name);
        uint32_t changed = setting.default_value ? 0 : 1;
        EXPECT_EQ(SendMessageW(window, setting.message, 0, changed), 1);
        std::string written = read_file_text(settings_file);
        EXPECT_NE(written.find(setting.name), std::string::npos);
        std::filesystem::remove(settings_file);
        EXPECT_EQ(SendMessageW(window, setting.message, 0, changed), 0);
        EXPECT_FALSE(std::filesystem::exists(settings_file)) << "an unchanged setting was written";
        std::ofstream(settings_file, std::ios::binary) << written;
    }

    EXPECT_EQ(agent.close(), 0);
    std::string log = agent.log();
    size_t stopped = log_position(log, "keyagent: Key Agent stopped ===========");
    size_t thread_stopped = log_position(log, "keyagent: Process message thread stopped.");
    ASSERT_NE(stopped, std::string::npos);
    ASSERT_NE(thread_stopped, std::string::npos);
    EXPECT_LT(stopped, thread_stopped);
    EXPECT_LT(log_position(log, "keyagent: Crypto cleanup"), thread_stopped);
    EXPECT_EQ(find_agent_window(), nullptr);
}

// The copy-data record of a change of passphrase: old at 0, new at 256, the
// empty flag at 512.
LRESULT send_change_passphrase(HWND window, const char *old_passphrase, const char *new_passphrase)
{
    char record[516] = {};
    snprintf(record, 256, "%s", old_passphrase);
    snprintf(record + 256, 256, "%s", new_passphrase);
    COPYDATASTRUCT data = {1027, sizeof record, record};
    return SendMessageW(window, WM_COPYDATA, 0, reinterpret_cast<LPARAM>(&data));
}

// Another process changes the passphrase (a wrong old one changes nothing),
// stops the agent through the menu's exit command, and resets its data.
TEST(Tkeyagent, ChangePassphraseMenuExitAndReset)
{
    WindowsAgent agent;
    agent.seed_passphrase("old passphrase");
    HWND window = agent.start();
    ASSERT_NE(window, nullptr) << agent.log();
    EXPECT_EQ(send_change_passphrase(window, "wrong", "new passphrase"), 0);
    EXPECT_NE(log_position(agent.log(), "keyagent: Change passphrase failed: wrong passphrase"), std::string::npos);
    EXPECT_EQ(send_change_passphrase(window, "old passphrase", "new passphrase"), 1);
    EXPECT_NE(log_position(agent.log(), "keyagent: Change passphrase succeeded"), std::string::npos);

    PostMessageW(window, WM_COMMAND, 40005, 0);
    EXPECT_EQ(agent.close(), 0);
    EXPECT_NE(log_position(agent.log(), "keyagent: Key Agent stopped ==========="), std::string::npos);
    // The settings file now takes the new passphrase alone.
    agent_data_folder_set(agent.folder().string());
    read_agent_settings();
    uint8_t digest[20];
    agent_passphrase_digest("new passphrase", digest);
    EXPECT_EQ(memcmp(digest, agent_settings().passphrase_digest, sizeof digest), 0);

    window = agent.start();
    ASSERT_NE(window, nullptr) << agent.log();
    SendMessageW(window, 1026, 0, 0);
    EXPECT_EQ(agent.close(), 0);
    for (const char *name : {"tAgent", "tAgentKeys", "tAgentKeys.pub"})
        EXPECT_FALSE(std::filesystem::exists(agent.path(name))) << name;
    EXPECT_NE(log_position(agent.log(), "keyagent: Resetting key agent data.  All keys destroyed and passphrase reset."),
              std::string::npos);
}

}  // namespace
