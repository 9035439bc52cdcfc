// A small group of auto-reset events sharing one lock, so that a thread can
// wait for any of several of them. A set event stays set until one waiter
// takes it; setting it again before then changes nothing.
//
// A hand-over of one request sets and waits for two events, and most waits
// are shorter than putting a thread to sleep and waking it again: a waiter
// first watches the flags for a short while (yielding its core to anything
// else that is ready), and a setter takes the lock and wakes sleepers only
// when there are any.
#pragma once

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <initializer_list>
#include <memory>
#include <mutex>
#include <thread>

class AutoResetEvents {
public:
    // `watch` is how long a waiter for each event watches before it sleeps.
    AutoResetEvents(size_t count, std::initializer_list<std::chrono::microseconds> watch = {})
        : signalled_(new std::atomic<bool>[count]), watch_(new std::chrono::microseconds[count])
    {
        for (size_t i = 0; i < count; ++i) {
            signalled_[i] = false;
            watch_[i] = i < watch.size() ? watch.begin()[i] : std::chrono::microseconds(0);
        }
    }

    void set(size_t event)
    {
        signalled_[event].store(true);
        // Paired with the sleeper count raised before a waiter's last look
        // at the flags: either it sees the flag or this sees it.
        if (sleepers_.load() > 0) {
            std::lock_guard<std::mutex> guard(lock_);
            changed_.notify_all();
        }
    }

    // Waits for `event`; false when the time-out passed first.
    bool wait_for(size_t event, std::chrono::milliseconds timeout)
    {
        size_t taken = 0;
        auto until = std::chrono::steady_clock::now() + timeout;
        return wait_until({event}, &taken, &until);
    }

    void wait(size_t event) { wait_any({event}); }

    // Waits without limit for the first of `events` to be set, resets it and
    // returns it. Earlier entries win when several are set.
    size_t wait_any(std::initializer_list<size_t> events)
    {
        size_t taken = 0;
        wait_until(events, &taken, nullptr);
        return taken;
    }

private:
    bool take_any(std::initializer_list<size_t> events, size_t *taken)
    {
        for (size_t event : events)
            if (signalled_[event].load() && signalled_[event].exchange(false)) {
                *taken = event;
                return true;
            }
        return false;
    }

    bool wait_until(std::initializer_list<size_t> events, size_t *taken,
                    const std::chrono::steady_clock::time_point *until)
    {
        // Yielding, not busy: on a machine with few cores the thread that
        // will set the event may need this one's core.
        std::chrono::microseconds watch(0);
        for (size_t event : events)
            watch = std::max(watch, watch_[event]);
        auto watch_end = std::chrono::steady_clock::now() + watch;
        for (;;) {
            if (take_any(events, taken))
                return true;
            if (std::chrono::steady_clock::now() >= watch_end)
                break;
            std::this_thread::yield();
        }

        std::unique_lock<std::mutex> guard(lock_);
        sleepers_.fetch_add(1);
        bool got = false;
        auto ready = [&] { return got = take_any(events, taken); };
        if (until)
            changed_.wait_until(guard, *until, ready);
        else
            changed_.wait(guard, ready);
        sleepers_.fetch_sub(1);
        return got;
    }

    std::mutex lock_;
    std::condition_variable changed_;
    std::unique_ptr<std::atomic<bool>[]> signalled_;
    std::unique_ptr<std::chrono::microseconds[]> watch_;
    std::atomic<int> sleepers_{0};
};
