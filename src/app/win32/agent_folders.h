// The agent's data and log folders on Windows.
#pragma once

#include <string>

struct WindowsFolders {
    std::string data;  // settings and key store
    std::string log;   // tAgentLog.txt and kvllog.ini
};

// "Tarnwell Key Agent" in the user's roaming application-data folder, for
// both; TARNWELL_DATA_DIR and TARNWELL_LOG_DIR override each when set.
WindowsFolders windows_agent_folders();

// Creates the folder (and missing parents) with an access list for the user
// alone; an existing folder is kept as it is. False when it cannot be made.
bool create_private_folder(const std::string &path);
