// A private OpenSSH server on 127.0.0.1 for end-to-end tests: its own host
// key, configuration and authorized_keys file in a temporary folder.
#pragma once

#include <arpa/inet.h>
#include <filesystem>
#include <fstream>
#include <netinet/in.h>
#include <string>
#include <sys/socket.h>
#include <vector>

#include "platform/platform.h"
#include "support/agent_process.h"

class SshdServer {
public:
    explicit SshdServer(const std::filesystem::path &dir) : dir_(dir) { std::filesystem::create_directories(dir_); }
    ~SshdServer()
    {
        if (pid_ > 0) {
            kill(pid_, SIGTERM);
            AgentProcess::wait_exit(pid_);
        }
    }

    // Starts sshd accepting the public keys in `authorized_keys`; `extra`
    // lines are added to its configuration.
    bool start(const std::string &authorized_keys, const std::vector<std::string> &extra = {})
    {
        std::filesystem::create_directories("/run/sshd");
        std::string host_key = (dir_ / "host_key").string();
        if (!make_ssh_keygen_key(host_key, "ed25519"))
            return false;
        std::ofstream(dir_ / "authorized_keys") << authorized_keys;
        port_ = free_port();
        std::ofstream config(dir_ / "sshd_config");
        config << "Port " << port_ << "\nListenAddress 127.0.0.1\nHostKey " << host_key << "\nAuthorizedKeysFile "
               << (dir_ / "authorized_keys").string() << "\nPidFile " << (dir_ / "sshd.pid").string()
               << "\nStrictModes no\nUsePAM no\nPasswordAuthentication no\nKbdInteractiveAuthentication no\n"
                  "PubkeyAuthentication yes\nPermitRootLogin yes\nAllowAgentForwarding yes\nLogLevel DEBUG1\n";
        for (const auto &line : extra)
            config << line << "\n";
        config.close();
        pid_ = AgentProcess::spawn({"/usr/sbin/sshd", "-D", "-e", "-f", (dir_ / "sshd_config").string()},
                                   log_path(), log_path());
        for (int i = 0; i < 100 && !has(log(), "Server listening"); ++i)
            std::this_thread::sleep_for(std::chrono::milliseconds(50));
        return has(log(), "Server listening");
    }

    int port() const { return port_; }
    std::string log_path() const { return (dir_ / "sshd.log").string(); }
    std::string log() const { return read_file_text(log_path()); }

    // Arguments of an ssh client that logs in with the agent's keys only.
    std::vector<std::string> ssh_args(const std::vector<std::string> &options, const std::string &command) const
    {
        std::vector<std::string> args = {"/usr/bin/ssh", "-F", "/dev/null", "-p", std::to_string(port_),
                                         "-o", "StrictHostKeyChecking=no", "-o", "UserKnownHostsFile=/dev/null",
                                         "-o", "BatchMode=yes", "-o", "PreferredAuthentications=publickey",
                                         "-o", "IdentityFile=/nonexistent"};
        args.insert(args.end(), options.begin(), options.end());
        args.insert(args.end(), {platform_user_name() + "@127.0.0.1", command});
        return args;
    }

private:
    static int free_port()
    {
        int fd = socket(AF_INET, SOCK_STREAM, 0);
        sockaddr_in a{};
        a.sin_family = AF_INET;
        a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        bind(fd, reinterpret_cast<sockaddr *>(&a), sizeof a);
        socklen_t len = sizeof a;
        getsockname(fd, reinterpret_cast<sockaddr *>(&a), &len);
        close(fd);
        return ntohs(a.sin_port);
    }

    std::filesystem::path dir_;
    pid_t pid_ = -1;
    int port_ = 0;
};
