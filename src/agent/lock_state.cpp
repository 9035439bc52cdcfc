#include <atomic>

#include "agent/handlers.h"

namespace {
// Read by the tray and status code on other threads, hence atomic.
std::atomic<bool> locked{true};
}  // namespace

bool agent_is_locked() { return locked.load(); }
void agent_set_locked(bool value) { locked.store(value); }
