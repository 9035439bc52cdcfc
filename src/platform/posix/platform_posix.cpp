#include "platform/platform.h"
#include "platform/posix/fd_io.h"

#include <cerrno>
#include <chrono>
#include <climits>
#include <cstring>
#include <ctime>
#include <algorithm>
#include <dirent.h>
#include <cstdlib>
#include <dlfcn.h>
#include <fcntl.h>
#include <fstream>
#include <optional>
#include <pwd.h>
#include <sched.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/time.h>
#include <unistd.h>
#include <vector>

namespace {

std::string parent_folder(const std::string &path)
{
    auto slash = path.find_last_of('/');
    if (slash == std::string::npos)
        return ".";
    return slash == 0 ? "/" : path.substr(0, slash);
}

bool sync_folder(const std::string &folder)
{
    int fd = open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (fd < 0)
        return false;
    bool ok = fsync(fd) == 0;
    close(fd);
    return ok;
}

// Overwrites a regular file's contents with zeros through `fd` and flushes them.
void zero_fill(int fd)
{
    struct stat st;
    if (fstat(fd, &st) != 0 || !S_ISREG(st.st_mode))
        return;
    std::vector<char> zeros(65536, 0);
    off_t left = st.st_size;
    if (lseek(fd, 0, SEEK_SET) != 0)
        return;
    while (left > 0) {
        size_t chunk = left > static_cast<off_t>(zeros.size()) ? zeros.size() : static_cast<size_t>(left);
        if (!fd_write_all(fd, zeros.data(), chunk))
            break;
        left -= static_cast<off_t>(chunk);
    }
    fsync(fd);
}

}  // namespace

LocalTime platform_local_time()
{
    struct timeval tv;
    gettimeofday(&tv, nullptr);
    struct tm tm;
    localtime_r(&tv.tv_sec, &tm);
    return {static_cast<unsigned>(tm.tm_year + 1900), static_cast<unsigned>(tm.tm_mon + 1),
            static_cast<unsigned>(tm.tm_mday), static_cast<unsigned>(tm.tm_hour),
            static_cast<unsigned>(tm.tm_min), static_cast<unsigned>(tm.tm_sec),
            static_cast<unsigned>(tv.tv_usec / 1000)};
}

bool platform_append_locked(const std::string &path, const std::string &data)
{
    int fd = open(path.c_str(), O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0600);
    if (fd < 0)
        return false;
    // flock, unlike a named semaphore, is released by the kernel when a
    // writer dies while holding it.
    while (flock(fd, LOCK_EX) != 0 && errno == EINTR) {
    }
    bool ok = fd_write_all(fd, data.data(), data.size());
    flock(fd, LOCK_UN);
    close(fd);
    return ok;
}

std::string platform_user_name()
{
    struct passwd pw, *result = nullptr;
    std::vector<char> scratch(16384);
    if (getpwuid_r(getuid(), &pw, scratch.data(), scratch.size(), &result) == 0 && result && pw.pw_name)
        return pw.pw_name;
    return std::to_string(getuid());
}

std::string platform_host_name()
{
    char name[HOST_NAME_MAX + 1] = {};
    if (gethostname(name, sizeof name - 1) != 0)
        return "localhost";
    return name;
}

bool platform_destroy_file(const std::string &path)
{
    int fd = open(path.c_str(), O_WRONLY | O_CLOEXEC | O_NOFOLLOW);
    if (fd < 0)
        return errno == ENOENT;
    zero_fill(fd);
    close(fd);
    bool removed = unlink(path.c_str()) == 0 || errno == ENOENT;
    sync_folder(parent_folder(path));
    return removed;
}

bool platform_complete_file(const std::string &path)
{
    int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0)
        return false;
    bool ok = fchmod(fd, 0600) == 0;
    ok = fsync(fd) == 0 && ok;
    close(fd);
    return sync_folder(parent_folder(path)) && ok;
}

bool platform_replace_file(const std::string &from, const std::string &to)
{
    if (rename(from.c_str(), to.c_str()) != 0)
        return false;
    return sync_folder(parent_folder(to));
}

bool platform_replace_file_destroying(const std::string &from, const std::string &to)
{
    // The old file stays open across the rename, so its contents can still
    // be reached and cleared once the new file has taken its name.
    int old_fd = open(to.c_str(), O_WRONLY | O_CLOEXEC | O_NOFOLLOW);
    bool replaced = platform_replace_file(from, to);
    if (old_fd >= 0) {
        if (replaced)
            zero_fill(old_fd);
        close(old_fd);
    }
    return replaced;
}

bool platform_write_private_file(const std::string &path, const void *data, size_t size)
{
    int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC | O_NOFOLLOW, 0600);
    if (fd < 0)
        return false;
    bool ok = fchmod(fd, 0600) == 0 && fd_write_all(fd, data, size) && fsync(fd) == 0;
    ok = close(fd) == 0 && ok;
    return sync_folder(parent_folder(path)) && ok;
}

bool platform_remove_file(const std::string &path)
{
    return unlink(path.c_str()) == 0 || errno == ENOENT;
}

bool platform_make_private_folder(const std::string &path)
{
    if (mkdir(path.c_str(), 0700) != 0 && errno != EEXIST)
        return false;
    struct stat st;
    return stat(path.c_str(), &st) == 0 && S_ISDIR(st.st_mode) && chmod(path.c_str(), 0700) == 0;
}

std::vector<std::string> platform_folder_files(const std::string &path)
{
    std::vector<std::string> names;
    DIR *dir = opendir(path.c_str());
    if (!dir)
        return names;
    while (struct dirent *entry = readdir(dir)) {
        struct stat st;
        bool regular = entry->d_type == DT_REG ||
                       (entry->d_type == DT_UNKNOWN && stat((path + "/" + entry->d_name).c_str(), &st) == 0 &&
                        S_ISREG(st.st_mode));
        if (regular)
            names.push_back(entry->d_name);
    }
    closedir(dir);
    std::sort(names.begin(), names.end());
    return names;
}

bool platform_file_exists(const std::string &path)
{
    struct stat st;
    return stat(path.c_str(), &st) == 0;
}

std::string platform_executable_dir()
{
    char path[PATH_MAX + 1] = {};
    ssize_t n = readlink("/proc/self/exe", path, PATH_MAX);
    if (n <= 0)
        return "./";
    std::string full(path, static_cast<size_t>(n));
    return full.substr(0, full.find_last_of('/') + 1);
}

const char *platform_crypto_module_file() { return "libtarnwell-pki.so"; }

void *platform_load_library(const std::string &path)
{
    return dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL);
}

void *platform_library_symbol(void *library, const char *name)
{
    return library ? dlsym(library, name) : nullptr;
}

std::string platform_library_error()
{
    const char *text = dlerror();
    return text ? text : "";
}

uint64_t platform_tick_count()
{
    using namespace std::chrono;
    return static_cast<uint64_t>(duration_cast<milliseconds>(steady_clock::now().time_since_epoch()).count());
}

uint32_t platform_thread_id() { return static_cast<uint32_t>(syscall(SYS_gettid)); }

bool platform_bind_current_thread(int core)
{
    // The cores the process started with, read before any thread is bound.
    static const std::optional<cpu_set_t> process_cores = [] {
        cpu_set_t cores;
        return sched_getaffinity(0, sizeof cores, &cores) == 0 ? std::optional<cpu_set_t>(cores) : std::nullopt;
    }();
    cpu_set_t cores;
    CPU_ZERO(&cores);
    if (core < 0 && process_cores)
        cores = *process_cores;
    else if (core >= 0 && core < CPU_SETSIZE)
        CPU_SET(core, &cores);
    else
        return false;
    return sched_setaffinity(0, sizeof cores, &cores) == 0;
}

int platform_current_core() { return sched_getcpu(); }

std::string platform_join_path(const std::string &folder, const std::string &name)
{
    if (folder.empty())
        return name;
    return folder.back() == '/' ? folder + name : folder + '/' + name;
}

// The environment is the place of policy here: set by the session or the
// service unit that starts the agent.
std::optional<std::string> platform_policy_value(const char *name)
{
    const char *value = getenv(name);
    if (!value)
        return std::nullopt;
    return std::string(value);
}

bool platform_system_fips_mode()
{
    std::ifstream kernel("/proc/sys/crypto/fips_enabled");
    int value = 0;
    return kernel >> value && value == 1;
}
