// What the core asks of the shell that hosts it. The shell fills these in
// once at start-up; a hook left empty does nothing.
#pragma once

#include <cstdint>

struct AgentShellHooks {
    // The identity set or the lock state changed: tell the manager (the
    // manager window on Windows, `tagent watch` subscribers on POSIX).
    void (*notify_manager)() = nullptr;
    // Whether the window named by a refresh registration still exists; with
    // no hook every registered window counts as existing.
    bool (*window_exists)(uint64_t window) = nullptr;
    // Delivers a registered window's command identifier to it.
    void (*post_command)(uint64_t window, uint32_t command) = nullptr;
    // Redraws the lock-state display (tray icon or status), synchronously.
    void (*redraw_status)(int parameter) = nullptr;
    // Ends the agent's main loop so that the agent exits.
    void (*stop_agent)() = nullptr;
};

void agent_shell_hooks_set(const AgentShellHooks &hooks);
const AgentShellHooks &agent_shell_hooks();
