#include <gtest/gtest.h>

#include <sstream>

#include <openssl/evp.h>

#include "log/agent_log.h"
#include "support/agent_state.h"
#include "support/log_capture.h"

namespace {

std::string sha1(const std::string &text)
{
    unsigned char digest[EVP_MAX_MD_SIZE];
    unsigned int length = 0;
    EVP_Digest(text.data(), text.size(), digest, &length, EVP_sha1(), nullptr);
    return std::string(reinterpret_cast<char *>(digest), length);
}

const std::string DEFAULT_LINES = "ConfirmKeyOp no\nAllowAdd yes\nAllowDelete yes\nAutoLock no\nAutoLockMinutes 0\n"
                                  "AttemptEmpty no\nUseOnlySha1 no\nCreateLog no\n";

// The settings as read: the digest, then the fields in file order.
std::string settings_read()
{
    const AgentSettings &s = agent_settings();
    std::ostringstream out;
    out << std::string(reinterpret_cast<const char *>(s.passphrase_digest), 20) << '|' << s.ConfirmKeyOp << s.AllowAdd
        << s.AllowDelete << s.AutoLock << ' ' << s.AutoLockMinutes << ' ' << s.AttemptEmpty << s.UseOnlySha1
        << s.CreateLog << s.OpenSshPipe << s.Pageant;
    return out.str();
}

using Settings = AgentStateTest;

}  // namespace

// The file's exact layout; setters write it only on a change, keeping the
// auto-lock values that the manager wrote, and it reads back as written.
// Changing the passphrase through a window or tagent, and unlocking with it,
// run end to end; here what only shows inside.
TEST_F(Settings, WrittenFileSettersAndPassphraseChanges)
{
    LogCapture log;
    EXPECT_EQ(set_agent_passphrase("correct horse", 0), 1);
    EXPECT_TRUE(log.contains("keyagent: Agent passphrase has been set"));
    const std::string head = "Passphrase " + sha1("correct horse") + "\n";
    EXPECT_EQ(file_text("tAgent"), head + DEFAULT_LINES);
    std::filesystem::remove(path("tAgent"));
    EXPECT_EQ(set_allow_add(1), 0);
    EXPECT_FALSE(std::filesystem::exists(path("tAgent")));
    std::string text = head + DEFAULT_LINES;
    text.replace(text.find("AutoLock no\nAutoLockMinutes 0"), 29, "AutoLock yes\nAutoLockMinutes -12");
    write_file("tAgent", text);
    // The switches of the Windows agent's OpenSSH pipe and Pageant window
    // follow the other lines, written only when one of them is off.
    agent_settings().Pageant = 0;
    EXPECT_EQ(set_confirm_key_op(1) + set_allow_add(0) + set_allow_delete(0) + set_use_only_sha1(1), 4);
    EXPECT_EQ(file_text("tAgent"), head + "ConfirmKeyOp yes\nAllowAdd no\nAllowDelete no\nAutoLock yes\n"
                                          "AutoLockMinutes -12\nAttemptEmpty no\nUseOnlySha1 yes\nCreateLog no\n"
                                          "OpenSshPipe yes\nPageant no\n");
    AgentSettings before = agent_settings();
    read_agent_settings();
    EXPECT_EQ(memcmp(&before, &agent_settings(), sizeof before), 0);

    // CreateLog switches the agent log file at once.
    LogFileState saved = agent_log_file();
    log_file_configure(&agent_log_file(), LOG_COMPONENT_AGENT, folder_.string());
    EXPECT_EQ(set_create_log(1), 1);
    EXPECT_TRUE(agent_log_file().enabled);
    EXPECT_EQ(set_create_log(0), 1);
    EXPECT_FALSE(agent_log_file().enabled);
    agent_log_file() = saved;

    // The empty passphrase is a valid one. A new run knows only its digest:
    // a wrong try holds nothing. A change needs the old passphrase, and a
    // new one ends AttemptEmpty.
    ASSERT_EQ(change_agent_passphrase("correct horse", nullptr, 1), 1);
    forget_agent_passphrase();
    read_agent_settings();
    EXPECT_EQ(verify_agent_passphrase("x"), 0);
    EXPECT_FALSE(agent_passphrase_held());
    agent_set_locked(true);
    EXPECT_EQ(change_agent_passphrase("wrong", "new", 0), 0);
    EXPECT_TRUE(agent_is_locked());
    EXPECT_EQ(change_agent_passphrase("", "new", 0), 1);
    EXPECT_TRUE(log.contains("keyagent: Change passphrase succeeded"));
    EXPECT_FALSE(agent_is_locked());
    EXPECT_EQ(agent_settings().AttemptEmpty, 0u);
    EXPECT_EQ(verify_agent_passphrase(""), 0);
}

// Each line is read at its position, whatever its word; flags and numbers
// as a hand-edited file may hold them.
TEST_F(Settings, HandEditedFilesAreReadByPosition)
{
    const std::string pw = sha1("pw"), head = "Passphrase " + pw + "\n" + DEFAULT_LINES.substr(0, 57);
    const std::string none(20, '\0');
    struct Case { std::string text, read; };
    const Case cases[] = {
        // Capitals count as "yes"; anything but "no" keeps a default-on flag;
        // swapped lines are both out of place and keep their defaults.
        {"passphrase  \t" + pw + "\nConfirmKeyOp YES\nAllowAdd maybe\nAllowDelete No\nAutoLock yes\n"
         "AutoLockMinutes 15min\nUseOnlySha1 yes\nAttemptEmpty yes\ncreatelog yes\n", pw + "|1101 15 00111"},
        // Numbers past the 32-bit range are held at its ends.
        {head + "AutoLockMinutes 99999999999\n", pw + "|0110 2147483647 00011"},
        {head + "AutoLockMinutes -99999999999\n", pw + "|0110 -2147483648 00011"},
        {head + "AutoLockMinutes -2147483648\n", pw + "|0110 -2147483648 00011"},
        // A value is read up to 63 characters; a longer one spills into the
        // next line's place, which then keeps its default.
        {head + "AutoLockMinutes " + std::string(61, '0') + "15\nAttemptEmpty yes\n", pw + "|0110 15 10011"},
        {head + "AutoLockMinutes " + std::string(62, '0') + "15\nAttemptEmpty yes\n", pw + "|0110 1 00011"},
        // No "Passphrase" line: its line goes into the 20 digest bytes.
        {"ConfirmKeyOp yes\nAllowAdd no\n", none + "|0110 0 00011"},
        // White space after the word shifts the digest.
        {"Passphrase  \t" + sha1("x").substr(2) + "\n" + DEFAULT_LINES, sha1("x").substr(2) + "\nC|0110 0 00011"},
        // The digest is its 20 bytes as they stand, up to the very end of
        // the file; lines may end in CR LF.
        {"Passphrase \x01" + std::string(19, '\0') + "\n" + DEFAULT_LINES, "\x01" + none.substr(1) + "|0110 0 00011"},
        {"Passphrase " + pw, pw + "|0110 0 00011"},
        {"Passphrase " + pw + "\r\nConfirmKeyOp yes\r\nAllowAdd no\r\n", pw + "|1010 0 00011"},
        {"Passphrase " + pw + "\n" + DEFAULT_LINES + "OpenSshPipe NO\n", pw + "|0110 0 00001"},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.text);
        write_file("tAgent", c.text);
        read_agent_settings();
        EXPECT_EQ(settings_read(), c.read);
        EXPECT_EQ(verify_agent_passphrase("pw"), c.read.substr(0, 20) == pw ? 1 : 0);
        forget_agent_passphrase();
    }
}
