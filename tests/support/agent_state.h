// A private data folder and a clean process-wide agent state for each test:
// default settings, no held passphrase, locked, empty identity tables, the
// initial enumeration mode and signature types, no FIPS requirement, the
// library's own crypto table, no shell services, no registrations.
#pragma once

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <string>

#if !defined(_WIN32)
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <unistd.h>
#endif

#include "agent/change_notice.h"
#include "agent/data_folder.h"
#include "agent/forwarding_notice.h"
#include "agent/handlers.h"
#include "agent/identity_table.h"
#include "agent/key_store.h"
#include "agent/passphrase.h"
#include "agent/settings.h"
#include "agent/shell_services.h"
#include "crypto/crypto_module.h"
#include "crypto/signature_types.h"
#include "pki/agent_enum.h"
#include "support/fips_environment.h"
#include "support/files.h"

// The state folders of one test process lie in one folder, removed when
// the process ends.
inline const std::filesystem::path &state_root()
{
    struct Root {
        std::filesystem::path path;
        Root()
        {
#if defined(_WIN32)
            path = fresh_temp_folder("state");
#else
            // A test process that died without cleaning up (a crash, a killed
            // run) left its folder: those of processes no longer running go.
            std::filesystem::path temp = std::filesystem::temp_directory_path();
            std::error_code ignored;
            for (const auto &entry : std::filesystem::directory_iterator(temp, ignored)) {
                std::string name = entry.path().filename().string();
                if (name.rfind("tarnwell-state-p", 0) == 0 && kill(atoi(name.c_str() + 16), 0) != 0 && errno == ESRCH)
                    std::filesystem::remove_all(entry.path(), ignored);
            }
            path = temp / ("tarnwell-state-p" + std::to_string(getpid()));
            std::filesystem::create_directories(path);
#endif
        }
        ~Root() { remove_folder(path); }
    };
    static Root root;
    return root.path;
}

class AgentStateTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        folder_ = state_root() / ::testing::UnitTest::GetInstance()->current_test_info()->name();
        std::filesystem::remove_all(folder_);
        std::filesystem::create_directories(folder_);
        agent_data_folder_set(folder_.string());
        reset_state();
    }
    void TearDown() override
    {
        reset_state();
        agent_data_folder_set("");
        remove_folder(folder_);
    }

    std::string path(const char *name) const { return (folder_ / name).string(); }
    std::string file_text(const char *name) const { return read_file_text(path(name)); }
    void write_file(const char *name, const std::string &text) const
    {
        std::ofstream(path(name), std::ios::binary) << text;
    }

    std::filesystem::path folder_;

private:
    static void reset_state()
    {
        agent_settings() = AgentSettings{};
        forget_agent_passphrase();
        agent_set_locked(true);
        shell_services_set(ShellServices{});
        refresh_registrations_clear();
        identity_tables_init();
        agent_enum_set(AGENT_ENUM_INITIAL);
        set_x509rsa_sigtype(X509RSA_SIGTYPE_DEFAULT);
        set_x509dsa_sigtype(X509DSA_SIGTYPE_DEFAULT);
        unset_environment("TARNWELL_FIPS");
        crypto_fips_flag_set(false);
        crypto_module_replace_api(nullptr);
        agent_dialog_owner_set(0);
        unreadable_records().clear();
    }
};

// The same, unlocked: the state request handlers work in.
class UnlockedAgentTest : public AgentStateTest {
protected:
    void SetUp() override
    {
        AgentStateTest::SetUp();
        agent_set_locked(false);
    }
};
