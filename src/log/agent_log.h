// The agent's own log routine and its log file ("tAgentLog.txt").
#pragma once

#include <string>

#include "log/printf_format.h"

// Prefixes "keyagent: " and logs at info level. The finished text is
// formatted a second time, so a '%' that arrives through an argument is
// expanded again; that second pass takes every missing argument as zero and
// never reads memory it was not given.
void agent_log(const char *fmt, ...) PRINTF_FORMAT(1, 2);

// Expands the conversions of `text` as if every argument were zero
// ("%d" gives "0", "%s" gives "(null)", "%n" writes nothing).
std::string format_with_zero_arguments(const char *text);

// One log file of one component, with the switches of the control file
// "kvllog.ini".
struct LogFileState {
    int component = 4;
    std::string path;
    bool enabled = false;
    bool forced = false;  // logging switched on by the control file
    bool append = false;
};

constexpr int LOG_COMPONENT_AGENT = 4;

const char *log_file_name_for_component(int component);

// Reads "kvllog.ini" from `folder` and sets the file path of the component.
void log_file_configure(LogFileState *state, int component, const std::string &folder);

// The `CreateLog` switch; `program` names the program in the first line.
void log_file_set_enabled(LogFileState *state, bool enable, const char *program);

// Writes one line: a time stamp, or `prefix` and a blank when one is given.
void log_file_write(LogFileState *state, const char *prefix, const char *text);

// The agent's log file, written by the callback that agent_log_install sets.
LogFileState &agent_log_file();

// Installs the agent's log callback: each finished line goes to the agent
// log file under one process-wide lock, and to standard error when
// `copy_to_stderr` is set.
void agent_log_install(const std::string &log_folder, bool copy_to_stderr);

// Program version written in the log file's first line.
constexpr unsigned AGENT_VERSION_MAJOR = 25, AGENT_VERSION_MINOR = 2, AGENT_VERSION_BUILD = 133;
