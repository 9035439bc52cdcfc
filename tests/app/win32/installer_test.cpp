// The installer under Wine: a silent install for the user alone, the agent
// started as Windows starts it at log-on, and a silent uninstall that stops
// the agent, removes what the install made and keeps the key store.
#include <windows.h>
#include <shlobj.h>
#include <shobjidl.h>
#include <tlhelp32.h>

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>

#include "agent/data_folder.h"
#include "agent/passphrase.h"
#include "app/win32/agent_folders.h"
#include "win32/windows_agent.h"

namespace {

namespace fs = std::filesystem;

constexpr wchar_t PRODUCT[] = L"Tarnwell Key Agent";
constexpr wchar_t RUN_KEY[] = L"Software\\Microsoft\\Windows\\CurrentVersion\\Run";
constexpr wchar_t UNINSTALL_KEY[] = L"Software\\Microsoft\\Windows\\CurrentVersion\\Uninstall\\TarnwellKeyAgent";

fs::path known_folder(REFKNOWNFOLDERID id)
{
    PWSTR path = nullptr;
    fs::path folder;
    if (SUCCEEDED(SHGetKnownFolderPath(id, KF_FLAG_CREATE, nullptr, &path)))
        folder = path;
    CoTaskMemFree(path);
    return folder;
}

// The command line that Windows runs at log-on, or empty.
std::wstring run_entry()
{
    wchar_t value[1024] = L"";
    DWORD size = sizeof value;
    RegGetValueW(HKEY_CURRENT_USER, RUN_KEY, PRODUCT, RRF_RT_REG_SZ, nullptr, value, &size);
    return value;
}

bool uninstall_entry_exists()
{
    HKEY key = nullptr;
    if (RegOpenKeyExW(HKEY_CURRENT_USER, UNINSTALL_KEY, 0, KEY_READ, &key) != ERROR_SUCCESS)
        return false;
    RegCloseKey(key);
    return true;
}

// The program that a shell link starts, read through the shell's own link
// object.
fs::path shortcut_target(const fs::path &link)
{
    fs::path target;
    CoInitializeEx(nullptr, COINIT_APARTMENTTHREADED);
    IShellLinkW *shell_link = nullptr;
    if (SUCCEEDED(CoCreateInstance(CLSID_ShellLink, nullptr, CLSCTX_INPROC_SERVER, IID_IShellLinkW,
                                   reinterpret_cast<void **>(&shell_link)))) {
        IPersistFile *file = nullptr;
        wchar_t path[MAX_PATH] = L"";
        if (SUCCEEDED(shell_link->QueryInterface(IID_IPersistFile, reinterpret_cast<void **>(&file)))) {
            if (SUCCEEDED(file->Load(link.wstring().c_str(), STGM_READ)) &&
                SUCCEEDED(shell_link->GetPath(path, MAX_PATH, nullptr, 0)))
                target = path;
            file->Release();
        }
        shell_link->Release();
    }
    CoUninitialize();
    return target;
}

// Runs `program` to its end, its standard output into `out`; the exit code.
long run(const fs::path &program, const std::wstring &arguments, const fs::path &out)
{
    SECURITY_ATTRIBUTES inherit = {sizeof inherit, nullptr, TRUE};
    STARTUPINFOW startup = {};
    startup.cb = sizeof startup;
    startup.dwFlags = STARTF_USESTDHANDLES;
    startup.hStdOutput = CreateFileW(out.wstring().c_str(), GENERIC_WRITE, FILE_SHARE_READ | FILE_SHARE_WRITE,
                                     &inherit, CREATE_ALWAYS, 0, nullptr);
    startup.hStdError = startup.hStdOutput;
    PROCESS_INFORMATION process =
        start_process(program.wstring(), L"\"" + program.wstring() + L"\" " + arguments, true, &startup);
    CloseHandle(startup.hStdOutput);
    return WindowsAgent::wait_exit(&process);
}

// The uninstaller hands over to a copy of itself, "Un.exe" in the
// temporary folder, and returns at once: waits (at most 60 s each) for
// every such copy to end.
bool uninstaller_copies_ended()
{
    HANDLE snapshot = CreateToolhelp32Snapshot(TH32CS_SNAPPROCESS, 0);
    if (snapshot == INVALID_HANDLE_VALUE)
        return false;
    bool ended = true;
    PROCESSENTRY32W entry = {};
    entry.dwSize = sizeof entry;
    for (BOOL more = Process32FirstW(snapshot, &entry); more; more = Process32NextW(snapshot, &entry)) {
        if (lstrcmpiW(entry.szExeFile, L"Un.exe") != 0)
            continue;
        HANDLE copy = OpenProcess(SYNCHRONIZE, FALSE, entry.th32ProcessID);
        if (copy) {
            ended = WaitForSingleObject(copy, 60000) == WAIT_OBJECT_0 && ended;
            CloseHandle(copy);
        }
    }
    CloseHandle(snapshot);
    return ended;
}

// What an install leaves in the user's profile, removed whatever the test's
// outcome, an agent started from it included.
struct Installation {
    fs::path programs = known_folder(FOLDERID_LocalAppData) / "Programs" / PRODUCT;
    fs::path data = known_folder(FOLDERID_RoamingAppData) / PRODUCT;
    fs::path shortcut = known_folder(FOLDERID_Programs) / (std::wstring(PRODUCT) + L".lnk");
    fs::path scratch = fresh_temp_folder("installer");

    ~Installation()
    {
        if (HWND window = find_agent_window()) {
            DWORD id = 0;
            GetWindowThreadProcessId(window, &id);
            HANDLE agent = OpenProcess(SYNCHRONIZE | PROCESS_TERMINATE, FALSE, id);
            PostMessageW(window, WM_CLOSE, 0, 0);
            if (agent && WaitForSingleObject(agent, 30000) != WAIT_OBJECT_0)
                TerminateProcess(agent, 1);
            if (agent)
                CloseHandle(agent);
        }
        RegDeleteKeyValueW(HKEY_CURRENT_USER, RUN_KEY, PRODUCT);
        RegDeleteTreeW(HKEY_CURRENT_USER, UNINSTALL_KEY);
        std::error_code ignored;
        for (const fs::path &path : {programs, data, shortcut, scratch})
            fs::remove_all(path, ignored);
    }
};

TEST(Installer, InstallsForTheUserStartsAtLogOnAndUninstallsKeepingTheKeys)
{
    fs::path setup = fs::path(platform_executable_dir()) / "tarnwell-key-agent-setup.exe";
    ASSERT_TRUE(fs::exists(setup)) << "no installer: the build needs makensis (Debian package nsis)";
    ASSERT_TRUE(desktop_ready());
    ASSERT_EQ(find_agent_window(), nullptr);
    Installation installed;
    // The store of an earlier installation, with the agent log switched on.
    ASSERT_TRUE(create_private_folder(installed.data.string()));
    agent_data_folder_set(installed.data.string());
    ASSERT_EQ(set_agent_passphrase("kept across installs", 0), 1) << "the passphrase could not be stored";
    agent_data_folder_set("");
    std::ofstream(installed.data / "kvllog.ini", std::ios::binary) << "agent=\n";
    auto log = [&] { return read_file_text(installed.data / "tAgentLog.txt"); };

    ASSERT_EQ(run(setup, L"/S", installed.scratch / "setup.out"), 0);
    for (const char *name : {"tkeyagent.exe", "tagent.exe", "tagent.dll", "pki.dll", "libcrypto-3-x64.dll",
                             "tarnwell-key-agent.html", "Uninstall.exe"})
        EXPECT_TRUE(fs::exists(installed.programs / name)) << name;
    fs::path agent_program = installed.programs / "tkeyagent.exe";
    EXPECT_EQ(run_entry(), L"\"" + agent_program.wstring() + L"\"");
    EXPECT_EQ(shortcut_target(installed.shortcut), installed.programs / "tagent.exe");
    EXPECT_TRUE(uninstall_entry_exists());

    // Log-on: Windows runs the Run entry's command line as it stands.
    STARTUPINFOW startup = {};
    startup.cb = sizeof startup;
    PROCESS_INFORMATION agent = start_process(agent_program.wstring(), run_entry(), false, &startup);
    ASSERT_NE(WindowsAgent::wait_ready_of(agent), nullptr) << log();
    fs::path status = installed.scratch / "status.out";
    EXPECT_EQ(run(installed.programs / "tagent.exe", L"status", status), 0);
    EXPECT_NE(read_file_text(status).find("state: locked"), std::string::npos) << read_file_text(status);
    EXPECT_NE(read_file_text(status).find("identities: 0"), std::string::npos) << read_file_text(status);

    EXPECT_EQ(run(installed.programs / "Uninstall.exe", L"/S", installed.scratch / "uninstall.out"), 0);
    ASSERT_TRUE(uninstaller_copies_ended());
    EXPECT_FALSE(fs::exists(installed.programs));
    EXPECT_EQ(WindowsAgent::wait_exit(&agent), 0) << "the uninstaller stops the agent";
    EXPECT_EQ(find_agent_window(), nullptr);
    EXPECT_EQ(run_entry(), L"");
    EXPECT_FALSE(fs::exists(installed.shortcut));
    EXPECT_FALSE(uninstall_entry_exists());
    EXPECT_TRUE(fs::exists(installed.data / "tAgent")) << "a silent uninstall keeps the key store";
    EXPECT_NE(log().find("Key Agent started"), std::string::npos) << log();
}

}  // namespace
