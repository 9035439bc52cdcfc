// Registered refresh windows and the change notice that reaches them.
#pragma once

#include <cstdint>
#include <vector>

struct RefreshRegistration {
    uint64_t window;
    uint32_t command;
};

// Tells the manager and every registered window, through the shell's
// services, that the identity set or the lock state changed. A registration
// whose window is gone is dropped; when that was the first registration the
// walk ends there and the rest hear nothing this time (they will at the next
// notice). Runs on the message-processing thread, which owns the list.
void send_change_notice();

// The registrations in order, for status displays and tests (on the
// message-processing thread, or while it is not running).
std::vector<RefreshRegistration> refresh_registrations();
void refresh_registrations_clear();
