#include "agent/settings.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "agent/data_folder.h"
#include "agent/key_store_files.h"
#include "keys/secure_file.h"
#include "log/agent_log.h"
#include "platform/platform.h"

namespace {

// Longest word and value the reader takes in one piece; the rest of a longer
// word is read as the next piece, as a width-limited scanf conversion does.
constexpr size_t WORD_MAX = 260;
constexpr size_t VALUE_MAX = 63;

enum class FieldKind {
    YES_FLAG,  // on only for "yes"
    NO_FLAG,   // off only for "no"
    NUMBER,
};

struct SettingField {
    const char *key;
    FieldKind kind;
    uint32_t AgentSettings::*flag;
};

// The order of the lines after "Passphrase", for reading and for writing.
constexpr SettingField SETTING_FIELDS[] = {
    {"ConfirmKeyOp", FieldKind::YES_FLAG, &AgentSettings::ConfirmKeyOp},
    {"AllowAdd", FieldKind::NO_FLAG, &AgentSettings::AllowAdd},
    {"AllowDelete", FieldKind::NO_FLAG, &AgentSettings::AllowDelete},
    {"AutoLock", FieldKind::YES_FLAG, &AgentSettings::AutoLock},
    {"AutoLockMinutes", FieldKind::NUMBER, nullptr},
    {"AttemptEmpty", FieldKind::YES_FLAG, &AgentSettings::AttemptEmpty},
    {"UseOnlySha1", FieldKind::YES_FLAG, &AgentSettings::UseOnlySha1},
    {"CreateLog", FieldKind::YES_FLAG, &AgentSettings::CreateLog},
    {"OpenSshPipe", FieldKind::NO_FLAG, &AgentSettings::OpenSshPipe},
    {"Pageant", FieldKind::NO_FLAG, &AgentSettings::Pageant},
};

// The first field written only when a field from here on is not at its default.
constexpr size_t OPTIONAL_FIELDS = 8;

// White space as the C locale has it, whatever the process locale is.
bool is_space(uint8_t c) { return c == ' ' || (c >= '\t' && c <= '\r'); }

char ascii_lower(char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c; }

bool equals_ignoring_case(const std::string &a, const char *b)
{
    size_t n = strlen(b);
    if (a.size() != n)
        return false;
    for (size_t i = 0; i < n; ++i)
        if (ascii_lower(a[i]) != ascii_lower(b[i]))
            return false;
    return true;
}

struct Scanner {
    const uint8_t *p;
    const uint8_t *end;

    void skip_space()
    {
        while (p < end && is_space(*p))
            ++p;
    }
    // Skips white space, then takes up to `max` other characters.
    std::string word(size_t max)
    {
        skip_space();
        std::string out;
        while (p < end && !is_space(*p) && out.size() < max)
            out += static_cast<char>(*p++);
        return out;
    }
    bool take(uint8_t *out, size_t n)
    {
        if (static_cast<size_t>(end - p) < n)
            return false;
        memcpy(out, p, n);
        p += n;
        return true;
    }
};

// The value's leading decimal number, 0 if there is none.
int32_t leading_number(const std::string &value)
{
    long long n = strtoll(value.c_str(), nullptr, 10);
    if (n > INT32_MAX)
        return INT32_MAX;
    if (n < INT32_MIN)
        return INT32_MIN;
    return static_cast<int32_t>(n);
}

void apply_field(AgentSettings *settings, const SettingField &field, const std::string &value)
{
    switch (field.kind) {
    case FieldKind::YES_FLAG: settings->*field.flag = equals_ignoring_case(value, "yes") ? 1 : 0; break;
    case FieldKind::NO_FLAG: settings->*field.flag = equals_ignoring_case(value, "no") ? 0 : 1; break;
    case FieldKind::NUMBER: settings->AutoLockMinutes = leading_number(value); break;
    }
}

SettingsFileState &file_state()
{
    static SettingsFileState state = SETTINGS_FILE_MISSING;
    return state;
}

bool digest_is_zero(const uint8_t *digest)
{
    for (size_t i = 0; i < AGENT_DIGEST_LENGTH; ++i)
        if (digest[i])
            return false;
    return true;
}

int change_flag(uint32_t AgentSettings::*field, uint32_t value)
{
    AgentSettings &settings = agent_settings();
    if (settings.*field == value)
        return 0;
    settings.*field = value;
    write_agent_settings();
    return 1;
}

}  // namespace

AgentSettings &agent_settings()
{
    static AgentSettings settings;
    return settings;
}

AgentSettings parse_agent_settings(const uint8_t *data, size_t size)
{
    AgentSettings settings;
    Scanner in{data, data + size};

    // White space after the word is skipped before the digest is taken, so a
    // digest that begins with white-space bytes is read shifted. Files written
    // by earlier versions are read the same way, so the rule stays.
    std::string word = in.word(WORD_MAX);
    in.skip_space();
    uint8_t digest[AGENT_DIGEST_LENGTH];
    if (in.take(digest, sizeof digest) && equals_ignoring_case(word, "Passphrase"))
        memcpy(settings.passphrase_digest, digest, sizeof digest);
    wipe_memory(digest, sizeof digest);

    for (const SettingField &field : SETTING_FIELDS) {
        std::string key = in.word(WORD_MAX);
        std::string value = in.word(VALUE_MAX);
        if (equals_ignoring_case(key, field.key))
            apply_field(&settings, field, value);
    }
    return settings;
}

SecureBytes format_agent_settings(const AgentSettings &settings)
{
    SecureBytes out;
    auto append = [&out](const std::string &text) { out.insert(out.end(), text.begin(), text.end()); };
    append("Passphrase ");
    out.insert(out.end(), settings.passphrase_digest, settings.passphrase_digest + AGENT_DIGEST_LENGTH);
    append("\n");
    bool optional = settings.OpenSshPipe == 0 || settings.Pageant == 0;
    for (size_t i = 0; i < sizeof SETTING_FIELDS / sizeof SETTING_FIELDS[0]; ++i) {
        const SettingField &field = SETTING_FIELDS[i];
        if (i >= OPTIONAL_FIELDS && !optional)
            break;
        if (field.kind == FieldKind::NUMBER)
            append(std::string(field.key) + " " + std::to_string(static_cast<long>(settings.AutoLockMinutes)) +
                   "\n");
        else
            append(std::string(field.key) + (settings.*field.flag ? " yes\n" : " no\n"));
    }
    return out;
}

void read_agent_settings()
{
    key_store_recover(key_store_paths());
    bool ok = false;
    SecureBytes data = read_whole_file(agent_data_path(AGENT_SETTINGS_FILE), &ok);
    agent_settings() = ok ? parse_agent_settings(data.data(), data.size()) : AgentSettings{};
    if (!ok)
        file_state() = SETTINGS_FILE_MISSING;
    else if (data.empty())
        file_state() = SETTINGS_FILE_EMPTY;
    else
        file_state() = digest_is_zero(agent_settings().passphrase_digest) ? SETTINGS_FILE_DAMAGED : SETTINGS_FILE_READ;
}

SettingsFileState agent_settings_file_state() { return file_state(); }

const char *settings_file_state_text(SettingsFileState state)
{
    switch (state) {
    case SETTINGS_FILE_READ: return "is read";
    case SETTINGS_FILE_MISSING: return "is missing";
    case SETTINGS_FILE_EMPTY: return "is empty";
    case SETTINGS_FILE_DAMAGED: return "is damaged (no passphrase digest)";
    }
    return "is damaged";
}

bool settings_digest_reads_back(const uint8_t digest[AGENT_DIGEST_LENGTH]) { return !is_space(digest[0]); }

// The auto-lock values belong to the manager program, which writes them into
// the file while the agent runs; the agent keeps what the file holds now
// instead of what it read at its start.
void write_agent_settings()
{
    AgentSettings &settings = agent_settings();
    bool ok = false;
    SecureBytes current = read_whole_file(agent_data_path(AGENT_SETTINGS_FILE), &ok);
    if (ok) {
        AgentSettings written = parse_agent_settings(current.data(), current.size());
        settings.AutoLock = written.AutoLock;
        settings.AutoLockMinutes = written.AutoLockMinutes;
    }
    write_agent_settings_file(settings);
}

void write_agent_settings_file(const AgentSettings &settings)
{
    std::string path = agent_data_path(AGENT_SETTINGS_FILE);
    if (path.empty())
        return;
    // Written beside the file and renamed over it, so that a crash never
    // leaves a half-written digest (which would look like a first run).
    std::string fresh = path + ".new";
    FILE *file = fopen(fresh.c_str(), "w+b");
    if (!file)
        return;
    SecureBytes data = format_agent_settings(settings);
    bool written = fwrite(data.data(), 1, data.size(), file) == data.size();
    written = fclose(file) == 0 && written;
    if (!written || !platform_complete_file(fresh) || !platform_replace_file(fresh, path))
        platform_remove_file(fresh);
}

int set_confirm_key_op(uint32_t value) { return change_flag(&AgentSettings::ConfirmKeyOp, value); }
int set_allow_add(uint32_t value) { return change_flag(&AgentSettings::AllowAdd, value); }
int set_allow_delete(uint32_t value) { return change_flag(&AgentSettings::AllowDelete, value); }
int set_use_only_sha1(uint32_t value) { return change_flag(&AgentSettings::UseOnlySha1, value); }

int set_create_log(uint32_t value)
{
    int changed = change_flag(&AgentSettings::CreateLog, value);
    if (changed)
        apply_create_log_setting();
    return changed;
}

void apply_create_log_setting()
{
    log_file_set_enabled(&agent_log_file(), agent_settings().CreateLog != 0, "tkeyagent");
}
