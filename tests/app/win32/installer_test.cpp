// The installer under Wine: install, log-on start, upgrade and uninstalls.
#include <shlobj.h>
#include <tlhelp32.h>

#include "app/win32/agent_folders.h"
#include "win32/dialog_driver.h"

namespace {

namespace fs = std::filesystem;

constexpr wchar_t PRODUCT[] = L"Tarnwell Key Agent";
constexpr wchar_t RUN_KEY[] = L"Software\\Microsoft\\Windows\\CurrentVersion\\Run";
constexpr wchar_t UNINSTALL_KEY[] = L"Software\\Microsoft\\Windows\\CurrentVersion\\Uninstall\\TarnwellKeyAgent";

fs::path known_folder(REFKNOWNFOLDERID id)
{
    PWSTR path = nullptr;
    fs::path folder = SUCCEEDED(SHGetKnownFolderPath(id, KF_FLAG_CREATE, nullptr, &path)) ? path : L"";
    CoTaskMemFree(path);
    return folder;
}

// A text value under HKEY_CURRENT_USER, or empty.
std::wstring registry_text(const wchar_t *key, const wchar_t *name)
{
    wchar_t value[1024] = L"";
    DWORD size = sizeof value;
    RegGetValueW(HKEY_CURRENT_USER, key, name, RRF_RT_REG_SZ, nullptr, value, &size);
    return value;
}

// The uninstaller hands over to a copy of itself, "Un.exe" in the
// temporary folder, and returns at once: waits (at most 60 s each) for
// every such copy to end, or ends them at once with `end_them`.
bool uninstaller_copies_ended(bool end_them = false)
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
        HANDLE copy = OpenProcess(SYNCHRONIZE | PROCESS_TERMINATE, FALSE, entry.th32ProcessID);
        if (copy) {
            if (end_them)
                TerminateProcess(copy, 1);
            ended = WaitForSingleObject(copy, 60000) == WAIT_OBJECT_0 && ended;
            CloseHandle(copy);
        }
    }
    CloseHandle(snapshot);
    return ended;
}

// The agent that another program started: its process once its window
// exists.
PROCESS_INFORMATION agent_started_elsewhere()
{
    PROCESS_INFORMATION agent = {};
    eventually([&] {
        if (HWND window = find_agent_window())
            GetWindowThreadProcessId(window, &agent.dwProcessId);
        return agent.dwProcessId != 0;
    });
    agent.hProcess = OpenProcess(SYNCHRONIZE | PROCESS_QUERY_LIMITED_INFORMATION | PROCESS_TERMINATE, FALSE,
                                 agent.dwProcessId);
    return agent;
}

// Installs silently for a test, over the store of an earlier installation
// (with the agent log on). What the install leaves in the user's profile
// is removed whatever the outcome, a running agent included.
class Installer : public ::testing::Test {
protected:
    void SetUp() override
    {
        ASSERT_TRUE(fs::exists(setup)) << "no installer: the build needs makensis (Debian package nsis)";
        ASSERT_TRUE(desktop_ready());
        ASSERT_TRUE(create_private_folder(data.string()));
        agent_data_folder_set(data.string());
        ASSERT_EQ(set_agent_passphrase("kept across installs", 0), 1) << "the passphrase could not be stored";
        agent_data_folder_set("");
        std::ofstream(data / "kvllog.ini", std::ios::binary) << "agent=\n";
        ASSERT_EQ(run_program(setup, L"/S", scratch / "setup.out").status, 0);
    }
    void TearDown() override
    {
        PostMessageW(find_agent_window(), WM_CLOSE, 0, 0);
        eventually([] { return find_agent_window() == nullptr; });
        uninstaller_copies_ended(true);
        RegDeleteKeyValueW(HKEY_CURRENT_USER, RUN_KEY, PRODUCT);
        RegDeleteTreeW(HKEY_CURRENT_USER, UNINSTALL_KEY);
        std::error_code ignored;
        for (const fs::path &path : {programs, data, shortcut, scratch})
            fs::remove_all(path, ignored);
        // The uninstaller's copies of itself, left for a restart to remove.
        for (const auto &entry : fs::directory_iterator(fs::temp_directory_path(), ignored))
            if (entry.path().filename().wstring().rfind(L"~nsu", 0) == 0)
                fs::remove_all(entry.path(), ignored);
    }

    std::string log() const { return read_file_text(data / "tAgentLog.txt"); }
    std::string status() const { return run_program(programs / "tagent.exe", L"status", scratch / "status.out").out; }

    fs::path setup = fs::path(platform_executable_dir()) / "tarnwell-key-agent-setup.exe";
    fs::path programs = known_folder(FOLDERID_LocalAppData) / "Programs" / PRODUCT;
    fs::path data = known_folder(FOLDERID_RoamingAppData) / PRODUCT;
    fs::path shortcut = known_folder(FOLDERID_Programs) / (std::wstring(PRODUCT) + L".lnk");
    fs::path scratch = fresh_temp_folder("installer");
};

TEST_F(Installer, InstallsForTheUserStartsAtLogOnUpgradesAndUninstalls)
{
    for (const char *name : {"tkeyagent.exe", "tagent.exe", "tagent.dll", "pki.dll", "libcrypto-3-x64.dll",
                             "tarnwell-key-agent.html", "Uninstall.exe"})
        EXPECT_TRUE(fs::exists(programs / name)) << name;
    fs::path agent_program = programs / "tkeyagent.exe";
    EXPECT_EQ(registry_text(RUN_KEY, PRODUCT), L"\"" + agent_program.wstring() + L"\"");
    // The link holds the path of the program it starts.
    EXPECT_NE(read_file_text(shortcut).find((programs / "tagent.exe").string()), std::string::npos);
    EXPECT_EQ(registry_text(UNINSTALL_KEY, L"DisplayName"), PRODUCT);

    // Log-on: Windows runs the Run entry's command line as it stands.
    PROCESS_INFORMATION agent = start_process(agent_program.wstring(), registry_text(RUN_KEY, PRODUCT));
    ASSERT_NE(agent_when_ready(), nullptr) << log();
    EXPECT_NE(status().find("state: locked"), std::string::npos);

    // An upgrade over the running agent stops it and starts it again.
    ASSERT_EQ(run_program(setup, L"/S", scratch / "upgrade.out").status, 0);
    EXPECT_EQ(wait_exit(&agent), 0) << "the upgrade stops the running agent";
    agent = agent_started_elsewhere();
    ASSERT_NE(agent_when_ready(), nullptr) << log();
    EXPECT_NE(status().find("state: locked"), std::string::npos);

    EXPECT_EQ(run_program(programs / "Uninstall.exe", L"/S", scratch / "uninstall.out").status, 0);
    ASSERT_TRUE(uninstaller_copies_ended());
    EXPECT_FALSE(fs::exists(programs));
    EXPECT_EQ(wait_exit(&agent), 0) << "the uninstaller stops the agent";
    EXPECT_EQ(registry_text(RUN_KEY, PRODUCT), L"");
    EXPECT_FALSE(fs::exists(shortcut));
    EXPECT_EQ(registry_text(UNINSTALL_KEY, L"DisplayName"), L"");
    EXPECT_TRUE(fs::exists(data / "tAgent")) << "a silent uninstall keeps the key store";
}

}  // namespace
