// A small group of auto-reset events sharing one lock, so that a thread can
// wait for any of several of them. A set event stays set until one waiter
// takes it; setting it again before then changes nothing.
#pragma once

#include <chrono>
#include <condition_variable>
#include <initializer_list>
#include <mutex>
#include <vector>

class AutoResetEvents {
public:
    explicit AutoResetEvents(size_t count) : signalled_(count, false) {}

    void set(size_t event)
    {
        {
            std::lock_guard<std::mutex> guard(lock_);
            signalled_[event] = true;
        }
        changed_.notify_all();
    }

    // Waits for `event`; false when the time-out passed first.
    bool wait_for(size_t event, std::chrono::milliseconds timeout)
    {
        std::unique_lock<std::mutex> guard(lock_);
        if (!changed_.wait_for(guard, timeout, [&] { return signalled_[event]; }))
            return false;
        signalled_[event] = false;
        return true;
    }

    void wait(size_t event) { wait_any({event}); }

    // Waits without limit for the first of `events` to be set, resets it and
    // returns it. Earlier entries win when several are set.
    size_t wait_any(std::initializer_list<size_t> events)
    {
        std::unique_lock<std::mutex> guard(lock_);
        size_t taken = 0;
        changed_.wait(guard, [&] {
            for (size_t event : events)
                if (signalled_[event]) {
                    taken = event;
                    return true;
                }
            return false;
        });
        signalled_[taken] = false;
        return taken;
    }

private:
    std::mutex lock_;
    std::condition_variable changed_;
    std::vector<bool> signalled_;
};
