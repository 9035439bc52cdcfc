#include "app/posix/folders.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

std::string env(const char *name)
{
    const char *value = getenv(name);
    return value && *value ? value : "";
}

std::string home_folder()
{
    std::string home = env("HOME");
    if (!home.empty())
        return home;
    if (struct passwd *pw = getpwuid(getuid()); pw && pw->pw_dir)
        return pw->pw_dir;
    return "/";
}

std::string xdg_folder(const char *variable, const char *fallback_below_home)
{
    std::string base = env(variable);
    if (base.empty())
        base = home_folder() + "/" + fallback_below_home;
    return base + "/tarnwell";
}

std::string first_of(const std::string &a, const std::string &b, const std::string &c)
{
    return !a.empty() ? a : !b.empty() ? b : c;
}

}  // namespace

AgentFolders agent_folders(const std::string &socket_path, const std::string &data_dir, const std::string &log_dir)
{
    AgentFolders f;
    f.data = first_of(data_dir, env("TARNWELL_DATA_DIR"), xdg_folder("XDG_DATA_HOME", ".local/share"));
    f.log = first_of(log_dir, env("TARNWELL_LOG_DIR"), xdg_folder("XDG_STATE_HOME", ".local/state"));
    if (!socket_path.empty()) {
        auto slash = socket_path.find_last_of('/');
        f.runtime = slash == std::string::npos ? "." : slash == 0 ? "/" : socket_path.substr(0, slash);
        f.agent_socket = socket_path;
    } else {
        std::string runtime = env("XDG_RUNTIME_DIR");
        f.runtime = runtime.empty() ? "/tmp/tarnwell-" + std::to_string(getuid()) : runtime + "/tarnwell";
        f.agent_socket = f.runtime + "/agent.sock";
    }
    f.control_socket = f.runtime + "/control.sock";
    f.lock_file = f.runtime + "/agent.lock";
    return f;
}

std::string ensure_private_folder(const std::string &path)
{
    struct stat st;
    if (lstat(path.c_str(), &st) != 0) {
        if (errno != ENOENT)
            return "cannot examine folder " + path + ": " + strerror(errno);
        // Missing parents are made too; only the folder itself must be private.
        for (size_t slash = path.find('/', 1); slash != std::string::npos; slash = path.find('/', slash + 1))
            mkdir(path.substr(0, slash).c_str(), 0700);
        if (mkdir(path.c_str(), 0700) != 0 && errno != EEXIST)
            return "cannot create folder " + path + ": " + strerror(errno);
        if (lstat(path.c_str(), &st) != 0)
            return "cannot examine folder " + path + ": " + strerror(errno);
    }
    if (!S_ISDIR(st.st_mode))
        return path + " is not a folder";
    if (st.st_uid != getuid())
        return "folder " + path + " belongs to another user; refusing to use it";
    if ((st.st_mode & 077) != 0) {
        char mode[8];
        snprintf(mode, sizeof mode, "%03o", st.st_mode & 0777);
        return "folder " + path + " has mode " + mode + ", open to other users; refusing to use it (chmod 700 " +
               path + ")";
    }
    return "";
}
