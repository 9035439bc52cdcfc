// What a shell (the Windows desktop program, the POSIX daemon) does for the
// core. The shell fills the record in once at start-up, before the
// message-processing thread starts; an empty entry does nothing, answers No
// or Cancel, or counts every window as existing.
#pragma once

#include <cstdint>

#include "keys/secure_memory.h"

struct ShellServices {
    // Ends the shell's message loop, so that the agent stops.
    void (*post_quit)() = nullptr;
    // The lock state may have changed: redraw the tray icon (or tell the
    // watchers). Called on the message-processing thread.
    void (*redraw_tray)() = nullptr;
    // The unlock dialog; true with the typed passphrase.
    bool (*ask_unlock_passphrase)(SecretString *passphrase) = nullptr;
    // The key passphrase prompt (a key's password, a token's PIN).
    bool (*ask_key_passphrase)(const char *prompt, SecretString *answer) = nullptr;
    // The confirmation message box before a remote server may sign.
    bool (*confirm_key_operation)(const char *key_description) = nullptr;
    // A message box with one of the program's texts.
    void (*show_error)(int text_id) = nullptr;
    // The change notice: the manager window, and the registered windows.
    void (*notify_manager)() = nullptr;
    bool (*window_exists)(uint64_t window) = nullptr;
    void (*post_command)(uint64_t window, uint32_t command) = nullptr;
    // The fatal shutdown after a fatal error was caught (message text 199,
    // then quit).
    void (*fatal_shutdown)() = nullptr;
};

void shell_services_set(const ShellServices &services);
const ShellServices &shell_services();

// Asks the shell to stop the agent.
void shell_post_quit();
// Asks the shell to redraw the lock state.
void shell_redraw_tray();
// Logs the fatal shutdown and hands it to the shell.
void run_fatal_shutdown();
