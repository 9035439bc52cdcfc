// The agent's start and stop, the same for every shell. A shell does what
// only it can (folders, single-instance test, transports, prompts, tray) and
// calls these in order:
//
//   agent_load_settings_and_log   settings file, then logging
//   (shell: single-instance test, transports)
//   agent_run                     message-processing thread, identity
//                                 tables, start-up passphrase, "started",
//                                 the shell's loop, "stopped", shutdown
#pragma once

#include <string>

#include "agent/shell_services.h"

// Points the core at the data folder, reads the settings and starts
// logging into the log folder (`copy_to_stderr` for a foreground run).
void agent_load_settings_and_log(const std::string &data_folder, const std::string &log_folder,
                                 bool copy_to_stderr);

// The steps a shell adds to the run, in the order they are called. Steps
// that are not given are skipped.
struct AgentShellSteps {
    // After the identity tables exist: sets or proves the agent passphrase
    // (dialogs on the shell's thread, the state's work through
    // run_on_message_thread). False ends the start: the agent shuts down
    // without entering its loop.
    bool (*initialise_passphrase)() = nullptr;
    void (*show_tray)() = nullptr;
    // The shell's message loop; returns when the agent is to stop.
    void (*run_loop)() = nullptr;
    // Before the agent's state is wiped: remove the tray icon, close the
    // manager window.
    void (*hide_tray)() = nullptr;
    // Ends the client connections; no request reaches the state after it.
    void (*close_connections)() = nullptr;
};

// Installs the shell's services and runs the agent from the start of the
// message-processing thread to its stop. Returns the exit status: 0 after a
// normal stop, 1 when the start was refused (no agent passphrase).
int agent_run(const ShellServices &services, const AgentShellSteps &steps);
