#include "log/log.h"

#include <atomic>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <forward_list>
#include <mutex>
#include <string>

#include "log/text_compare.h"
#include "platform/platform.h"

namespace {

struct LoggerState {
    std::string name = "tarnwell";
    int level = SYSLOG_LEVEL_INFO;
    int facility = 0;
    LogCallback callback = nullptr;
    void *context = nullptr;
    std::atomic<LogWanted> wanted{nullptr};
};

LoggerState &logger()
{
    static LoggerState state;
    return state;
}

struct Cleanup {
    CleanupFunction function;
    void *argument;
};

// New entries go to the head, so clean-ups run newest first.
std::forward_list<Cleanup> &cleanups()
{
    static std::forward_list<Cleanup> list;
    return list;
}

std::atomic<bool> fatal_cleanup_entered{false};

[[noreturn]] void run_cleanups_and_raise(const char *message)
{
    // A clean-up that itself fails fatally lands here a second time: raise
    // at once rather than run the list again.
    if (!fatal_cleanup_entered.exchange(true)) {
        for (const Cleanup &entry : cleanups()) {
            debug("Calling cleanup 0x%lx(0x%lx)",
                  static_cast<unsigned long>(reinterpret_cast<uintptr_t>(entry.function)),
                  static_cast<unsigned long>(reinterpret_cast<uintptr_t>(entry.argument)));
            try {
                entry.function(entry.argument);
            } catch (const FatalError &) {
                // Already on the fatal path; the remaining clean-ups still run.
            }
        }
        fatal_cleanup_entered = false;
    }
    throw FatalError(message);
}

[[noreturn]] void vfatal(const char *fmt, va_list args)
{
    char message[LOG_MESSAGE_MAX];
    vsnprintf(message, sizeof message, fmt, args);
    va_end(args);
    do_log_text(SYSLOG_LEVEL_FATAL, message);
    run_cleanups_and_raise(message);
}

const char *level_prefix(int level)
{
    switch (level) {
    case SYSLOG_LEVEL_FATAL: return "fatal";
    case SYSLOG_LEVEL_ERROR: return "error";
    case SYSLOG_LEVEL_INFO:
    case SYSLOG_LEVEL_VERBOSE: return nullptr;
    case SYSLOG_LEVEL_DEBUG1: return "debug1";
    case SYSLOG_LEVEL_DEBUG2: return "debug2";
    case SYSLOG_LEVEL_DEBUG3: return "debug3";
    default: return "internal error";
    }
}

void log_text(int level, const char *fmt, ...) PRINTF_FORMAT(2, 3);
void log_text(int level, const char *fmt, ...)
{
    va_list args;
    va_start(args, fmt);
    do_log(level, fmt, args);
    va_end(args);
}

}  // namespace

void log_init(const char *name, int level, int facility, LogCallback callback, void *context)
{
    LoggerState &state = logger();
    state.name = name ? name : "";
    state.level = level;
    state.facility = facility;
    state.callback = callback;
    state.context = context;
    state.wanted = nullptr;
}

void log_set_callback(LogCallback callback, void *context)
{
    logger().callback = callback;
    logger().context = context;
    logger().wanted = nullptr;
}

void log_set_wanted(LogWanted wanted) { logger().wanted = wanted; }

bool log_wanted(int level)
{
    const LoggerState &state = logger();
    if (level > state.level || state.callback == nullptr)
        return false;
    LogWanted wanted = state.wanted.load(std::memory_order_relaxed);
    return wanted == nullptr || wanted(level);
}

int log_level() { return logger().level; }
const char *log_name() { return logger().name.c_str(); }

void do_log(int level, const char *fmt, va_list args)
{
    const LoggerState &state = logger();
    if (!log_wanted(level))
        return;

    char body[LOG_MESSAGE_MAX];
    vsnprintf(body, sizeof body, fmt, args);

    std::string line;
    const char *prefix = level_prefix(level);
    if (prefix == nullptr) {
        line = body;
    } else if (level < SYSLOG_LEVEL_DEBUG1) {
        line = std::string(prefix) + ": " + body;
    } else {
        LocalTime t = platform_local_time();
        char stamp[64];
        snprintf(stamp, sizeof stamp, "%04u-%02u-%02u %2u:%02u:%02u:%03u", t.year, t.month, t.day, t.hour,
                 t.minute, t.second, t.millisecond);
        line = std::string(stamp) + " " + prefix + ": " + body;
    }
    if (state.callback)
        state.callback(level, line.c_str(), state.context);
}

void do_log_text(int level, const char *text)
{
    // Goes through the formatter with "%s" so that the text is not expanded again.
    log_text(level, "%s", text);
}

#define DEFINE_LOG_WRAPPER(function, level_value)                                                                      \
    void function(const char *fmt, ...)                                                                                \
    {                                                                                                                  \
        va_list args;                                                                                                  \
        va_start(args, fmt);                                                                                           \
        do_log(level_value, fmt, args);                                                                                \
        va_end(args);                                                                                                  \
    }

DEFINE_LOG_WRAPPER(error, SYSLOG_LEVEL_ERROR)
DEFINE_LOG_WRAPPER(logit, SYSLOG_LEVEL_INFO)
DEFINE_LOG_WRAPPER(verbose, SYSLOG_LEVEL_VERBOSE)
DEFINE_LOG_WRAPPER(debug, SYSLOG_LEVEL_DEBUG1)
DEFINE_LOG_WRAPPER(debug2, SYSLOG_LEVEL_DEBUG2)
DEFINE_LOG_WRAPPER(debug3, SYSLOG_LEVEL_DEBUG3)

void fatal(const char *fmt, ...)
{
    va_list args;
    va_start(args, fmt);
    vfatal(fmt, args);
}

namespace {
thread_local bool reading_client_input = false;
}  // namespace

ClientInputScope::ClientInputScope() : outer_(reading_client_input) { reading_client_input = true; }

ClientInputScope::~ClientInputScope() { reading_client_input = outer_; }

void fatal_input(const char *fmt, ...)
{
    va_list args;
    va_start(args, fmt);
    if (!reading_client_input)
        vfatal(fmt, args);
    char message[LOG_MESSAGE_MAX];
    vsnprintf(message, sizeof message, fmt, args);
    va_end(args);
    do_log_text(SYSLOG_LEVEL_ERROR, message);
    throw InputRejected(message);
}

int log_level_number(const char *name)
{
    static const struct { const char *name; int level; } levels[] = {
        {"QUIET", 0},
        {"FATAL", SYSLOG_LEVEL_FATAL},
        {"ERROR", SYSLOG_LEVEL_ERROR},
        {"INFO", SYSLOG_LEVEL_INFO},
        {"VERBOSE", SYSLOG_LEVEL_VERBOSE},
        {"DEBUG", SYSLOG_LEVEL_DEBUG1},
        {"DEBUG1", SYSLOG_LEVEL_DEBUG1},
        {"DEBUG2", SYSLOG_LEVEL_DEBUG2},
        {"DEBUG3", SYSLOG_LEVEL_DEBUG3},
    };
    for (const auto &entry : levels)
        if (name && equals_ignore_case(name, entry.name))
            return entry.level;
    return -1;
}

int log_facility_number(const char *name)
{
    static const char *const facilities[] = {"DAEMON", "USER", "AUTH", "LOCAL0", "LOCAL1", "LOCAL2",
                                             "LOCAL3", "LOCAL4", "LOCAL5", "LOCAL6", "LOCAL7"};
    for (int i = 0; i < static_cast<int>(sizeof facilities / sizeof facilities[0]); ++i)
        if (name && equals_ignore_case(name, facilities[i]))
            return i;
    return -1;
}

void fatal_add_cleanup(CleanupFunction function, void *argument)
{
    cleanups().push_front({function, argument});
}

void fatal_remove_cleanup(CleanupFunction function, void *argument)
{
    auto &list = cleanups();
    for (auto before = list.before_begin(), it = list.begin(); it != list.end(); before = it++) {
        if (it->function == function && it->argument == argument) {
            list.erase_after(before);
            return;
        }
    }
    fatal("fatal_remove_cleanup: no such cleanup function: 0x%lx 0x%lx",
          static_cast<unsigned long>(reinterpret_cast<uintptr_t>(function)),
          static_cast<unsigned long>(reinterpret_cast<uintptr_t>(argument)));
}

void fatal_cleanup()
{
    run_cleanups_and_raise("fatal error");
}
