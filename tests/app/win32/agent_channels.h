// Clients of the agent's three ways in (its own pipe, the OpenSSH agent pipe
// and the Pageant window), and ssh2 under Windows Node.js.
#pragma once

#include <windows.h>
#include <aclapi.h>
#include <sddl.h>

#include <atomic>
#include <cstring>
#include <map>

#include "agent/protocol.h"
#include "app/win32/agent_client_access.h"
#include "app/win32/openssh_pipe.h"
#include "app/win32/pageant_window.h"
#include "app/win32/user_security.h"
#include "crypto/signature_check.h"
#include "support/requests.h"
#include "win32/windows_agent.h"

constexpr uint8_t FAILURE = 5, REQUEST_IDENTITIES = 11, IDENTITIES_ANSWER = 12, SIGN_REQUEST = 13, SIGN_RESPONSE = 14;
const Bytes LIST_REQUEST = frame({REQUEST_IDENTITIES});

// A reply's message number, or -1 for none.
inline int reply_type(const Bytes &reply) { return reply.empty() ? -1 : reply[0]; }

// Opens the OpenSSH agent pipe as its clients do; empty when it is not there.
inline WinHandle openssh_pipe_open()
{
    for (int attempt = 0; attempt < 50; ++attempt) {
        HANDLE pipe =
            CreateFileW(OPENSSH_AGENT_PIPE, GENERIC_READ | GENERIC_WRITE, 0, nullptr, OPEN_EXISTING, 0, nullptr);
        if (pipe != INVALID_HANDLE_VALUE)
            return WinHandle(pipe);
        if (GetLastError() != ERROR_PIPE_BUSY)
            return WinHandle();
        WaitNamedPipeW(OPENSSH_AGENT_PIPE, 1000);
    }
    return WinHandle();
}

inline bool write_bytes(HANDLE pipe, const Bytes &bytes)
{
    DWORD written = 0;
    return WriteFile(pipe, bytes.data(), static_cast<DWORD>(bytes.size()), &written, nullptr) &&
           written == bytes.size();
}

// One framed reply's body; empty when the pipe failed.
inline Bytes read_reply(HANDLE pipe)
{
    auto read_exactly = [pipe](uint8_t *to, size_t size) {
        for (DWORD got = 0; size > 0; to += got, size -= got)
            if (!ReadFile(pipe, to, static_cast<DWORD>(size), &got, nullptr) || got == 0)
                return false;
        return true;
    };
    uint8_t length[4];
    Bytes body(read_exactly(length, 4) ? get_u32(length) : 0);
    return !body.empty() && read_exactly(body.data(), body.size()) ? body : Bytes();
}

// A framed request on a pipe and its reply's body; empty on failure.
inline Bytes call(HANDLE pipe, const Bytes &request)
{
    Buffer body, reply;
    buffer_append(&body, request.data() + 4, static_cast<uint32_t>(request.size() - 4));
    return agent_pipe_call(pipe, body, &reply) ? buffer_bytes(reply) : Bytes();
}

inline bool lists(HANDLE pipe) { return reply_type(call(pipe, LIST_REQUEST)) == IDENTITIES_ANSWER; }

// The agent's identities: each key blob by its comment.
inline std::map<std::string, Bytes> identities(HANDLE pipe)
{
    Bytes answer = call(pipe, LIST_REQUEST);
    EXPECT_EQ(reply_type(answer), IDENTITIES_ANSWER);
    std::vector<Bytes> fields = strings_of(Bytes(answer.begin() + std::min<size_t>(answer.size(), 5), answer.end()));
    std::map<std::string, Bytes> all;
    for (size_t n = 0; n + 1 < fields.size(); n += 2)
        all[std::string(fields[n + 1].begin(), fields[n + 1].end())] = fields[n];
    return all;
}

// The signature blob of a sign reply; empty for any other reply.
inline SecureBytes signature_of(const Bytes &reply)
{
    std::vector<Bytes> fields = reply_type(reply) == SIGN_RESPONSE ? strings_of(Bytes(reply.begin() + 1, reply.end()))
                                                                   : std::vector<Bytes>(1);
    return SecureBytes(fields[0].begin(), fields[0].end());
}

// A mapping in the Pageant client's way, owned by `owner` (the user when
// null): the framed request is written into it, its name sent, and the
// reply read back. The SendMessage result; `reply` gets the framed reply's
// body when it is nonzero.
inline LRESULT pageant_call(const Bytes &request, Bytes *reply, PSID owner = nullptr, DWORD mapping_size = 8192)
{
    static std::atomic<unsigned> serial{0};
    std::vector<BYTE> user = current_user_sid();
    SECURITY_DESCRIPTOR descriptor;
    InitializeSecurityDescriptor(&descriptor, SECURITY_DESCRIPTOR_REVISION);
    SetSecurityDescriptorOwner(&descriptor, owner ? owner : user.data(), FALSE);
    SECURITY_ATTRIBUTES attributes = {sizeof attributes, &descriptor, FALSE};
    std::string name = "PageantRequest" + std::to_string(GetCurrentProcessId()) + "_" + std::to_string(serial++);
    WinHandle mapping(CreateFileMappingA(INVALID_HANDLE_VALUE, &attributes, PAGE_READWRITE, 0, mapping_size,
                                         name.c_str()));
    auto *view = mapping ? static_cast<uint8_t *>(MapViewOfFile(mapping.get(), FILE_MAP_WRITE, 0, 0, 0)) : nullptr;
    if (!view) {
        ADD_FAILURE() << "no mapping: Windows error " << GetLastError();
        return 0;
    }
    memcpy(view, request.data(), std::min<size_t>(request.size(), mapping_size));
    COPYDATASTRUCT data = {PAGEANT_COPYDATA_ID, static_cast<DWORD>(name.size() + 1), name.data()};
    HWND window = FindWindowW(PAGEANT_WINDOW_CLASS, PAGEANT_WINDOW_TITLE);
    EXPECT_NE(window, nullptr) << "no Pageant window";
    LRESULT result = window ? SendMessageW(window, WM_COPYDATA, 0, reinterpret_cast<LPARAM>(&data)) : 0;
    if (result && reply)
        reply->assign(view + 4, view + 4 + std::min<uint32_t>(get_u32(view), mapping_size - 4));
    UnmapViewOfFile(view);
    return result;
}

inline bool agent_locked(HWND agent)
{
    WinHandle pipe = agent_pipe_open(agent);
    Buffer body, reply;
    buffer_put_char(&body, SSH_AGENT_ZEM_ISLOCKED);
    return agent_pipe_request(pipe.get(), body, SSH_AGENT_ZEM_LOCKED, &reply);
}

// A pipe's access list is generic-all for the user alone. Wine keeps the
// list without enforcing it.
inline void expect_user_only(HANDLE pipe)
{
    PSECURITY_DESCRIPTOR descriptor = nullptr;
    PACL dacl = nullptr;
    LPWSTR sddl = nullptr, sid = nullptr;
    std::vector<BYTE> user = current_user_sid();
    ConvertSidToStringSidW(user.data(), &sid);
    ASSERT_EQ(GetSecurityInfo(pipe, SE_KERNEL_OBJECT, DACL_SECURITY_INFORMATION, nullptr, nullptr, &dacl, nullptr,
                              &descriptor), ERROR_SUCCESS);
    ConvertSecurityDescriptorToStringSecurityDescriptorW(descriptor, SDDL_REVISION_1, DACL_SECURITY_INFORMATION,
                                                         &sddl, nullptr);
    EXPECT_EQ(std::wstring(sddl ? sddl : L""), L"D:(A;;GA;;;" + std::wstring(sid ? sid : L"") + L")");
    LocalFree(sddl);
    LocalFree(sid);
    LocalFree(descriptor);
}

// Starts the ssh2 client script under the Windows build of Node.js with
// its output into `out` (node.exe dies on a Unix pipe).
inline PROCESS_INFORMATION start_node_client(const std::string &arguments, const std::filesystem::path &out)
{
    // Wine shows / as drive Z:.
    std::wstring clients = L"Z:" + std::filesystem::path(TARNWELL_WINDOWS_NODE_CLIENTS).make_preferred().wstring();
    SetEnvironmentVariableW(L"NODE_PATH", (clients + L"\\node_modules").c_str());
    std::wstring script =
        std::filesystem::path(TARNWELL_SOURCE_DIR "/tests/app/win32/ssh2_agent_client.js").make_preferred();
    std::wstring line = L"node.exe \"Z:" + script + L"\" " + utf8_to_wide(arguments);
    return start_process(clients + L"\\node\\bin\\node.exe", line, out);
}

// Waits (bounded) for a node client to end: its output, with its exit code
// on a last line.
inline std::string node_client_output(PROCESS_INFORMATION *node, const std::filesystem::path &out)
{
    long code = wait_exit(node, 180000);
    return read_file_text(out) + "exit " + std::to_string(code) + "\n";
}
