// tkeyagent.exe under Wine: its command line, start, single instance, its
// window messages, its three ways in (its per-client pipes, the OpenSSH
// agent pipe and the Pageant window), and the orderly stop.

#include <thread>

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
    };
    for (const auto &c : cases)
        EXPECT_EQ(command_line_number(c.line), c.number) << std::wstring(c.line).size();
}

// ssh2 on the OpenSSH pipe and Pageant (each line comes from a callback: a
// Pageant helper that cannot start prints none) and clients that
// misbehave. Two clients of the agent's own pipe get two names and
// independent connections with the user-only access list; reads are joined up to a request and cut at
// 131072 bytes; garbage, a vanishing client and a pipe nobody opens disturb
// no other. A second start and the menu's exit; a start by a client while
// another program holds the OpenSSH pipe's name.
TEST(Tkeyagent, ServesEveryWayInStartsOnceAndStopsInOrder)
{
    WindowsAgent agent;
    agent.seed_passphrase("");
    HWND window = agent.start();
    ASSERT_NE(window, nullptr) << agent.log();
    for (const char *channel : {"openssh", "pageant"}) {
        PROCESS_INFORMATION node = start_node_client(std::string(channel) + " check", agent.path("check.txt"));
        std::string output = node_client_output(&node, agent.path("check.txt"));
        for (const char *line : {"add rsa: ok", "add ecdsa: ok", "rsa-sha2-256 and rsa-sha2-512: verified",
                                 "ecdsa-sha2-nistp256: verified", "removed key: not listed",
                                 "locked: sign refused (reply 170)", "unlock: ok", "done\nexit 0\n"})
            EXPECT_NE(output.find(line), std::string::npos) << channel << ": " << line << " missing from:\n" << output;
    }

    WinHandle steady = openssh_pipe_open();
    ASSERT_TRUE(steady && lists(steady.get()));
    expect_user_only(steady.get());
    // A sign request whose key blob claims four gigabytes ends its
    // connection at once, and no other.
    {
        WinHandle bad = openssh_pipe_open();
        ASSERT_TRUE(bad && write_bytes(bad.get(), {0, 0, 0, 9, SIGN_REQUEST, 0xff, 0xff, 0xff, 0xff, 0, 0, 0, 0}));
        uint8_t byte;
        DWORD got = 0;
        EXPECT_FALSE(ReadFile(bad.get(), &byte, 1, &got, nullptr) && got > 0);
    }
    EXPECT_TRUE(lists(steady.get()));

    // Pageant: only the user's mappings and only whole requests that fit;
    // a request that gets no reply answers 0.
    PSID system = nullptr;
    ASSERT_TRUE(ConvertStringSidToSidW(L"S-1-5-18", &system));
    const struct {
        Bytes request;
        PSID owner;
        DWORD mapping_size;
        const char *log_line;
    } pageant_cases[] = {
        {LIST_REQUEST, system, 8192, "does not belong to the user"},
        {{0, 0, 0x1f, 0xfd, SIGN_REQUEST}, nullptr, 8192, "Pageant request refused: 8189 bytes do not fit 8188"},
        {{0, 0, 0x13, 0x88, SIGN_REQUEST}, nullptr, 4096, "Pageant request refused: 5000 bytes do not fit 4092"},
        {{0, 0, 0, 0}, nullptr, 8192, "Incomplete client request ignored"},
    };
    for (const auto &c : pageant_cases) {
        SCOPED_TRACE(c.log_line);
        std::string log = agent.log();
        Bytes reply;
        EXPECT_EQ(pageant_call(c.request, &reply, c.owner, c.mapping_size), 0);
        EXPECT_TRUE(agent.log_shows(c.log_line, count_of(log, c.log_line) + 1));
        EXPECT_NE(pageant_call(LIST_REQUEST, &reply), 0);
        EXPECT_EQ(reply_type(reply), IDENTITIES_ANSWER);
    }
    LocalFree(system);
    EXPECT_TRUE(lists(steady.get()));

    // The agent's own pipes.
    uint32_t first_id = 0, second_id = 0;
    EXPECT_NE(SendMessageW(window, 1034, 0, 0), 0) << "a pipe that nobody opens";
    WinHandle first = agent_pipe_open(window, {}, &first_id), second = agent_pipe_open(window, {}, &second_id);
    ASSERT_TRUE(first && second);
    EXPECT_NE(first_id, second_id);
    EXPECT_TRUE(lists(second.get()) && lists(first.get()) && lists(second.get()));
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

    EXPECT_TRUE(write_bytes(agent_pipe_open(window).get(), {0, 0, 0}));
    EXPECT_TRUE(lists(agent_pipe_open(window).get()) && lists(first.get()));
    first = WinHandle(), second = WinHandle(), steady = WinHandle();

    PROCESS_INFORMATION second_start = agent.launch();
    EXPECT_EQ(wait_exit(&second_start), 0);
    EXPECT_TRUE(agent.logged("keyagent: Key Agent already running. Exit."));

    PostMessageW(window, WM_COMMAND, 40005, 0);
    EXPECT_EQ(agent.close(), 0);
    // An orderly stop, in its order.
    std::string log = agent.log();
    size_t cleanup = log.find("keyagent: Crypto cleanup");
    size_t thread_stopped = log.find("keyagent: Process message thread stopped.");
    EXPECT_LT(log.find("keyagent: Key Agent stopped ==========="), cleanup) << log;
    EXPECT_LT(cleanup, thread_stopped) << log;
    EXPECT_LT(log.find("keyagent: Stopped listening on the OpenSSH agent pipe."), thread_stopped) << log;
    EXPECT_EQ(find_agent_window(), nullptr);

    // A client that finds no agent starts it and waits until it is ready. A
    // program that holds the OpenSSH pipe's name first keeps it; the agent
    // says so and still serves its own pipe.
    WinHandle owner(CreateNamedPipeW(OPENSSH_AGENT_PIPE, PIPE_ACCESS_DUPLEX, PIPE_TYPE_BYTE | PIPE_WAIT,
                                     PIPE_UNLIMITED_INSTANCES, 4096, 4096, 0, nullptr));
    ASSERT_NE(owner.get(), INVALID_HANDLE_VALUE);
    agent.use_folder();
    window = agent_window_when_ready(platform_executable_dir(), nullptr);
    ASSERT_NE(window, nullptr) << agent.log();
    EXPECT_TRUE(agent.logged("keyagent: The OpenSSH agent pipe is in use by another program (another agent?); "
                             "running without it."));
    EXPECT_TRUE(lists(agent_pipe_open(window).get()));
    owner = WinHandle();
    PostMessageW(window, WM_CLOSE, 0, 0);
    EXPECT_TRUE(agent.log_shows("keyagent: Process message thread stopped.", 2));
    EXPECT_TRUE(eventually([] { return find_agent_window() == nullptr; }));

}

}  // namespace
