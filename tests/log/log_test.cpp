#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>

#include "log/agent_log.h"
#include "log/log.h"
#include "support/files.h"
#include "support/log_capture.h"

namespace fs = std::filesystem;

TEST(Log, LevelsLengthFormattingFatalAndTheAgentLogFile)
{
    LogCapture log(SYSLOG_LEVEL_DEBUG1);
    error("e %d", 1);
    logit("info");
    verbose("verbose");
    debug("d1");
    debug2("hidden");
    std::string exact(2047, 'a');
    logit("%s", exact.c_str());
    logit("%s", (exact + "bcd").c_str());
    agent_log("Client version string : %s", "v%d and %s and %n and %%");
    auto lines = log.lines();
    ASSERT_EQ(lines.size(), 7u);
    // Debug lines carry a time stamp: "YYYY-MM-DD hh:mm:ss:mmm debug1: d1".
    EXPECT_EQ(lines[3].substr(23), " debug1: d1");
    lines[3].clear();
    EXPECT_EQ(lines, (std::vector<std::string>{"error: e 1", "info", "verbose", "", exact, exact,
                                               "keyagent: Client version string : v0 and (null) and  and %"}));
    EXPECT_EQ(format_with_zero_arguments("%5d|%-3x|%.2f|%c|%"), "    0|0  |0.00||%");

    // A fatal error runs the registered cleanups, then throws.
    static int calls = 0;
    auto count_call = [](void *argument) { calls += *static_cast<int *>(argument); };
    int one = 1, ten = 10;
    fatal_add_cleanup(count_call, &one);
    fatal_add_cleanup(count_call, &ten);
    fatal_remove_cleanup(count_call, &one);
    // Each fatal error runs them again; its message is cut where every log
    // line is.
    int round = 0;
    for (const std::string &message : {std::string("broken 7"), std::string(3000, 'f')}) {
        try {
            fatal("%s", message.c_str());
        } catch (const FatalError &e) {
            EXPECT_EQ(e.what(), message.substr(0, 2047));
        }
        EXPECT_EQ(calls, 10 * ++round);
    }
    fatal_remove_cleanup(count_call, &ten);
    EXPECT_TRUE(log.contains("fatal: broken 7"));
    // Removing a pair that is not registered is itself fatal.
    EXPECT_THROW(fatal_remove_cleanup(count_call, &one), FatalError);
    EXPECT_TRUE(log.contains("fatal_remove_cleanup: no such cleanup function"));

    // The agent log file.
    fs::path folder = fresh_temp_folder("log");
    LogFileState state;
    log_file_configure(&state, LOG_COMPONENT_AGENT, folder.string());
    EXPECT_FALSE(state.enabled);
    EXPECT_EQ(state.path, (folder / "tAgentLog.txt").string());

    log_file_write(&state, nullptr, "before enabling");
    EXPECT_FALSE(fs::exists(state.path));
    log_file_set_enabled(&state, true, "tkeyagent");
    log_file_write(&state, nullptr, "one line\n");
    log_file_write(&state, "PFX", "prefixed");
    log_file_set_enabled(&state, false, "tkeyagent");
    log_file_write(&state, nullptr, "after disabling");
    std::string text = read_file_text(state.path);
    EXPECT_EQ(text.rfind("(", 0), 0u);
    EXPECT_NE(text.find("Agent Log Setting Enabled (tkeyagent version 25.2.133)"), std::string::npos);
    EXPECT_NE(text.find(") one line\nPFX prefixed\n"), std::string::npos);  // no second line feed
    EXPECT_NE(text.find("Agent Log Setting Disabled. Stop logging.\n"), std::string::npos);
    EXPECT_EQ(text.find("after disabling"), std::string::npos);

    // The control file forces the log on and to its own path; CreateLog is ignored.
    fs::path forced = folder / "forced.txt";
    std::ofstream(folder / "kvllog.ini") << "# comment\n\nssh=" << (folder / "ssh.txt").string() << "\nAGENT="
                                         << forced.string() << "\r\nappend=no\n";
    log_file_configure(&state, LOG_COMPONENT_AGENT, folder.string());
    EXPECT_TRUE(state.enabled && !state.append);
    EXPECT_EQ(state.path, forced.string());
    log_file_set_enabled(&state, false, "tkeyagent");
    log_file_write(&state, nullptr, "still logging");
    text = read_file_text(forced);
    EXPECT_NE(text.find("Agent Log Setting Disable ignored. Log Enabled by KVLLOG.INI."), std::string::npos);
    EXPECT_NE(text.find("still logging"), std::string::npos);

    // Control lines are read up to 1023 characters.
    for (size_t length : {1023u, 1024u}) {
        std::string line = "AGENT=" + (folder / "x").string();
        line += std::string(length - line.size(), 'y');
        std::ofstream(folder / "kvllog.ini") << line << "\n";
        log_file_configure(&state, LOG_COMPONENT_AGENT, folder.string());
        EXPECT_EQ(state.path, line.substr(6, 1023 - 6)) << length;
    }
    remove_folder(folder);
}
