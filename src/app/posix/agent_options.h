// Command line of tkeyagent.
#pragma once

#include <string>

struct AgentOptions {
    bool foreground = false;  // -D or -d
    bool debug = false;       // -d: log lines to standard error as well
    bool kill = false;        // -k
    char shell_style = 0;     // 's' Bourne, 'c' C shell, 0 from $SHELL
    std::string socket_path;  // -a
    std::string data_dir;
    std::string log_dir;
    long long owner = 0;
    std::string passphrase_file;  // first run: sets it; later runs: unlocks
    bool empty_passphrase = false;  // first run: no passphrase, AttemptEmpty on
    bool start_over = false;  // settings file lost: set the key store aside, first run
};

// Parses argv; on a usage error returns false with `message` set. Sets
// `help` when --help was asked for.
bool parse_agent_options(int argc, char **argv, AgentOptions *options, bool *help, std::string *message);

extern const char *const AGENT_USAGE;
