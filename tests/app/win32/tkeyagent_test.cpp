// tkeyagent.exe under Wine: its command line, start, single instance, its
// window messages, its per-client pipes, and the orderly stop.

#include <cstring>
#include <thread>

#include "agent/settings.h"
#include "app/win32/command_line.h"
#include "app/win32/pipe_name.h"
#include "win32/agent_channels.h"

namespace {

TEST(PipeName, KeepsLettersAndDigitsOfDomainAndUser)
{
    const struct {
        const char *domain, *user, *name;
    } cases[] = {
        {"WORKGROUP", "j.doe", "\\\\.\\pipe\\TarnwellAgentPipe42_WORKGROUP_jdoe"},
        {nullptr, "alice", "\\\\.\\pipe\\TarnwellAgentPipe42_USERDOMAIN_alice"},
        {"CORP-10", "", "\\\\.\\pipe\\TarnwellAgentPipe42_CORP10_USERNAME"},
        {"..", "--", "\\\\.\\pipe\\TarnwellAgentPipe42_USERDOMAIN_USERNAME"},
    };
    for (const auto &c : cases)
        EXPECT_EQ(agent_pipe_name(42, c.domain, c.user), c.name);
    EXPECT_EQ(agent_pipe_name(42, "D", std::string(400, 'u').c_str()).size(), 259u);
}

TEST(CommandLineNumber, ReadsTheWholeLineAsOneSignedNumber)
{
    const struct {
        const wchar_t *line;
        int64_t number;
    } cases[] = {
        {L"132456", 132456},
        {L"  77", 77},
        {L"-5", -5},
        {L"9223372036854775807", INT64_MAX},
        {L"12abc", 12},
        {L"", 0},
        {L"C:\\Programs\\tkeyagent.exe 1234", 0},
        {L"abc", 0},
    };
    for (const auto &c : cases)
        EXPECT_EQ(command_line_number(c.line), c.number) << std::wstring(c.line).size();
}

// The log lines of an orderly stop, in their order.
void expect_stopped_in_order(const std::string &log)
{
    size_t cleanup = log.find("keyagent: Crypto cleanup");
    size_t thread_stopped = log.find("keyagent: Process message thread stopped.");
    EXPECT_NE(thread_stopped, std::string::npos) << log;
    EXPECT_LT(log.find("keyagent: Key Agent stopped ==========="), cleanup) << log;
    EXPECT_LT(cleanup, thread_stopped) << log;
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

// Two clients get two names and independent connections with the user-only
// access list; reads are joined up to a request and cut at 131072 bytes;
// garbage, a vanishing client and a pipe nobody opens disturb no other. A
// second start, the setting messages (1 and a write when changed, 0 and no
// write when not), the change of passphrase, the menu's exit and reset.
TEST(Tkeyagent, ServesPipesAndMessagesStartsOnceAndStopsInOrder)
{
    WindowsAgent agent;
    agent.seed_passphrase("old passphrase");
    HWND window = agent.start();
    ASSERT_NE(window, nullptr) << agent.log();
    uint32_t first_id = 0, second_id = 0;
    EXPECT_NE(SendMessageW(window, 1034, 0, 0), 0) << "a pipe that nobody opens";
    WinHandle first = agent_pipe_open(window, {}, &first_id), second = agent_pipe_open(window, {}, &second_id);
    ASSERT_TRUE(first && second);
    EXPECT_NE(first_id, second_id);
    EXPECT_TRUE(lists(second.get()) && lists(first.get()) && lists(second.get()));
    EXPECT_TRUE(agent.logged("keyagent: Created key agent pipe (id = " + std::to_string(first_id) + ")."));
    expect_user_only(first.get());

    // One byte, then four more: the agent's first read takes the one alone.
    ASSERT_TRUE(write_bytes(first.get(), {LIST_REQUEST[0]}));
    Sleep(100);
    ASSERT_TRUE(write_bytes(first.get(), Bytes(LIST_REQUEST.begin() + 1, LIST_REQUEST.end())));
    EXPECT_EQ(reply_type(read_reply(first.get())), IDENTITIES_ANSWER);

    // The first read takes 131072 bytes of a 200000-byte request, which is
    // left unanswered; the rest starts with a whole list request.
    Bytes request = frame(Bytes(200000 - 4, 0));
    request[4] = REQUEST_IDENTITIES;
    std::copy(LIST_REQUEST.begin(), LIST_REQUEST.end(), request.begin() + 131072);
    std::thread writer([&] { EXPECT_TRUE(write_bytes(first.get(), request)); });
    EXPECT_EQ(reply_type(read_reply(first.get())), IDENTITIES_ANSWER);
    writer.join();
    EXPECT_TRUE(lists(first.get()));
    EXPECT_TRUE(agent.logged("keyagent: Incomplete client request ignored"));

    for (const Bytes &bad : {Bytes{0xff, 0xff, 0xff, 0xff, SIGN_REQUEST, 1, 2, 3}, Bytes{0, 0, 0}}) {
        EXPECT_TRUE(write_bytes(agent_pipe_open(window).get(), bad));
        EXPECT_TRUE(lists(second.get()));
    }
    EXPECT_TRUE(lists(agent_pipe_open(window).get()) && lists(first.get()));
    first = WinHandle(), second = WinHandle();

    EXPECT_TRUE(agent.logged("keyagent: Key Agent started ==========="));
    PROCESS_INFORMATION second_start = agent.launch();
    EXPECT_EQ(wait_exit(&second_start), 0);
    EXPECT_TRUE(agent.logged("keyagent: Key Agent already running. Exit."));
    EXPECT_EQ(find_agent_window(), window);

    const struct {
        UINT message;
        uint32_t changed;
        const char *name;
    } settings[] = {{1029, 1, "ConfirmKeyOp"}, {1030, 0, "AllowAdd"}, {1031, 0, "AllowDelete"}, {1033, 1, "UseOnlySha1"}};
    std::string settings_file = agent.path("tAgent");
    for (const auto &setting : settings) {
        SCOPED_TRACE(setting.name);
        EXPECT_EQ(SendMessageW(window, setting.message, 0, setting.changed), 1);
        std::string written = read_file_text(settings_file);
        EXPECT_NE(written.find(setting.name), std::string::npos);
        std::filesystem::remove(settings_file);
        EXPECT_EQ(SendMessageW(window, setting.message, 0, setting.changed), 0);
        EXPECT_FALSE(std::filesystem::exists(settings_file)) << "an unchanged setting was written";
        std::ofstream(settings_file, std::ios::binary) << written;
    }

    EXPECT_EQ(send_change_passphrase(window, "wrong", "new passphrase"), 0);
    EXPECT_TRUE(agent.logged("keyagent: Change passphrase failed: wrong passphrase"));
    EXPECT_EQ(send_change_passphrase(window, "old passphrase", "new passphrase"), 1);

    PostMessageW(window, WM_COMMAND, 40005, 0);
    EXPECT_EQ(agent.close(), 0);
    expect_stopped_in_order(agent.log());
    EXPECT_EQ(find_agent_window(), nullptr);
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
    EXPECT_TRUE(agent.logged("keyagent: Resetting key agent data.  All keys destroyed and passphrase reset."));
}

// A client that finds no agent starts tkeyagent.exe and waits until it is
// ready; WM_CLOSE stops it in order.
TEST(AgentClientAccess, StartsTheAgentWhenNoneRuns)
{
    WindowsAgent agent;
    agent.seed_passphrase("");
    agent.use_folder();
    ASSERT_EQ(find_agent_window(), nullptr);
    HWND window = agent_window_when_ready(platform_executable_dir(), nullptr);
    ASSERT_NE(window, nullptr);
    EXPECT_TRUE(lists(agent_pipe_open(window).get()));
    PostMessageW(window, WM_CLOSE, 0, 0);
    EXPECT_TRUE(agent.log_shows("keyagent: Process message thread stopped."));
    expect_stopped_in_order(agent.log());
}

}  // namespace
