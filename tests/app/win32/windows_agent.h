// A tkeyagent.exe started by a test in a private data and log folder (the
// folder's kvllog.ini forces the agent log on), with its window messages and
// its log. The process is ended and the folder removed when the test ends.
#pragma once

#include <windows.h>

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <string>

#include "agent/data_folder.h"
#include "agent/passphrase.h"
#include "app/win32/agent_window.h"
#include "platform/platform.h"
#include "platform/win32/text_conversion.h"
#include "support/files.h"

// A fresh Wine prefix starts its desktop with the first window: until it
// is up, windows of other processes fail to be created. One window of the
// test's own waits for it.
inline bool desktop_ready()
{
    for (int attempt = 0; attempt < 100; ++attempt) {
        if (HWND probe = CreateWindowExW(0, L"STATIC", L"", 0, 0, 0, 0, 0, nullptr, nullptr, nullptr, nullptr)) {
            DestroyWindow(probe);
            return true;
        }
        Sleep(100);
    }
    return false;
}

// Starts `program` with `line` as its whole command line. A freshly made
// Wine prefix has refused a first CreateProcess now and then while another
// test process was starting: a few spaced retries ride that out, and a
// failure names Windows' error code.
inline PROCESS_INFORMATION start_process(const std::wstring &program, std::wstring line, bool inherit_handles,
                                         STARTUPINFOW *startup)
{
    PROCESS_INFORMATION process = {};
    DWORD error = 0;
    for (int attempt = 0; attempt < 5; ++attempt) {
        if (CreateProcessW(program.c_str(), line.data(), nullptr, nullptr, inherit_handles, 0, nullptr, nullptr,
                           startup, &process))
            return process;
        error = GetLastError();
        Sleep(200);
    }
    ADD_FAILURE() << "CreateProcess failed with Windows error " << error;
    return process;
}

class WindowsAgent {
public:
    // `with_log`: a kvllog.ini that forces the agent log on.
    explicit WindowsAgent(bool with_log = true) : folder_(fresh_temp_folder("win32"))
    {
        EXPECT_TRUE(desktop_ready());
        if (with_log)
            std::ofstream(folder_ / "kvllog.ini", std::ios::binary) << "agent=\n";
    }
    ~WindowsAgent()
    {
        stop();
        agent_data_folder_set("");
        std::filesystem::remove_all(folder_);
    }
    WindowsAgent(const WindowsAgent &) = delete;
    WindowsAgent &operator=(const WindowsAgent &) = delete;

    // Stores the digest of `passphrase` (and `AttemptEmpty` for the empty
    // one) as an earlier run would have.
    void seed_passphrase(const char *passphrase)
    {
        agent_data_folder_set(folder_.string());
        set_agent_passphrase(passphrase, passphrase[0] == '\0');
    }

    // Agents started from now on use this folder.
    void use_folder() const
    {
        SetEnvironmentVariableW(L"TARNWELL_DATA_DIR", folder_.wstring().c_str());
        SetEnvironmentVariableW(L"TARNWELL_LOG_DIR", folder_.wstring().c_str());
    }

    // Starts tkeyagent.exe with `command_line` as its whole command line.
    PROCESS_INFORMATION launch(const std::wstring &command_line = L"0") const
    {
        use_folder();
        std::wstring program = utf8_to_wide(platform_executable_dir() + "tkeyagent.exe");
        STARTUPINFOW startup = {};
        startup.cb = sizeof startup;
        return start_process(program, command_line, false, &startup);
    }

    // Starts the agent and waits until it answers 1035 with 1.
    HWND start()
    {
        ULONGLONG started = GetTickCount64();
        process_ = launch();
        HWND window = wait_ready();
        ready_ms_ = GetTickCount64() - started;
        return window;
    }
    // Milliseconds from the start to the first "ready" answer.
    ULONGLONG ready_ms() const { return ready_ms_; }

    HWND wait_ready() const { return wait_ready_of(process_); }

    static HWND wait_ready_of(const PROCESS_INFORMATION &process)
    {
        for (int attempt = 0; attempt < 400; ++attempt) {
            HWND window = find_agent_window();
            DWORD_PTR ready = 0;
            if (window && SendMessageTimeoutW(window, 1035, 0, 0, SMTO_ABORTIFHUNG, 5000, &ready) && ready == 1)
                return window;
            if (WaitForSingleObject(process.hProcess, 50) == WAIT_OBJECT_0)
                break;
        }
        DWORD code = 0;
        GetExitCodeProcess(process.hProcess, &code);
        ADD_FAILURE() << "the agent did not become ready (exit code " << code << ")";
        return nullptr;
    }

    // Waits (bounded) for the process to end, else ends it; its exit code,
    // or -1 when it had to be ended.
    static long wait_exit(PROCESS_INFORMATION *process)
    {
        DWORD code = static_cast<DWORD>(-1);
        if (!process->hProcess)
            return -1;
        if (WaitForSingleObject(process->hProcess, 30000) == WAIT_OBJECT_0) {
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

    // Closes the window and returns the exit code.
    long close()
    {
        if (HWND window = find_agent_window())
            PostMessageW(window, WM_CLOSE, 0, 0);
        return wait_exit(&process_);
    }

    void stop()
    {
        if (process_.hProcess)
            close();
    }

    std::string log() const { return read_file_text(folder_ / "tAgentLog.txt"); }
    std::string path(const char *name) const { return (folder_ / name).string(); }
    const std::filesystem::path &folder() const { return folder_; }

private:
    std::filesystem::path folder_;
    PROCESS_INFORMATION process_ = {};
    ULONGLONG ready_ms_ = 0;
};

// Where `line` first appears in `log`, or npos.
inline size_t log_position(const std::string &log, const std::string &line) { return log.find(line); }
