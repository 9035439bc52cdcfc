#include <gtest/gtest.h>

#include <openssl/evp.h>

#include "log/agent_log.h"
#include "keys/secure_file.h"
#include "pki/cert_store.h"
#include "platform/platform.h"
#include "support/agent_state.h"

namespace {

std::string sha1(const std::string &text)
{
    unsigned char digest[EVP_MAX_MD_SIZE];
    unsigned int length = 0;
    EVP_Digest(text.data(), text.size(), digest, &length, EVP_sha1(), nullptr);
    return std::string(reinterpret_cast<char *>(digest), length);
}

const char *const DEFAULT_LINES =
    "ConfirmKeyOp no\nAllowAdd yes\nAllowDelete yes\nAutoLock no\nAutoLockMinutes 0\n"
    "AttemptEmpty no\nUseOnlySha1 no\nCreateLog no\n";

using Settings = AgentStateTest;

}  // namespace

TEST_F(Settings, WrittenFileHasTheExactLayoutAndMode)
{
    set_agent_passphrase("correct horse", 0);
    EXPECT_EQ(file_text("tAgent"), "Passphrase " + sha1("correct horse") + "\n" + DEFAULT_LINES);
#if !defined(_WIN32)  // Windows files take their folder's access list instead of a mode
    EXPECT_EQ(std::filesystem::status(path("tAgent")).permissions() & std::filesystem::perms::all,
              std::filesystem::perms::owner_read | std::filesystem::perms::owner_write);
#endif

    agent_settings().AutoLockMinutes = -12;
    agent_settings().CreateLog = 1;
    write_agent_settings_file(agent_settings());
    std::string text = file_text("tAgent");
    EXPECT_NE(text.find("\nAutoLockMinutes -12\n"), std::string::npos);
    EXPECT_NE(text.find("\nCreateLog yes\n"), std::string::npos);

    // What was written reads back unchanged.
    AgentSettings before = agent_settings();
    read_agent_settings();
    EXPECT_EQ(memcmp(&before, &agent_settings(), sizeof before), 0);
}

TEST_F(Settings, HandEditedFileIsReadByPosition)
{
    std::string digest = sha1("pw");
    write_file("tAgent", "passphrase  \t" + digest +
                             "\nConfirmKeyOp YES\nAllowAdd maybe\nAllowDelete No\nAutoLock yes\n"
                             "AutoLockMinutes 15min\nUseOnlySha1 yes\nAttemptEmpty yes\ncreatelog yes\n");
    read_agent_settings();
    const AgentSettings &s = agent_settings();
    EXPECT_EQ(std::string(reinterpret_cast<const char *>(s.passphrase_digest), 20), digest);
    EXPECT_EQ(s.ConfirmKeyOp, 1u);  // capitals count as "yes"
    EXPECT_EQ(s.AllowAdd, 1u);      // anything but "no" keeps it on
    EXPECT_EQ(s.AllowDelete, 0u);
    EXPECT_EQ(s.AutoLock, 1u);
    EXPECT_EQ(s.AutoLockMinutes, 15);
    // Swapped lines: each is out of place, so both keep their defaults.
    EXPECT_EQ(s.AttemptEmpty, 0u);
    EXPECT_EQ(s.UseOnlySha1, 0u);
    EXPECT_EQ(s.CreateLog, 1u);

    // Numbers past the 32-bit range are held at its ends.
    for (auto [text, minutes] : {std::pair{"99999999999", INT32_MAX}, {"-99999999999", INT32_MIN}, {"-2147483648", INT32_MIN}}) {
        write_file("tAgent", "Passphrase " + digest + "\nConfirmKeyOp no\nAllowAdd yes\nAllowDelete yes\nAutoLock no\n"
                             "AutoLockMinutes " + text + "\n");
        read_agent_settings();
        EXPECT_EQ(agent_settings().AutoLockMinutes, minutes) << text;
    }

    // A value is read up to 63 characters; a longer one spills into the
    // next line's place, which then keeps its default.
    for (auto [zeros, attempt_empty] : {std::pair{61, 1u}, {62, 0u}}) {
        write_file("tAgent", "Passphrase " + digest + "\nConfirmKeyOp no\nAllowAdd yes\nAllowDelete yes\nAutoLock no\n"
                             "AutoLockMinutes " + std::string(zeros, '0') + "15\nAttemptEmpty yes\n");
        read_agent_settings();
        EXPECT_EQ(agent_settings().AttemptEmpty, attempt_empty) << zeros;
    }

    // No "Passphrase" line: no digest, and then no passphrase verifies.
    write_file("tAgent", "ConfirmKeyOp yes\nAllowAdd no\n");
    read_agent_settings();
    EXPECT_FALSE(agent_passphrase_is_set());
    EXPECT_EQ(agent_settings().AllowAdd, 1u);  // its line went into the 20 digest bytes
    EXPECT_EQ(verify_agent_passphrase(""), 0);

    // A missing file gives the defaults.
    std::filesystem::remove(path("tAgent"));
    agent_settings().AllowAdd = 0;
    read_agent_settings();
    EXPECT_EQ(agent_settings().AllowAdd, 1u);
}

TEST_F(Settings, WhiteSpaceAfterPassphraseShiftsTheDigest)
{
    std::string digest = " \t" + sha1("x").substr(2);
    write_file("tAgent", "Passphrase " + digest + "\n" + DEFAULT_LINES);
    read_agent_settings();
    std::string read(reinterpret_cast<const char *>(agent_settings().passphrase_digest), 20);
    EXPECT_EQ(read, digest.substr(2) + "\nC");
    EXPECT_EQ(agent_settings().AllowAdd, 1u);
}

// The digest is its 20 bytes as they stand, up to the very end of the file;
// lines may end in CR LF.
TEST_F(Settings, DigestBytesAndLineEnds)
{
    write_file("tAgent", "Passphrase " + std::string("\x01", 1) + std::string(19, '\0') + "\n" + DEFAULT_LINES);
    read_agent_settings();
    EXPECT_TRUE(agent_passphrase_is_set());
    write_file("tAgent", "Passphrase " + sha1("pw"));
    read_agent_settings();
    EXPECT_EQ(verify_agent_passphrase("pw"), 1);
    write_file("tAgent", "Passphrase " + sha1("pw") + "\r\nConfirmKeyOp yes\r\nAllowAdd no\r\n");
    read_agent_settings();
    EXPECT_EQ(agent_settings().ConfirmKeyOp, 1u);
    EXPECT_EQ(agent_settings().AllowAdd, 0u);
}

TEST_F(Settings, SettersRewriteOnlyOnChange)
{
    EXPECT_EQ(set_allow_add(1), 0);
    EXPECT_FALSE(std::filesystem::exists(path("tAgent")));
    EXPECT_EQ(set_allow_add(0), 1);
    EXPECT_NE(file_text("tAgent").find("\nAllowAdd no\n"), std::string::npos);
    std::filesystem::remove(path("tAgent"));
    EXPECT_EQ(set_allow_add(0), 0);
    EXPECT_FALSE(std::filesystem::exists(path("tAgent")));

    EXPECT_EQ(set_confirm_key_op(1), 1);
    EXPECT_EQ(set_allow_delete(0), 1);
    EXPECT_EQ(set_use_only_sha1(1), 1);
    EXPECT_EQ(file_text("tAgent").substr(32),
              "ConfirmKeyOp yes\nAllowAdd no\nAllowDelete no\nAutoLock no\nAutoLockMinutes 0\n"
              "AttemptEmpty no\nUseOnlySha1 yes\nCreateLog no\n");
    // The manager writes the auto-lock values into the file; the agent's
    // next write keeps them.
    std::string text = file_text("tAgent");
    text.replace(text.find("AutoLock no\nAutoLockMinutes 0"), 29, "AutoLock yes\nAutoLockMinutes 15");
    write_file("tAgent", text);
    EXPECT_EQ(set_use_only_sha1(0), 1);
    EXPECT_NE(file_text("tAgent").find("\nAutoLock yes\nAutoLockMinutes 15\n"), std::string::npos);

    // CreateLog switches the agent log file at once.
    LogFileState saved = agent_log_file();
    log_file_configure(&agent_log_file(), LOG_COMPONENT_AGENT, folder_.string());
    EXPECT_EQ(set_create_log(1), 1);
    EXPECT_TRUE(agent_log_file().enabled);
    EXPECT_NE(file_text("tAgentLog.txt").find("Agent Log Setting Enabled (tkeyagent version 25.2.133)"),
              std::string::npos);
    EXPECT_EQ(set_create_log(1), 0);
    EXPECT_EQ(set_create_log(0), 1);
    EXPECT_FALSE(agent_log_file().enabled);
    agent_log_file() = saved;
}

// The switches of the Windows agent's OpenSSH pipe and Pageant window follow
// the other lines, and are written only when one of them is off.
TEST_F(Settings, ThirdPartyClientSwitchesAreWrittenOnlyWhenOff)
{
    set_agent_passphrase("pw", 0);
    EXPECT_EQ(file_text("tAgent").substr(32), DEFAULT_LINES);
    EXPECT_EQ(agent_settings().OpenSshPipe, 1u);
    EXPECT_EQ(agent_settings().Pageant, 1u);

    agent_settings().Pageant = 0;
    write_agent_settings();
    EXPECT_EQ(file_text("tAgent").substr(32), std::string(DEFAULT_LINES) + "OpenSshPipe yes\nPageant no\n");
    read_agent_settings();
    EXPECT_EQ(agent_settings().OpenSshPipe, 1u);
    EXPECT_EQ(agent_settings().Pageant, 0u);

    write_file("tAgent", "Passphrase " + sha1("pw") + "\n" + DEFAULT_LINES + "OpenSshPipe NO\n");
    read_agent_settings();
    EXPECT_EQ(agent_settings().OpenSshPipe, 0u);
    EXPECT_EQ(agent_settings().Pageant, 1u);
}

// The certificate store lives in the data folder; without one there is none,
// and files are read only from a real path.
TEST_F(Settings, DataFolderPlacesTheCertificateStore)
{
    EXPECT_EQ(cert_store_folder(), platform_join_path(folder_.string(), CERT_STORE_FOLDER));
    agent_data_folder_set("");
    EXPECT_EQ(cert_store_folder(), "");
    bool ok = true;
    EXPECT_TRUE(read_whole_file("", &ok).empty());
    EXPECT_FALSE(ok);
    ok = true;
    read_whole_file(path("none"), &ok);
    EXPECT_FALSE(ok);
    write_file("some", "text");
    EXPECT_EQ(read_whole_file(path("some"), &ok).size(), 4u);
    EXPECT_TRUE(ok);
}
