// The per-client pipes of tkeyagent.exe under Wine, through the agent
// client access code.
#include <windows.h>
#include <aclapi.h>
#include <sddl.h>

#include <gtest/gtest.h>

#include <cstdio>
#include <thread>
#include <vector>

#include "app/win32/agent_client_access.h"
#include "app/win32/pipe_name.h"
#include "app/win32/user_security.h"
#include "win32/windows_agent.h"

namespace {

constexpr uint8_t REQUEST_IDENTITIES = 11;
constexpr uint8_t IDENTITIES_ANSWER = 12;
const std::vector<uint8_t> LIST_REQUEST = {0, 0, 0, 1, REQUEST_IDENTITIES};

TEST(PipeName, KeepsLettersAndDigitsOfDomainAndUser)
{
    const struct {
        const char *domain, *user, *name;
    } cases[] = {
        {"WORKGROUP", "j.doe", "\\\\.\\pipe\\TarnwellAgentPipe42_WORKGROUP_jdoe"},
        {nullptr, "alice", "\\\\.\\pipe\\TarnwellAgentPipe42_USERDOMAIN_alice"},
        {"CORP-1", "", "\\\\.\\pipe\\TarnwellAgentPipe42_CORP1_USERNAME"},
        {"..", "--", "\\\\.\\pipe\\TarnwellAgentPipe42_USERDOMAIN_USERNAME"},
    };
    for (const auto &c : cases)
        EXPECT_EQ(agent_pipe_name(42, c.domain, c.user), c.name);
    EXPECT_EQ(agent_pipe_name(42, "D", std::string(400, 'u').c_str()).size(), 259u);
}

class AgentPipes : public ::testing::Test {
protected:
    void SetUp() override
    {
        agent_.seed_passphrase("");
        window_ = agent_.start();
        ASSERT_NE(window_, nullptr) << agent_.log();
    }

    WinHandle open_pipe(uint32_t *identifier = nullptr)
    {
        WinHandle pipe = agent_pipe_open(window_, {}, identifier);
        EXPECT_TRUE(pipe);
        return pipe;
    }

    static bool write_bytes(HANDLE pipe, const std::vector<uint8_t> &bytes)
    {
        DWORD written = 0;
        return WriteFile(pipe, bytes.data(), static_cast<DWORD>(bytes.size()), &written, nullptr) &&
               written == bytes.size();
    }

    // One framed reply's message number, or -1 when the pipe failed.
    static int read_reply_type(HANDLE pipe)
    {
        uint8_t header[5];
        DWORD got = 0, total = 0;
        while (total < sizeof header) {
            if (!ReadFile(pipe, header + total, sizeof header - total, &got, nullptr) || got == 0)
                return -1;
            total += got;
        }
        std::vector<uint8_t> rest(get_u32(header) - 1);
        for (total = 0; total < rest.size(); total += got)
            if (!ReadFile(pipe, rest.data() + total, static_cast<DWORD>(rest.size() - total), &got, nullptr) || !got)
                return -1;
        return header[4];
    }

    static bool lists(HANDLE pipe)
    {
        Buffer body, reply;
        buffer_put_char(&body, REQUEST_IDENTITIES);
        return agent_pipe_request(pipe, body, IDENTITIES_ANSWER, &reply);
    }

    WindowsAgent agent_;
    HWND window_ = nullptr;
};

TEST_F(AgentPipes, TwoClientsGetTwoNamesAndIndependentConnections)
{
    uint32_t first_id = 0, second_id = 0;
    WinHandle first = open_pipe(&first_id);
    WinHandle second = open_pipe(&second_id);
    ASSERT_TRUE(first && second);
    EXPECT_NE(first_id, second_id);
    EXPECT_TRUE(lists(second.get()));
    EXPECT_TRUE(lists(first.get()));
    EXPECT_TRUE(lists(second.get()));
    std::string log = agent_.log();
    EXPECT_NE(log.find("keyagent: Created key agent pipe (id = " + std::to_string(first_id) + ")."), std::string::npos);
    EXPECT_NE(log.find("keyagent: Connection thread created."), std::string::npos);
}

// Wine keeps the access list without enforcing it: it is read back.
TEST_F(AgentPipes, AccessListGrantsTheUserAloneGenericAll)
{
    WinHandle pipe = open_pipe();
    ASSERT_TRUE(pipe);
    PSECURITY_DESCRIPTOR descriptor = nullptr;
    PACL dacl = nullptr;
    ASSERT_EQ(GetSecurityInfo(pipe.get(), SE_KERNEL_OBJECT, DACL_SECURITY_INFORMATION, nullptr, nullptr, &dacl,
                              nullptr, &descriptor),
              ERROR_SUCCESS);
    LPWSTR sddl = nullptr;
    ASSERT_TRUE(ConvertSecurityDescriptorToStringSecurityDescriptorW(descriptor, SDDL_REVISION_1,
                                                                     DACL_SECURITY_INFORMATION, &sddl, nullptr));
    std::vector<BYTE> sid = current_user_sid();
    LPWSTR sid_text = nullptr;
    ASSERT_TRUE(ConvertSidToStringSidW(sid.data(), &sid_text));
    EXPECT_EQ(std::wstring(sddl), L"D:(A;;GA;;;" + std::wstring(sid_text) + L")");
    LocalFree(sid_text);
    LocalFree(sddl);
    LocalFree(descriptor);
}

TEST_F(AgentPipes, ReadUnderFiveBytesIsJoinedWithTheNextRead)
{
    WinHandle pipe = open_pipe();
    ASSERT_TRUE(pipe);
    ASSERT_TRUE(write_bytes(pipe.get(), {LIST_REQUEST.begin(), LIST_REQUEST.begin() + 1}));
    Sleep(100);  // lets the agent's first read take the one byte alone
    ASSERT_TRUE(write_bytes(pipe.get(), {LIST_REQUEST.begin() + 1, LIST_REQUEST.end()}));
    EXPECT_EQ(read_reply_type(pipe.get()), IDENTITIES_ANSWER);
}

// The first read takes 131072 bytes of a 200000-byte request, which the
// dispatcher leaves unanswered; the rest is the next "request", here one
// that starts with a whole list request.
TEST_F(AgentPipes, OverlongRequestIsCutAtOneRead)
{
    WinHandle pipe = open_pipe();
    ASSERT_TRUE(pipe);
    std::vector<uint8_t> request(200000, 0);
    const uint32_t length = 200000 - 4;
    request[1] = static_cast<uint8_t>(length >> 16);
    request[2] = static_cast<uint8_t>(length >> 8);
    request[3] = static_cast<uint8_t>(length);
    request[4] = REQUEST_IDENTITIES;
    std::copy(LIST_REQUEST.begin(), LIST_REQUEST.end(), request.begin() + 131072);
    // The write returns once the agent has read it all.
    std::thread writer([&] { EXPECT_TRUE(write_bytes(pipe.get(), request)); });
    EXPECT_EQ(read_reply_type(pipe.get()), IDENTITIES_ANSWER);
    writer.join();
    EXPECT_TRUE(lists(pipe.get()));
    EXPECT_NE(agent_.log().find("keyagent: Incomplete client request ignored"), std::string::npos);
}

TEST_F(AgentPipes, GarbageOrAVanishingClientDisturbsOnlyItsOwnPipe)
{
    WinHandle steady = open_pipe();
    ASSERT_TRUE(steady && lists(steady.get()));
    {
        WinHandle garbage = open_pipe();
        ASSERT_TRUE(garbage);
        // An impossible length: ignored without an answer.
        std::vector<uint8_t> bytes = {0xff, 0xff, 0xff, 0xff, 0x0d, 1, 2, 3, 4, 5, 6, 7};
        EXPECT_TRUE(write_bytes(garbage.get(), bytes));
        EXPECT_TRUE(lists(steady.get()));
    }
    {
        WinHandle vanishing = open_pipe();
        ASSERT_TRUE(vanishing);
        EXPECT_TRUE(write_bytes(vanishing.get(), {0, 0, 0}));
    }
    EXPECT_TRUE(lists(steady.get()));
    WinHandle later = open_pipe();
    EXPECT_TRUE(later && lists(later.get()));
}

// The request rate through one pipe, with and without the log file.
TEST(AgentPipeRate, OnePipeCarriesManyRequestsInARow)
{
    for (bool with_log : {true, false}) {
        WindowsAgent agent(with_log);
        agent.seed_passphrase("");
        HWND window = agent.start();
        ASSERT_NE(window, nullptr);
        WinHandle pipe = agent_pipe_open(window);
        ASSERT_TRUE(pipe);
        constexpr int requests = 2000;
        Buffer body, reply;
        buffer_put_char(&body, REQUEST_IDENTITIES);
        ULONGLONG started = GetTickCount64();
        for (int i = 0; i < requests; ++i)
            ASSERT_TRUE(agent_pipe_request(pipe.get(), body, IDENTITIES_ANSWER, &reply)) << "request " << i;
        ULONGLONG elapsed = GetTickCount64() - started;
        printf("%d list requests through one pipe in %llu ms (log file %s)\n", requests,
               static_cast<unsigned long long>(elapsed), with_log ? "on" : "off");
        pipe = WinHandle();
        EXPECT_EQ(agent.close(), 0);
    }
}

// A client that finds no agent starts tkeyagent.exe and waits until it is
// ready.
TEST(AgentClientAccess, StartsTheAgentWhenNoneRuns)
{
    WindowsAgent agent;
    agent.seed_passphrase("");
    agent.use_folder();
    ASSERT_EQ(find_agent_window(), nullptr);
    HWND window = agent_window_when_ready(platform_executable_dir(), nullptr);
    ASSERT_NE(window, nullptr);
    WinHandle pipe = agent_pipe_open(window);
    ASSERT_TRUE(pipe);
    Buffer body, reply;
    buffer_put_char(&body, REQUEST_IDENTITIES);
    EXPECT_TRUE(agent_pipe_request(pipe.get(), body, IDENTITIES_ANSWER, &reply));
    pipe = WinHandle();
    PostMessageW(window, WM_CLOSE, 0, 0);
    for (int attempt = 0; attempt < 300 && agent.log().find("Process message thread stopped.") == std::string::npos;
         ++attempt)
        Sleep(100);
    EXPECT_NE(agent.log().find("keyagent: Process message thread stopped."), std::string::npos);
}

}  // namespace
