// Registered refresh windows and the change notice that reaches them.
#pragma once

#include <cstdint>
#include <vector>

struct RefreshRegistration {
    uint64_t window;
    uint32_t command;
};

// How the notice reaches the shell's listeners (the manager window and
// registered windows on Windows, `tagent watch` subscribers on POSIX). The
// shell fills them in at start-up; an empty hook does nothing, and without
// `window_exists` every registered window counts as existing.
struct ChangeNoticeHooks {
    void (*notify_manager)() = nullptr;
    bool (*window_exists)(uint64_t window) = nullptr;
    void (*post_command)(uint64_t window, uint32_t command) = nullptr;
};

void change_notice_hooks_set(const ChangeNoticeHooks &hooks);

// Tells the manager and every registered window that the identity set or
// the lock state changed. A registration whose window is gone is dropped;
// when that was the first registration the walk ends there and the rest
// hear nothing this time (they will at the next notice).
void send_change_notice();

// The registrations in order, for status displays and tests.
std::vector<RefreshRegistration> refresh_registrations();
void refresh_registrations_clear();
