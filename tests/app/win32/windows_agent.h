// A tkeyagent.exe started by a test in a private data and log folder, with
// its log and tagent.exe run against it; ended and removed at the end.
#pragma once

#include <windows.h>

#include <gtest/gtest.h>

#include <openssl/evp.h>
#include <openssl/pem.h>

#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <string>

#include "agent/data_folder.h"
#include "agent/passphrase.h"
#include "agent/settings.h"
#include "app/win32/agent_client_access.h"
#include "app/win32/agent_window.h"
#include "platform/platform.h"
#include "platform/win32/text_conversion.h"
#include "support/files.h"

// Polls `condition` every 50 ms for at most `ms`.
inline bool eventually(const std::function<bool()> &condition, DWORD ms = 20000)
{
    for (DWORD waited = 0; waited < ms; waited += 50, Sleep(50))
        if (condition())
            return true;
    return condition();
}

// A fresh Wine prefix's desktop comes with its first window.
inline bool desktop_ready()
{
    return eventually([] {
        HWND probe = CreateWindowExW(0, L"STATIC", L"", 0, 0, 0, 0, 0, nullptr, nullptr, nullptr, nullptr);
        return probe && DestroyWindow(probe);
    }, 10000);
}

// Starts `program` with `line` as its whole command line, its output into
// the file `out` if named. A fresh Wine prefix refuses a first
// CreateProcess now and then: a few retries ride that out.
inline PROCESS_INFORMATION start_process(const std::wstring &program, std::wstring line,
                                         const std::filesystem::path &out = {})
{
    SECURITY_ATTRIBUTES inherit = {sizeof inherit, nullptr, TRUE};
    STARTUPINFOW startup = {};
    startup.cb = sizeof startup;
    if (!out.empty()) {
        startup.dwFlags = STARTF_USESTDHANDLES;
        startup.hStdOutput = startup.hStdError = CreateFileW(out.wstring().c_str(), GENERIC_WRITE,
            FILE_SHARE_READ | FILE_SHARE_WRITE, &inherit, CREATE_ALWAYS, 0, nullptr);
        startup.hStdInput = CreateFileW(L"NUL", GENERIC_READ, FILE_SHARE_READ | FILE_SHARE_WRITE, &inherit,
                                        OPEN_EXISTING, 0, nullptr);
    }
    PROCESS_INFORMATION process = {};
    for (int attempt = 0; attempt < 5 && !CreateProcessW(program.c_str(), line.data(), nullptr, nullptr,
                                                         !out.empty(), 0, nullptr, nullptr, &startup, &process);
         ++attempt)
        Sleep(200);
    if (!process.hProcess)
        ADD_FAILURE() << "CreateProcess failed with Windows error " << GetLastError();
    if (!out.empty()) {
        CloseHandle(startup.hStdOutput);
        CloseHandle(startup.hStdInput);
    }
    return process;
}

// The exit code once the process ends (-1 when it is ended after `ms`).
inline long wait_exit(PROCESS_INFORMATION *process, DWORD ms = 30000)
{
    DWORD code = static_cast<DWORD>(-1);
    if (!process->hProcess)
        return -1;
    if (WaitForSingleObject(process->hProcess, ms) == WAIT_OBJECT_0) {
        GetExitCodeProcess(process->hProcess, &code);
    } else {
        TerminateProcess(process->hProcess, 1);
        WaitForSingleObject(process->hProcess, 10000);
    }
    CloseHandle(process->hThread);
    CloseHandle(process->hProcess);
    *process = {};
    return static_cast<long>(code);
}

struct ToolResult {
    long status = -1;
    std::string out;  // standard output and error
};

// Runs `program` with `arguments` to its end.
inline ToolResult run_program(const std::filesystem::path &program, const std::wstring &arguments,
                              const std::filesystem::path &out)
{
    PROCESS_INFORMATION process = start_process(program.wstring(), L"\"" + program.wstring() + L"\" " + arguments, out);
    ToolResult result{wait_exit(&process), read_file_text(out)};
    std::error_code ignored;  // a child of the program may hold it still
    std::filesystem::remove(out, ignored);
    return result;
}

inline std::wstring program_path(const char *name) { return utf8_to_wide(platform_executable_dir() + name); }

// A new key of OpenSSL type `type` ("RSA", "EC") in PEM at `path`,
// encrypted under `password` unless it is null.
inline EVP_PKEY *write_pem_key(const std::string &path, const char *type, const char *password = nullptr)
{
    EVP_PKEY *key = std::string(type) == "RSA" ? EVP_PKEY_Q_keygen(nullptr, nullptr, type, size_t{2048})
                                               : EVP_PKEY_Q_keygen(nullptr, nullptr, type, "P-256");
    FILE *file = fopen(path.c_str(), "wb");
    PEM_write_PrivateKey(file, key, password ? EVP_aes_256_cbc() : nullptr, nullptr, 0, nullptr,
                         const_cast<char *>(password));
    fclose(file);
    return key;
}

// The agent's window once it has one and answers 1035 with 1; null when it
// has none after 20 s or gives no such answer 30 s later.
inline HWND agent_when_ready()
{
    eventually([] { return find_agent_window() != nullptr; });
    return agent_window_when_ready(platform_executable_dir(), nullptr, {30000, 50, 100, false});
}

class WindowsAgent {
public:
    // With a kvllog.ini that forces the agent log on.
    WindowsAgent() : folder_(fresh_temp_folder("win32"))
    {
        EXPECT_TRUE(desktop_ready());
        std::ofstream(folder_ / "kvllog.ini", std::ios::binary) << "agent=\n";
    }
    ~WindowsAgent()
    {
        if (process_.hProcess)
            close();
        agent_data_folder_set("");
        EXPECT_TRUE(remove_folder(folder_)) << folder_.string() << " is still in use";
    }
    WindowsAgent(const WindowsAgent &) = delete;
    WindowsAgent &operator=(const WindowsAgent &) = delete;

    // As an earlier run would have stored it (`AttemptEmpty` if empty).
    void seed_passphrase(const char *passphrase)
    {
        agent_data_folder_set(folder_.string());
        set_agent_passphrase(passphrase, passphrase[0] == '\0');
    }

    // Programs started from now on use this folder.
    void use_folder() const
    {
        SetEnvironmentVariableW(L"TARNWELL_DATA_DIR", folder_.wstring().c_str());
        SetEnvironmentVariableW(L"TARNWELL_LOG_DIR", folder_.wstring().c_str());
    }

    PROCESS_INFORMATION launch() const
    {
        use_folder();
        return start_process(program_path("tkeyagent.exe"), L"0");
    }

    // Starts the agent and waits until it is ready.
    HWND start()
    {
        process_ = launch();
        return agent_when_ready();
    }

    long close()
    {
        if (HWND window = find_agent_window())
            PostMessageW(window, WM_CLOSE, 0, 0);
        return wait_exit(&process_);
    }

    ToolResult tagent(const std::string &arguments) const
    {
        use_folder();
        return run_program(program_path("tagent.exe"), utf8_to_wide(arguments), folder_ / "tagent.out");
    }

    std::string log() const { return read_file_text(folder_ / "tAgentLog.txt"); }
    bool logged(const std::string &line) const { return log().find(line) != std::string::npos; }
    // Waits for `count` of `line` in the log.
    bool log_shows(const std::string &line, size_t count = 1) const
    {
        return eventually([&] { return count_of(log(), line) >= count; }, 10000);
    }
    std::string path(const char *name) const { return (folder_ / name).string(); }
    AgentSettings settings() const
    {
        std::string text = read_file_text(folder_ / AGENT_SETTINGS_FILE);
        return parse_agent_settings(reinterpret_cast<const uint8_t *>(text.data()), text.size());
    }
    bool passphrase_is(const char *passphrase) const
    {
        uint8_t digest[20];
        agent_passphrase_digest(passphrase, digest);
        return memcmp(digest, settings().passphrase_digest, sizeof digest) == 0;
    }
    const std::filesystem::path &folder() const { return folder_; }

private:
    std::filesystem::path folder_;
    PROCESS_INFORMATION process_ = {};
};
