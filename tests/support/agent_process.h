// Starts the real tkeyagent in a private folder and talks to it over its
// socket.
#pragma once

#include <algorithm>
#include <atomic>
#include <chrono>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>
#include <vector>

#include <gtest/gtest.h>

#include "support/bytes.h"
#include "support/files.h"
#include "support/tool_run.h"

class AgentProcess {
public:
    explicit AgentProcess(std::vector<std::string> extra_args = {}, const std::string &name = "agent")
    {
        root_ = std::filesystem::temp_directory_path() /
                ("tarnwell-" + name + "-" + std::to_string(getpid()) + "-" + std::to_string(counter()++));
        std::filesystem::remove_all(root_);
        std::filesystem::create_directories(root_);
        std::filesystem::permissions(root_, std::filesystem::perms::owner_all);
        extra_args_ = std::move(extra_args);
    }
    ~AgentProcess()
    {
        stop();
        remove_folder(root_);
    }

    std::filesystem::path root() const { return root_; }
    // Environment assignments ("NAME=value") for the agent process.
    void set_env(std::vector<std::string> env) { env_ = std::move(env); }
    std::string socket_path() const { return (root_ / "run" / "agent.sock").string(); }
    std::string data_dir() const { return (root_ / "data").string(); }
    std::string log_dir() const { return (root_ / "log").string(); }
    std::string stderr_path() const { return (root_ / "stderr.txt").string(); }
    std::string stdout_path() const { return (root_ / "stdout.txt").string(); }
    pid_t pid() const { return pid_; }
    int exit_status() const { return exit_status_; }
    void set_extra_args(std::vector<std::string> extra_args) { extra_args_ = std::move(extra_args); }

    std::vector<std::string> base_args() const
    {
        return {TKEYAGENT_PATH, "-d", "-a", socket_path(), "--data-dir", data_dir(), "--log-dir", log_dir()};
    }

    // Starts the agent and waits for its socket; false if it did not come up.
    // A first run (no settings file yet) gets the empty passphrase unless
    // the test says how the passphrase is given, by option or by a pinentry.
    bool start()
    {
        std::vector<std::string> args = base_args();
        args.insert(args.end(), extra_args_.begin(), extra_args_.end());
        bool passphrase_chosen = std::any_of(extra_args_.begin(), extra_args_.end(), [](const std::string &a) {
            return a == "--passphrase-file" || a == "--empty-passphrase";
        });
        bool pinentry_chosen = std::any_of(env_.begin(), env_.end(), [](const std::string &e) {
            return e.rfind("TARNWELL_PINENTRY=", 0) == 0;
        });
        if (!passphrase_chosen && !pinentry_chosen && !std::filesystem::exists(root_ / "data" / "tAgent"))
            args.push_back("--empty-passphrase");
        // No test may reach a real pinentry: unless a test chose one, the
        // agent finds none and every prompt counts as cancelled.
        std::vector<std::string> env = {"TARNWELL_PINENTRY=/nonexistent/pinentry"};
        env.insert(env.end(), env_.begin(), env_.end());
        pid_ = spawn(args, stdout_path(), stderr_path(), env);
        for (int i = 0; i < 200; ++i) {
            if (std::filesystem::exists(socket_path()))
                return true;
            int status;
            if (waitpid(pid_, &status, WNOHANG) == pid_) {
                pid_ = -1;
                exit_status_ = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
                return false;
            }
            std::this_thread::sleep_for(std::chrono::milliseconds(50));
        }
        return false;
    }

    // SIGTERM and wait; returns the exit status.
    int stop(int signal_number = SIGTERM)
    {
        if (pid_ > 0) {
            kill(pid_, signal_number);
            exit_status_ = wait_exit(pid_);
            pid_ = -1;
        }
        return exit_status_;
    }

    // Waits for the agent to end on its own; returns the exit status.
    int wait_for_exit()
    {
        if (pid_ > 0) {
            exit_status_ = wait_exit(pid_);
            pid_ = -1;
        }
        return exit_status_;
    }

    static int wait_exit(pid_t pid)
    {
        int status = 0;
        waitpid(pid, &status, 0);
        return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    }

    static pid_t spawn(const std::vector<std::string> &args, const std::string &out, const std::string &err,
                       const std::vector<std::string> &env = {})
    {
        pid_t pid = fork();
        if (pid == 0) {
            FILE *o = freopen(out.c_str(), "a", stdout);
            FILE *e = freopen(err.c_str(), "a", stderr);
            (void)o;
            (void)e;
            for (const auto &assignment : env)
                putenv(const_cast<char *>(assignment.c_str()));
            std::vector<char *> argv;
            for (const auto &a : args)
                argv.push_back(const_cast<char *>(a.c_str()));
            argv.push_back(nullptr);
            execv(argv[0], argv.data());
            _exit(127);
        }
        return pid;
    }

    std::string log_text() const { return read_file(stderr_path()); }

    static std::string read_file(const std::string &path) { return read_file_text(path); }

private:
    static int &counter()
    {
        static int n = 0;
        return n;
    }
    std::filesystem::path root_;
    std::vector<std::string> extra_args_;
    std::vector<std::string> env_;
    pid_t pid_ = -1;
    int exit_status_ = -1;
};

struct ProgramRun {
    int status;
    std::string output;  // standard output and standard error
};

// Runs `args` to its end with `agent`'s socket as SSH_AUTH_SOCK.
inline ProgramRun run_program(const AgentProcess &agent, const std::vector<std::string> &args,
                              std::vector<std::string> env = {})
{
    static std::atomic<int> n{0};
    std::string out = (agent.root() / ("run-" + std::to_string(n++) + ".txt")).string();
    env.push_back("SSH_AUTH_SOCK=" + agent.socket_path());
    int status = AgentProcess::wait_exit(AgentProcess::spawn(args, out, out, env));
    ProgramRun run{status, AgentProcess::read_file(out)};
    std::filesystem::remove(out);
    return run;
}

inline ProgramRun run_tagent(const AgentProcess &agent, std::vector<std::string> args)
{
    args.insert(args.begin(), {TAGENT_PATH, "-a", agent.socket_path()});
    return run_program(agent, args);
}

inline ProgramRun ssh_add(const AgentProcess &agent, std::vector<std::string> args)
{
    args.insert(args.begin(), "/usr/bin/ssh-add");
    return run_program(agent, args);
}

// Writes `text` to `name` in the agent's private folder; its path.
inline std::string write_text(const AgentProcess &agent, const std::string &name, const std::string &text)
{
    std::string path = (agent.root() / name).string();
    std::ofstream(path, std::ios::binary | std::ios::trunc) << text;
    return path;
}

// A new unencrypted PEM key (and its .pub) made by ssh-keygen in the
// agent's folder, its path as its comment.
inline std::string make_key(const AgentProcess &agent, const std::string &name, const std::string &type, int bits = 0)
{
    std::string path = (agent.root() / name).string();
    EXPECT_TRUE(make_ssh_keygen_key(path, type, bits, path)) << path;
    return path;
}

// The agent signs a file with the key whose public half is `key_file`.pub
// (ssh-keygen -Y sign), and the signature checks out against it.
inline bool agent_signs_with(const AgentProcess &agent, const std::string &key_file)
{
    std::string message = write_text(agent, "message.txt", "sign me\n");
    std::filesystem::remove(message + ".sig");
    ProgramRun made = run_program(agent, {"/usr/bin/ssh-keygen", "-Y", "sign", "-n", "file", "-f", key_file + ".pub",
                                          message});
    ProgramRun checked = run_program(agent, {"/bin/sh", "-c", "ssh-keygen -Y check-novalidate -n file -f " + key_file +
                                                                  ".pub -s " + message + ".sig < " + message});
    return made.status == 0 && checked.status == 0;
}

// One client connection to an agent socket.
class AgentClient {
public:
    explicit AgentClient(const std::string &path)
    {
        fd_ = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
        struct sockaddr_un address = {};
        address.sun_family = AF_UNIX;
        snprintf(address.sun_path, sizeof address.sun_path, "%s", path.c_str());
        connected_ = connect(fd_, reinterpret_cast<struct sockaddr *>(&address), sizeof address) == 0;
        struct timeval limit = {10, 0};
        setsockopt(fd_, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit);
    }
    ~AgentClient() { close(fd_); }
    bool connected() const { return connected_; }

    void send_bytes(const Bytes &bytes) { (void)!::send(fd_, bytes.data(), bytes.size(), MSG_NOSIGNAL); }

    // Reads one framed reply; empty when none arrives within `timeout_ms`.
    Bytes read_reply(int timeout_ms = 10000)
    {
        struct timeval limit = {timeout_ms / 1000, (timeout_ms % 1000) * 1000};
        setsockopt(fd_, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit);
        Bytes header(4);
        if (!read_exact(header.data(), 4))
            return {};
        uint32_t n = get_u32(header.data());
        Bytes reply = header;
        reply.resize(4 + n);
        if (!read_exact(reply.data() + 4, n))
            return {};
        return reply;
    }

    Bytes request(const Bytes &framed)
    {
        send_bytes(framed);
        return read_reply();
    }

    // True when the agent closed the connection.
    bool closed_by_peer(int timeout_ms = 5000)
    {
        struct timeval limit = {timeout_ms / 1000, (timeout_ms % 1000) * 1000};
        setsockopt(fd_, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit);
        uint8_t byte;
        return ::recv(fd_, &byte, 1, 0) == 0;
    }

private:
    bool read_exact(uint8_t *data, size_t size)
    {
        while (size > 0) {
            ssize_t n = ::recv(fd_, data, size, 0);
            if (n <= 0)
                return false;
            data += n;
            size -= static_cast<size_t>(n);
        }
        return true;
    }
    int fd_ = -1;
    bool connected_ = false;
};
