// The agent's three folders and the private-folder rule.
#pragma once

#include <string>

struct AgentFolders {
    std::string data;     // settings and key store
    std::string log;      // tAgentLog.txt and kvllog.ini
    std::string runtime;  // agent.sock, control.sock, agent.lock
    std::string agent_socket;
    std::string control_socket;
    std::string lock_file;
};

// Defaults from the XDG variables, the home folder and the uid; each
// non-empty override wins (options first, then TARNWELL_DATA_DIR and
// TARNWELL_LOG_DIR).
AgentFolders agent_folders(const std::string &socket_path, const std::string &data_dir, const std::string &log_dir);

// Creates the folder (and missing parents) with mode 0700, or checks an
// existing one: it must be a folder owned by this user with no access for
// group or others. Returns an empty string on success, else a message that
// says what is wrong.
std::string ensure_private_folder(const std::string &path);
