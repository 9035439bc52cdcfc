#include "platform/platform.h"

#include <windows.h>

#include <algorithm>
#include <cwchar>
#include <vector>

#include "platform/win32/text_conversion.h"
#include "platform/win32/win_handle.h"

namespace {

// The semaphore that serialises log writers of every process of the user.
constexpr wchar_t LOG_SEMAPHORE_NAME[] = L"KVL_LOG_SEMPHORE";

bool write_all(HANDLE file, const void *data, size_t size)
{
    const char *p = static_cast<const char *>(data);
    while (size > 0) {
        DWORD chunk = size > 0x40000000u ? 0x40000000u : static_cast<DWORD>(size);
        DWORD written = 0;
        if (!WriteFile(file, p, chunk, &written, nullptr) || written == 0)
            return false;
        p += written;
        size -= written;
    }
    return true;
}

WinHandle open_for_writing(const std::string &path, DWORD disposition, DWORD share = 0)
{
    return WinHandle(CreateFileW(utf8_to_wide(path).c_str(), GENERIC_WRITE, share, nullptr, disposition,
                                 FILE_ATTRIBUTE_NORMAL, nullptr));
}

// Overwrites the whole file with zeros and flushes them to disk.
void zero_fill(HANDLE file)
{
    LARGE_INTEGER size;
    if (!GetFileSizeEx(file, &size) || SetFilePointer(file, 0, nullptr, FILE_BEGIN) == INVALID_SET_FILE_POINTER)
        return;
    std::vector<char> zeros(65536, 0);
    long long left = size.QuadPart;
    while (left > 0) {
        size_t chunk = left > static_cast<long long>(zeros.size()) ? zeros.size() : static_cast<size_t>(left);
        if (!write_all(file, zeros.data(), chunk))
            break;
        left -= static_cast<long long>(chunk);
    }
    FlushFileBuffers(file);
}

bool missing(DWORD error) { return error == ERROR_FILE_NOT_FOUND || error == ERROR_PATH_NOT_FOUND; }

std::string last_error_text(DWORD error)
{
    wchar_t *text = nullptr;
    DWORD length = FormatMessageW(FORMAT_MESSAGE_ALLOCATE_BUFFER | FORMAT_MESSAGE_FROM_SYSTEM |
                                      FORMAT_MESSAGE_IGNORE_INSERTS,
                                  nullptr, error, 0, reinterpret_cast<wchar_t *>(&text), 0, nullptr);
    std::string out = length ? wide_to_utf8(text, length) : "error " + std::to_string(error);
    LocalFree(text);
    while (!out.empty() && (out.back() == '\n' || out.back() == '\r' || out.back() == ' '))
        out.pop_back();
    return out;
}

DWORD library_error_code = 0;

}  // namespace

LocalTime platform_local_time()
{
    SYSTEMTIME t;
    GetLocalTime(&t);
    return {t.wYear, t.wMonth, t.wDay, t.wHour, t.wMinute, t.wSecond, t.wMilliseconds};
}

bool platform_append_locked(const std::string &path, const std::string &data)
{
    WinHandle semaphore(CreateSemaphoreW(nullptr, 1, 1, LOG_SEMAPHORE_NAME));
    if (!semaphore)
        return false;
    WaitForSingleObject(semaphore.get(), INFINITE);
    bool ok = false;
    {
        WinHandle file(CreateFileW(utf8_to_wide(path).c_str(), FILE_APPEND_DATA, FILE_SHARE_READ | FILE_SHARE_WRITE,
                                   nullptr, OPEN_ALWAYS, FILE_ATTRIBUTE_NORMAL, nullptr));
        ok = file && write_all(file.get(), data.data(), data.size());
    }
    ReleaseSemaphore(semaphore.get(), 1, nullptr);
    return ok;
}

std::string platform_user_name()
{
    wchar_t name[257];
    DWORD size = 257;
    if (!GetUserNameW(name, &size) || size == 0)
        return "USERNAME";
    return wide_to_utf8(name, size - 1);  // the count includes the terminator
}

std::string platform_host_name()
{
    // The DNS host name is what gethostname gives, without needing Winsock.
    wchar_t name[256];
    DWORD size = 256;
    if (!GetComputerNameExW(ComputerNameDnsHostname, name, &size) && !GetComputerNameW(name, &size))
        return "localhost";
    return wide_to_utf8(name, size);
}

bool platform_destroy_file(const std::string &path)
{
    std::wstring wide = utf8_to_wide(path);
    {
        WinHandle file = open_for_writing(path, OPEN_EXISTING);
        if (!file) {
            if (missing(GetLastError()))
                return true;
        } else {
            zero_fill(file.get());
        }
    }
    SetFileAttributesW(wide.c_str(), FILE_ATTRIBUTE_NORMAL);  // a read-only file cannot be deleted
    return DeleteFileW(wide.c_str()) || missing(GetLastError());
}

bool platform_complete_file(const std::string &path)
{
    std::wstring wide = utf8_to_wide(path);
    DWORD attributes = GetFileAttributesW(wide.c_str());
    if (attributes == INVALID_FILE_ATTRIBUTES || !SetFileAttributesW(wide.c_str(), attributes | FILE_ATTRIBUTE_HIDDEN))
        return false;
    WinHandle file = open_for_writing(path, OPEN_EXISTING, FILE_SHARE_READ | FILE_SHARE_WRITE);
    return file && FlushFileBuffers(file.get());
}

bool platform_replace_file(const std::string &from, const std::string &to)
{
    return MoveFileExW(utf8_to_wide(from).c_str(), utf8_to_wide(to).c_str(),
                       MOVEFILE_REPLACE_EXISTING | MOVEFILE_WRITE_THROUGH) != 0;
}

bool platform_replace_file_destroying(const std::string &from, const std::string &to)
{
    // A second name for the old file keeps its contents reachable after the
    // new file has taken its name, so they can be cleared then.
    std::string old_link = to + ".replaced";
    DeleteFileW(utf8_to_wide(old_link).c_str());
    bool linked = CreateHardLinkW(utf8_to_wide(old_link).c_str(), utf8_to_wide(to).c_str(), nullptr) != 0;
    bool replaced = platform_replace_file(from, to);
    if (linked) {
        if (replaced)
            platform_destroy_file(old_link);
        else
            DeleteFileW(utf8_to_wide(old_link).c_str());
    }
    return replaced;
}

bool platform_write_private_file(const std::string &path, const void *data, size_t size)
{
    // Opened as it is and cut after writing: CREATE_ALWAYS refuses a file
    // that carries the hidden attribute. Files of the user's profile folder
    // inherit its owner-only access list.
    WinHandle file = open_for_writing(path, OPEN_ALWAYS);
    return file && write_all(file.get(), data, size) && SetEndOfFile(file.get()) && FlushFileBuffers(file.get());
}

bool platform_remove_file(const std::string &path)
{
    return DeleteFileW(utf8_to_wide(path).c_str()) || missing(GetLastError());
}

bool platform_file_exists(const std::string &path)
{
    return GetFileAttributesW(utf8_to_wide(path).c_str()) != INVALID_FILE_ATTRIBUTES;
}

std::string platform_executable_dir()
{
    std::vector<wchar_t> path(MAX_PATH);
    for (;;) {
        DWORD length = GetModuleFileNameW(nullptr, path.data(), static_cast<DWORD>(path.size()));
        if (length == 0)
            return ".\\";
        if (length < path.size()) {
            std::string full = wide_to_utf8(path.data(), length);
            return full.substr(0, full.find_last_of("\\/") + 1);
        }
        path.resize(path.size() * 2);
    }
}

const char *platform_crypto_module_file() { return "pki.dll"; }

void *platform_load_library(const std::string &path)
{
    // With a full path, the library's own dependencies (libcrypto) are looked
    // for in its folder first.
    bool has_folder = path.find_first_of("\\/") != std::string::npos;
    HMODULE module = LoadLibraryExW(utf8_to_wide(path).c_str(), nullptr, has_folder ? LOAD_WITH_ALTERED_SEARCH_PATH : 0);
    library_error_code = module ? 0 : GetLastError();
    return reinterpret_cast<void *>(module);
}

void *platform_library_symbol(void *library, const char *name)
{
    if (!library)
        return nullptr;
    FARPROC symbol = GetProcAddress(static_cast<HMODULE>(library), name);
    library_error_code = symbol ? 0 : GetLastError();
    return reinterpret_cast<void *>(symbol);
}

std::string platform_library_error()
{
    DWORD error = library_error_code;
    library_error_code = 0;
    return error ? last_error_text(error) : "";
}

uint64_t platform_tick_count() { return GetTickCount64(); }

uint32_t platform_thread_id() { return GetCurrentThreadId(); }

bool platform_bind_current_thread(int core)
{
    DWORD_PTR process = 0, system = 0;
    if (!GetProcessAffinityMask(GetCurrentProcess(), &process, &system))
        return false;
    DWORD_PTR mask = process;
    if (core >= 0) {
        if (core >= static_cast<int>(sizeof(DWORD_PTR) * 8))
            return false;
        mask = static_cast<DWORD_PTR>(1) << core;
    }
    return SetThreadAffinityMask(GetCurrentThread(), mask) != 0;
}

int platform_current_core() { return static_cast<int>(GetCurrentProcessorNumber()); }

std::string platform_join_path(const std::string &folder, const std::string &name)
{
    if (folder.empty())
        return name;
    char last = folder.back();
    return last == '\\' || last == '/' ? folder + name : folder + '\\' + name;
}

bool platform_make_private_folder(const std::string &path)
{
    // The folder inherits the access list of the user's own profile folders.
    if (!CreateDirectoryW(utf8_to_wide(path).c_str(), nullptr) && GetLastError() != ERROR_ALREADY_EXISTS)
        return false;
    DWORD attributes = GetFileAttributesW(utf8_to_wide(path).c_str());
    return attributes != INVALID_FILE_ATTRIBUTES && (attributes & FILE_ATTRIBUTE_DIRECTORY);
}

std::vector<std::string> platform_folder_files(const std::string &path)
{
    std::vector<std::string> names;
    WIN32_FIND_DATAW found;
    HANDLE search = FindFirstFileW(utf8_to_wide(platform_join_path(path, "*")).c_str(), &found);
    if (search == INVALID_HANDLE_VALUE)
        return names;
    do {
        if (!(found.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY))
            names.push_back(wide_to_utf8(found.cFileName, wcslen(found.cFileName)));
    } while (FindNextFileW(search, &found));
    FindClose(search);
    std::sort(names.begin(), names.end());
    return names;
}

// The environment stands in for group policy for now; the group policy
// registry keys will be read here.
std::optional<std::string> platform_policy_value(const char *name)
{
    std::wstring wide_name = utf8_to_wide(name);
    DWORD size = GetEnvironmentVariableW(wide_name.c_str(), nullptr, 0);
    if (size == 0)
        return std::nullopt;
    std::vector<wchar_t> value(size);
    DWORD length = GetEnvironmentVariableW(wide_name.c_str(), value.data(), size);
    if (length >= size)
        return std::nullopt;
    return wide_to_utf8(value.data(), length);
}

bool platform_system_fips_mode()
{
    DWORD enabled = 0, size = sizeof enabled;
    return RegGetValueW(HKEY_LOCAL_MACHINE, L"SYSTEM\\CurrentControlSet\\Control\\Lsa\\FipsAlgorithmPolicy",
                        L"Enabled", RRF_RT_REG_DWORD, nullptr, &enabled, &size) == ERROR_SUCCESS &&
           enabled != 0;
}
