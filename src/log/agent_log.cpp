#include "log/agent_log.h"

#include <cctype>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <atomic>
#include <fstream>
#include <mutex>

#include "log/log.h"
#include "log/text_compare.h"
#include "platform/platform.h"

std::string format_with_zero_arguments(const char *text)
{
    std::string out;
    for (const char *p = text; *p;) {
        if (*p != '%') {
            out += *p++;
            continue;
        }
        const char *start = p++;
        if (*p == '%') {
            out += '%';
            ++p;
            continue;
        }
        std::string spec = "%";
        while (*p && strchr("-+ #0'", *p))
            spec += *p++;
        while (*p && (isdigit(static_cast<unsigned char>(*p)) || *p == '*' || *p == '.')) {
            if (*p != '*')
                spec += *p;
            ++p;
        }
        while (*p && strchr("hlLqjzt", *p))
            ++p;
        char conversion = *p;
        if (conversion == '\0') {
            out.append(start);
            break;
        }
        ++p;
        char piece[256] = {};
        if (strchr("diouxXc", conversion)) {
            if (conversion == 'c')
                continue;
            snprintf(piece, sizeof piece, (spec + conversion).c_str(), 0);
        } else if (strchr("eEfFgGaA", conversion)) {
            snprintf(piece, sizeof piece, (spec + conversion).c_str(), 0.0);
        } else if (conversion == 's') {
            snprintf(piece, sizeof piece, (spec + 's').c_str(), "(null)");
        } else if (conversion == 'p') {
            snprintf(piece, sizeof piece, "(nil)");
        } else if (conversion == 'n') {
            continue;
        } else {
            out.append(start, p);
            continue;
        }
        out += piece;
    }
    return out;
}

void agent_log(const char *fmt, ...)
{
    if (!log_wanted(SYSLOG_LEVEL_INFO))
        return;
    // The prefix goes in front of the expansion, never into the format, so
    // the caller's format is the one the compiler checked.
    static constexpr char prefix[] = "keyagent: ";
    char message[LOG_MESSAGE_MAX];
    memcpy(message, prefix, sizeof prefix);
    va_list args;
    va_start(args, fmt);
    vsnprintf(message + sizeof prefix - 1, sizeof message - (sizeof prefix - 1), fmt, args);
    va_end(args);
    logit("%s", format_with_zero_arguments(message).c_str());
}

namespace {

// Whether the agent's log file takes lines, read by every logging thread
// without the sink's lock.
std::atomic<bool> agent_file_enabled{false};

void note_enabled(const LogFileState *state)
{
    if (state == &agent_log_file())
        agent_file_enabled = state->enabled;
}

}  // namespace

const char *log_file_name_for_component(int component)
{
    switch (component) {
    case 1: return "kvlSSLlog.txt";
    case 2:
    case 3: return "kvlSSHlog.txt";
    case 4: return "tAgentLog.txt";
    case 5: return "kvlUIlog.txt";
    default: return "kvlLog.txt";
    }
}

namespace {

const char *component_key(int component)
{
    switch (component) {
    case 1: return "ssl";
    case 2:
    case 3: return "ssh";
    case 4: return "agent";
    default: return nullptr;
    }
}

const char *component_name(int component)
{
    switch (component) {
    case 1: return "SSL";
    case 2:
    case 3: return "SSH";
    case 4: return "Agent";
    case 5: return "UI";
    default: return "KVL";
    }
}


}  // namespace

void log_file_configure(LogFileState *state, int component, const std::string &folder)
{
    state->component = component;
    state->forced = false;
    state->append = false;
    std::string configured_path;

    std::ifstream control(platform_join_path(folder, "kvllog.ini"), std::ios::binary);
    std::string line;
    while (control && std::getline(control, line)) {
        if (line.size() > 1023)
            line.resize(1023);
        if (line.size() < 2 || line[0] == '#' || line[0] == '\r' || line[0] == '\n')
            continue;
        size_t split = line.find_first_of("=\r\n");
        std::string key = line.substr(0, split);
        std::string value;
        if (split != std::string::npos && line[split] == '=') {
            value = line.substr(split + 1);
            value = value.substr(0, value.find_first_of("\r\n"));
        }
        if (equals_ignore_case(key.c_str(), "append")) {
            state->append = !equals_ignore_case(value.c_str(), "no");
        } else if (const char *own = component_key(component); own && equals_ignore_case(key.c_str(), own)) {
            state->forced = true;
            if (!value.empty())
                configured_path = value;
        }
    }
    state->enabled = state->forced;
    note_enabled(state);
    state->path = configured_path.empty() ? platform_join_path(folder, log_file_name_for_component(component))
                                          : configured_path;
}

void log_file_set_enabled(LogFileState *state, bool enable, const char *program)
{
    char line[LOG_MESSAGE_MAX];
    if (state->forced) {
        snprintf(line, sizeof line, "%s Log Setting %s ignored. Log Enabled by KVLLOG.INI.",
                 component_name(state->component), enable ? "Enable" : "Disable");
        log_file_write(state, nullptr, line);
        return;
    }
    if (enable == state->enabled)
        return;
    LocalTime t = platform_local_time();
    if (enable) {
        if (!state->append)
            platform_remove_file(state->path);
        state->enabled = true;
        note_enabled(state);
        if (state->component == LOG_COMPONENT_AGENT)
            snprintf(line, sizeof line, "Agent Log Setting Enabled (%s version %u.%u.%u) %02u/%02u/%04u", program,
                     AGENT_VERSION_MAJOR, AGENT_VERSION_MINOR, AGENT_VERSION_BUILD, t.month, t.day, t.year);
        else
            snprintf(line, sizeof line, "%s Started (%s version %u.%u.%u) %02u/%02u/%04u",
                     component_name(state->component), program, AGENT_VERSION_MAJOR, AGENT_VERSION_MINOR,
                     AGENT_VERSION_BUILD, t.month, t.day, t.year);
        log_file_write(state, nullptr, line);
    } else {
        log_file_write(state, nullptr, "Agent Log Setting Disabled. Stop logging.");
        state->enabled = false;
        note_enabled(state);
    }
}

void log_file_write(LogFileState *state, const char *prefix, const char *text)
{
    if (!state->enabled || text == nullptr || *text == '\0')
        return;
    std::string line;
    if (prefix == nullptr) {
        LocalTime t = platform_local_time();
        char stamp[32];
        snprintf(stamp, sizeof stamp, "(%02u:%02u:%02u:%03u) ", t.hour, t.minute, t.second, t.millisecond);
        line = stamp;
        if (state->component == 2 || state->component == 3)
            line += "[tssh] ";
    } else if (*prefix) {
        line = std::string(prefix) + " ";
    }
    line += text;
    if (line.back() != '\n')
        line += '\n';
    platform_append_locked(state->path, line);
}

namespace {

struct AgentLogSink {
    std::mutex lock;
    std::atomic<bool> copy_to_stderr{false};
};

AgentLogSink &agent_log_sink()
{
    static AgentLogSink sink;
    return sink;
}

void agent_log_callback(int, const char *line, void *)
{
    AgentLogSink &sink = agent_log_sink();
    std::lock_guard<std::mutex> guard(sink.lock);
    log_file_write(&agent_log_file(), nullptr, line);
    if (sink.copy_to_stderr)
        fprintf(stderr, "%s\n", line);
}

bool agent_line_wanted(int)
{
    return agent_file_enabled.load(std::memory_order_relaxed) ||
           agent_log_sink().copy_to_stderr.load(std::memory_order_relaxed);
}

}  // namespace

LogFileState &agent_log_file()
{
    static LogFileState state;
    return state;
}

void agent_log_install(const std::string &log_folder, bool copy_to_stderr)
{
    log_file_configure(&agent_log_file(), LOG_COMPONENT_AGENT, log_folder);
    agent_log_sink().copy_to_stderr = copy_to_stderr;
    log_init("key agent", SYSLOG_LEVEL_DEBUG3, 1, agent_log_callback, nullptr);
    log_set_wanted(agent_line_wanted);
}
