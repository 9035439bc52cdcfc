// Starts the real tkeyagent in a private folder and talks to it over its
// socket.
#pragma once

#include <atomic>
#include <csignal>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "app/posix/unix_socket.h"
#include "support/bytes.h"
#include "support/files.h"
#include "support/tool_run.h"

// A request that the agent answers at once (213 without its length, refused
// with 102): the cheapest sign of life.
inline const Bytes QUICK_REQUEST = frame(hex_bytes("d5"));
inline const Bytes QUICK_REPLY = hex_bytes("00000001 66");
// "Is the agent locked?" and its two answers.
inline const Bytes IS_LOCKED = frame(hex_bytes("97"));
inline const Bytes LOCKED = hex_bytes("00000001 aa");
inline const Bytes UNLOCKED = hex_bytes("00000001 ab");

// True when `part` occurs in `text`.
inline bool has(const std::string &text, const std::string &part) { return text.find(part) != std::string::npos; }

// The permission bits of a file or folder; 0 when it is missing.
inline unsigned mode_of(const std::string &path)
{
    struct stat st;
    return stat(path.c_str(), &st) == 0 ? st.st_mode & 0777 : 0;
}

class AgentProcess {
public:
    explicit AgentProcess(std::vector<std::string> args = {})
        : extra_args(std::move(args)), root_(fresh_temp_folder("agent"))
    {
        std::filesystem::permissions(root_, std::filesystem::perms::owner_all);
    }
    ~AgentProcess()
    {
        stop();
        remove_folder(root_);
    }

    // The arguments after base_args(), and the environment assignments
    // ("NAME=value"), of the next start.
    std::vector<std::string> extra_args, env;

    std::filesystem::path root() const { return root_; }
    std::string socket_path() const { return (root_ / "run" / "agent.sock").string(); }
    std::string control_path() const { return (root_ / "run" / "control.sock").string(); }
    std::string data_dir() const { return (root_ / "data").string(); }
    std::string stderr_path() const { return (root_ / "stderr.txt").string(); }
    std::string log_text() const { return read_file_text(stderr_path()); }
    pid_t pid() const { return pid_; }
    int exit_status() const { return exit_status_; }

    std::vector<std::string> base_args() const
    {
        return {TKEYAGENT_PATH, "-d", "-a", socket_path(), "--data-dir", data_dir(), "--log-dir", (root_ / "log").string()};
    }

    // Starts the agent and waits for its socket; false if it did not come up.
    bool start()
    {
        std::vector<std::string> args = base_args();
        args.insert(args.end(), extra_args.begin(), extra_args.end());
        // No test may reach a real pinentry: unless a test chose one, the
        // agent finds none and every prompt counts as cancelled.
        std::vector<std::string> assignments = {"TARNWELL_PINENTRY=/nonexistent/pinentry"};
        assignments.insert(assignments.end(), env.begin(), env.end());
        pid_ = spawn(args, (root_ / "stdout.txt").string(), stderr_path(), assignments);
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

    // Sends `signal_number` (none: waits for the agent to end on its own);
    // returns the exit status.
    int stop(int signal_number = SIGTERM)
    {
        if (pid_ > 0) {
            if (signal_number)
                kill(pid_, signal_number);
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
        pid_t parent = getpid();
        pid_t pid = fork();
        if (pid == 0) {
            // A test process that dies (a crash, a kill from the runner's
            // time-out) takes what it started with it.
            if (prctl(PR_SET_PDEATHSIG, SIGTERM) != 0 || getppid() != parent)
                _exit(127);
            (void)!freopen(out.c_str(), "a", stdout);
            (void)!freopen(err.c_str(), "a", stderr);
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

private:
    std::filesystem::path root_;
    pid_t pid_ = -1;
    int exit_status_ = -1;
};

using ProgramRun = ToolResult;

// Runs `args` to its end with `agent`'s socket as SSH_AUTH_SOCK.
inline ProgramRun run_program(const AgentProcess &agent, const std::vector<std::string> &args,
                              std::vector<std::string> env = {})
{
    static std::atomic<int> n{0};
    std::string out = (agent.root() / ("run-" + std::to_string(n++) + ".txt")).string();
    env.push_back("SSH_AUTH_SOCK=" + agent.socket_path());
    int status = AgentProcess::wait_exit(AgentProcess::spawn(args, out, out, env));
    ProgramRun run{status, read_file_text(out)};
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
    std::string sign = "ssh-keygen -Y sign -n file -f " + key_file + ".pub " + message + " && ssh-keygen -Y " +
                       "check-novalidate -n file -f " + key_file + ".pub -s " + message + ".sig < " + message;
    return run_program(agent, {"/bin/sh", "-c", sign}).status == 0;
}

// One client connection to an agent socket; a read waits at most 10 s.
class AgentClient {
public:
    explicit AgentClient(const std::string &path) : fd_(unix_socket_connect(path))
    {
        struct timeval limit = {10, 0};
        setsockopt(fd_, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit);
    }
    ~AgentClient() { close(fd_); }
    void send_bytes(const Bytes &bytes) { (void)!::send(fd_, bytes.data(), bytes.size(), MSG_NOSIGNAL); }
    void finish_sending() { shutdown(fd_, SHUT_WR); }

    // Reads one framed reply; empty when none arrives.
    Bytes read_reply()
    {
        SecureBytes body;
        return socket_read_framed(fd_, 1 << 20, &body) ? frame(Bytes(body.begin(), body.end())) : Bytes();
    }

    Bytes request(const Bytes &framed)
    {
        send_bytes(framed);
        return read_reply();
    }

    // True when the agent closed the connection.
    bool closed_by_peer()
    {
        uint8_t byte;
        return ::recv(fd_, &byte, 1, 0) == 0;
    }

private:
    int fd_;
};
