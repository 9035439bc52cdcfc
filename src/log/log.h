// Leveled logger shared by every subsystem, and the fatal path.
#pragma once

#include <cstdarg>
#include <stdexcept>

#include "log/printf_format.h"

enum LogLevel {
    SYSLOG_LEVEL_FATAL = 1,
    SYSLOG_LEVEL_ERROR = 2,
    SYSLOG_LEVEL_INFO = 3,
    SYSLOG_LEVEL_VERBOSE = 4,
    SYSLOG_LEVEL_DEBUG1 = 5,
    SYSLOG_LEVEL_DEBUG2 = 6,
    SYSLOG_LEVEL_DEBUG3 = 7,
};

// Bodies are formatted into a buffer of this size; longer ones are cut.
constexpr int LOG_MESSAGE_MAX = 2048;

// Receives every finished line that passes the threshold.
using LogCallback = void (*)(int level, const char *line, void *context);

// The program's own non-continuable exception, raised by fatal() once the
// registered clean-ups have run. Code 0x60000000 mirrors the Windows build.
class FatalError : public std::runtime_error {
public:
    static constexpr unsigned code = 0x60000000u;
    explicit FatalError(const char *message) : std::runtime_error(message) {}
};

// Raised by fatal_input() for bad bytes from a client: it ends that request
// and that client's connection, not the program.
class InputRejected : public std::runtime_error {
public:
    explicit InputRejected(const char *message) : std::runtime_error(message) {}
};

// While one is alive on a thread, fatal_input() on that thread logs its text
// at error level and raises InputRejected; elsewhere it is fatal(). The
// dispatcher holds one while it handles a client's request.
class ClientInputScope {
public:
    ClientInputScope();
    ~ClientInputScope();
    ClientInputScope(const ClientInputScope &) = delete;
    ClientInputScope &operator=(const ClientInputScope &) = delete;

private:
    bool outer_;
};

// Says whether a line of `level` would reach anything right now (a log file
// or standard error): lines that would not are not even formatted.
using LogWanted = bool (*)(int level);

// Both replace any LogWanted filter: every line that passes the threshold
// goes to the callback.
void log_init(const char *name, int level, int facility, LogCallback callback = nullptr, void *context = nullptr);
void log_set_callback(LogCallback callback, void *context);
// Installed after the callback, by an owner that knows where its lines go.
void log_set_wanted(LogWanted wanted);
// True when a line of `level` passes the threshold, has a callback and is
// wanted; callers may skip building a message when it is false.
bool log_wanted(int level);
int log_level();
const char *log_name();

void do_log(int level, const char *fmt, va_list args) PRINTF_FORMAT(2, 0);
// Logs an already formatted text as it stands.
void do_log_text(int level, const char *text);

[[noreturn]] void fatal(const char *fmt, ...) PRINTF_FORMAT(1, 2);
// What reading bytes from outside finds impossible (over-long strings, big
// numbers): see ClientInputScope.
[[noreturn]] void fatal_input(const char *fmt, ...) PRINTF_FORMAT(1, 2);
void error(const char *fmt, ...) PRINTF_FORMAT(1, 2);
void logit(const char *fmt, ...) PRINTF_FORMAT(1, 2);
void verbose(const char *fmt, ...) PRINTF_FORMAT(1, 2);
void debug(const char *fmt, ...) PRINTF_FORMAT(1, 2);
void debug2(const char *fmt, ...) PRINTF_FORMAT(1, 2);
void debug3(const char *fmt, ...) PRINTF_FORMAT(1, 2);

// Name lookups for configuration text ("INFO", "DEBUG2", "LOCAL3" ...);
// -1 when the name is unknown.
int log_level_number(const char *name);
int log_facility_number(const char *name);

using CleanupFunction = void (*)(void *);
void fatal_add_cleanup(CleanupFunction function, void *argument);
void fatal_remove_cleanup(CleanupFunction function, void *argument);
[[noreturn]] void fatal_cleanup();
