// The agent settings block and its file "tAgent" in the user data folder:
// the user's switches and the SHA-1 digest of the agent passphrase.
#pragma once

#include <cstddef>
#include <cstdint>

#include "keys/secure_memory.h"

constexpr size_t AGENT_DIGEST_LENGTH = 20;
constexpr const char *AGENT_SETTINGS_FILE = "tAgent";

struct AgentSettings {
    uint8_t passphrase_digest[AGENT_DIGEST_LENGTH] = {};
    uint32_t AllowAdd = 1;      // remote add requests allowed
    uint32_t AllowDelete = 1;   // remote remove requests allowed
    uint32_t ConfirmKeyOp = 0;  // ask before a remote sign request
    uint32_t AutoLock = 0;
    int32_t AutoLockMinutes = 0;
    uint32_t AttemptEmpty = 0;  // the vendor attempt-empty unlock is served
    uint32_t UseOnlySha1 = 0;   // list only the SHA-1 signature names
    uint32_t CreateLog = 0;     // write the agent log file
    // The Windows agent's doors for the clients users already have: the
    // OpenSSH agent pipe and the Pageant window. Their lines follow the
    // others and are written only when one is off, so that a file with the
    // defaults keeps its layout and older agents read every file alike.
    uint32_t OpenSshPipe = 1;
    uint32_t Pageant = 1;
};

// The process-wide block. Like the identity tables it has no lock: it is
// used at start-up, on the message-processing thread and by the shell's
// settings commands, which never run at the same time.
AgentSettings &agent_settings();

// Reads the file into the process-wide block; defaults when it cannot be
// read. First settles a save or change of passphrase that an earlier run
// left unfinished, so that the digest read belongs with the key store.
void read_agent_settings();

// What the last read_agent_settings found, so that a lost digest is not
// taken for a first run while a key store exists.
enum SettingsFileState {
    SETTINGS_FILE_READ,     // a digest was read
    SETTINGS_FILE_MISSING,  // no file, or it cannot be opened
    SETTINGS_FILE_EMPTY,
    SETTINGS_FILE_DAMAGED,  // no "Passphrase" line with a digest
};
SettingsFileState agent_settings_file_state();
// "is missing", "is empty" or "is damaged (no passphrase digest)".
const char *settings_file_state_text(SettingsFileState state);

// True when the reading rule gives `digest` back as it was written: a first
// byte that is white space would be skipped and the digest read shifted.
bool settings_digest_reads_back(const uint8_t digest[AGENT_DIGEST_LENGTH]);
// Writes the process-wide block to the file, whole. Nothing is reported when
// the file cannot be written.
void write_agent_settings();
// The same for another block (the manager program's, which keeps its own).
void write_agent_settings_file(const AgentSettings &settings);

// The file's contents read by position: each line counts only where it is
// expected, so a line out of place leaves its setting at the default.
AgentSettings parse_agent_settings(const uint8_t *data, size_t size);
// The file's contents for `settings`.
SecureBytes format_agent_settings(const AgentSettings &settings);

// Setters of the shell's settings commands: 1 when the value changed and the
// file was rewritten, 0 when it already had that value.
int set_confirm_key_op(uint32_t value);
int set_allow_add(uint32_t value);
int set_allow_delete(uint32_t value);
int set_use_only_sha1(uint32_t value);
// Also switches the agent log file on or off at once.
int set_create_log(uint32_t value);

// Switches the agent log file to the `CreateLog` setting; the shell calls it
// once its log is installed.
void apply_create_log_setting();
