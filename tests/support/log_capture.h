// Collects the logger's finished lines for assertions.
#pragma once

#include <mutex>
#include <string>
#include <vector>

#include "log/log.h"

class LogCapture {
public:
    explicit LogCapture(int level = SYSLOG_LEVEL_DEBUG3) { log_init("test", level, 1, &LogCapture::collect, this); }
    ~LogCapture() { log_set_callback(nullptr, nullptr); }

    std::vector<std::string> lines()
    {
        std::lock_guard<std::mutex> guard(lock_);
        return lines_;
    }
    bool contains(const std::string &text) { return index_of(text) >= 0; }
    // Index of the first line holding `text`, or -1.
    int index_of(const std::string &text)
    {
        auto all = lines();
        for (size_t i = 0; i < all.size(); ++i)
            if (all[i].find(text) != std::string::npos)
                return static_cast<int>(i);
        return -1;
    }
    void clear()
    {
        std::lock_guard<std::mutex> guard(lock_);
        lines_.clear();
    }

private:
    static void collect(int, const char *line, void *self)
    {
        auto *capture = static_cast<LogCapture *>(self);
        std::lock_guard<std::mutex> guard(capture->lock_);
        capture->lines_.emplace_back(line);
    }
    std::mutex lock_;
    std::vector<std::string> lines_;
};
