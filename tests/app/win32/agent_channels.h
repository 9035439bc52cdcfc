// Clients of the agent's three ways in (its own pipe, the OpenSSH agent pipe
// and the Pageant window), a key to sign with, and ssh2 under Windows Node.js.
#pragma once

#include <windows.h>
#include <aclapi.h>
#include <sddl.h>

#include <gtest/gtest.h>

#include <atomic>
#include <cstring>
#include <filesystem>
#include <string>

#include "app/win32/agent_client_access.h"
#include "app/win32/openssh_pipe.h"
#include "app/win32/pageant_window.h"
#include "app/win32/user_security.h"
#include "crypto/ecdsa_signature.h"
#include "keys/key.h"
#include "keys/key_blob.h"
#include "keys/private_key_material.h"
#include "support/bytes.h"
#include "support/files.h"
#include "win32/windows_agent.h"

constexpr uint8_t FAILURE = 5, AGENT_SUCCESS = 6, REQUEST_IDENTITIES = 11, IDENTITIES_ANSWER = 12,
                  SIGN_REQUEST = 13, SIGN_RESPONSE = 14, ADD_IDENTITY = 17;

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

// A mapping in the Pageant client's way, owned by `owner`: the request is
// written into it, its name sent, and the reply read back. The SendMessage
// result; `reply` gets the framed reply's body when it is nonzero.
inline LRESULT pageant_call(const Bytes &request, PSID owner, Bytes *reply, DWORD mapping_size = 8192)
{
    static std::atomic<unsigned> serial{0};
    SECURITY_DESCRIPTOR descriptor;
    InitializeSecurityDescriptor(&descriptor, SECURITY_DESCRIPTOR_REVISION);
    SetSecurityDescriptorOwner(&descriptor, owner, FALSE);
    SECURITY_ATTRIBUTES attributes = {sizeof attributes, &descriptor, FALSE};
    std::string name = "PageantRequest" + std::to_string(GetCurrentProcessId()) + "_" + std::to_string(serial++);
    WinHandle mapping(CreateFileMappingA(INVALID_HANDLE_VALUE, &attributes, PAGE_READWRITE, 0, mapping_size,
                                         name.c_str()));
    if (!mapping) {
        ADD_FAILURE() << "CreateFileMapping failed with Windows error " << GetLastError();
        return 0;
    }
    auto *view = static_cast<uint8_t *>(MapViewOfFile(mapping.get(), FILE_MAP_WRITE, 0, 0, 0));
    if (!view)
        return 0;
    memcpy(view, request.data(), std::min<size_t>(request.size(), mapping_size));
    COPYDATASTRUCT data = {PAGEANT_COPYDATA_ID, static_cast<DWORD>(name.size() + 1), name.data()};
    HWND window = FindWindowW(PAGEANT_WINDOW_CLASS, PAGEANT_WINDOW_TITLE);
    EXPECT_NE(window, nullptr) << "no Pageant window";
    LRESULT result = window ? SendMessageW(window, WM_COPYDATA, 0, reinterpret_cast<LPARAM>(&data)) : 0;
    if (result && reply) {
        uint32_t length = std::min<uint32_t>(get_u32(view), mapping_size - 4);
        reply->assign(view + 4, view + 4 + length);
    }
    UnmapViewOfFile(view);
    return result;
}

inline LRESULT pageant_call(const Bytes &request, Bytes *reply)
{
    std::vector<BYTE> user = current_user_sid();
    return pageant_call(request, user.data(), reply);
}

// An ECDSA P-256 key held by the test: its add request, sign requests and a
// check of the signatures with OpenSSL.
struct TestKey {
    KeyPtr key = key_generate(KEY_ECDSA, 256);
    Bytes blob;

    TestKey()
    {
        SecureBytes bytes;
        uint32_t length = 0;
        key_to_blob(key.get(), &bytes, &length, "ecdsa-sha2-nistp256");
        blob.assign(bytes.begin(), bytes.begin() + length);
    }

    Bytes add_body() const
    {
        Buffer b;
        buffer_put_char(&b, ADD_IDENTITY);
        private_key_put_agent_fields(key->pkey.get(), &b);
        buffer_put_cstring(&b, "test key");
        return buffer_bytes(b);
    }

    Bytes sign_body(const Bytes &data) const
    {
        Buffer b;
        buffer_put_char(&b, SIGN_REQUEST);
        buffer_put_string(&b, blob.data(), static_cast<uint32_t>(blob.size()));
        buffer_put_string(&b, data.data(), static_cast<uint32_t>(data.size()));
        buffer_put_int(&b, 0);
        return buffer_bytes(b);
    }

    // A sign reply's body (14, string signature blob) verifies over `data`.
    bool verifies(const Bytes &reply, const Bytes &data) const
    {
        if (reply_type(reply) != SIGN_RESPONSE)
            return false;
        Buffer in;
        buffer_append(&in, reply.data() + 1, static_cast<uint32_t>(reply.size() - 1));
        SecureBytes signature = buffer_get_string(&in);
        return ssh_ecdsa_verify(key.get(), signature.data(), signature.size(), data.data(), data.size(), 0) == 1;
    }
};

// One framed request on a pipe and its reply's body; empty on failure.
inline Bytes pipe_call(HANDLE pipe, const Bytes &body)
{
    Buffer request, reply;
    buffer_append(&request, body.data(), static_cast<uint32_t>(body.size()));
    if (!agent_pipe_call(pipe, request, &reply))
        return {};
    return buffer_bytes(reply);
}

inline bool lists(HANDLE pipe)
{
    Buffer body, reply;
    buffer_put_char(&body, REQUEST_IDENTITIES);
    return agent_pipe_request(pipe, body, IDENTITIES_ANSWER, &reply);
}

// A pipe's access list as SDDL, and the one it must be: generic-all for
// the user alone. Wine keeps the list without enforcing it.
inline std::wstring access_list(HANDLE pipe)
{
    PSECURITY_DESCRIPTOR descriptor = nullptr;
    PACL dacl = nullptr;
    LPWSTR sddl = nullptr;
    std::wstring text;
    if (GetSecurityInfo(pipe, SE_KERNEL_OBJECT, DACL_SECURITY_INFORMATION, nullptr, nullptr, &dacl, nullptr,
                        &descriptor) == ERROR_SUCCESS &&
        ConvertSecurityDescriptorToStringSecurityDescriptorW(descriptor, SDDL_REVISION_1, DACL_SECURITY_INFORMATION,
                                                             &sddl, nullptr))
        text = sddl;
    LocalFree(sddl);
    LocalFree(descriptor);
    return text;
}
inline std::wstring user_only_access_list()
{
    std::vector<BYTE> sid = current_user_sid();
    LPWSTR sid_text = nullptr;
    ConvertSidToStringSidW(sid.data(), &sid_text);
    std::wstring text = L"D:(A;;GA;;;" + std::wstring(sid_text ? sid_text : L"") + L")";
    LocalFree(sid_text);
    return text;
}

// The Windows path of a path on this machine: Wine shows / as drive Z:.
inline std::wstring wine_path(std::string path)
{
    for (char &c : path)
        if (c == '/')
            c = '\\';
    return utf8_to_wide("Z:" + path);
}

// The ssh2 client script run by the Windows build of Node.js; its output
// goes to a file (node.exe dies on a Unix pipe).
class NodeClient {
public:
    NodeClient(const std::filesystem::path &folder, const std::string &arguments)
    {
        static std::atomic<unsigned> serial{0};
        output_ = folder / ("node-" + std::to_string(serial++) + ".txt");
        std::wstring clients = wine_path(TARNWELL_WINDOWS_NODE_CLIENTS);
        std::wstring node = clients + L"\\node\\bin\\node.exe";
        if (GetFileAttributesW(node.c_str()) == INVALID_FILE_ATTRIBUTES) {
            ADD_FAILURE() << "no Windows Node.js: run scripts/install-windows-node-clients";
            return;
        }
        SetEnvironmentVariableW(L"NODE_PATH", (clients + L"\\node_modules").c_str());
        std::wstring script = wine_path(TARNWELL_SOURCE_DIR "/tests/app/win32/ssh2_agent_client.js");
        process_ = start_process(node, L"node.exe \"" + script + L"\" " + utf8_to_wide(arguments), output_);
    }
    ~NodeClient()
    {
        finish();
        std::error_code ignored;
        std::filesystem::remove(output_, ignored);
    }
    NodeClient(const NodeClient &) = delete;
    NodeClient &operator=(const NodeClient &) = delete;

    // Waits (bounded) for the script to end; its output, with its exit code
    // on a last line.
    std::string finish()
    {
        if (process_.hProcess) {
            long code = wait_exit(&process_, 180000);
            result_ = read_file_text(output_) + "exit " + std::to_string(code) + "\n";
        }
        return result_;
    }

private:
    std::filesystem::path output_;
    PROCESS_INFORMATION process_ = {};
    std::string result_;
};
