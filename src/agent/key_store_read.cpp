// Loading the key store.
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "agent/data_folder.h"
#include "agent/identity_table.h"
#include "agent/key_store.h"
#include "agent/key_store_files.h"
#include "agent/passphrase.h"
#include "crypto/private_key_pem.h"
#include "keys/public_key_format.h"
#include "log/log.h"
#include "platform/platform.h"
#include "pki/cert_provider.h"

namespace {

// Names are read with a limit of 512 characters, terminator included: a
// longer line goes on as the next one.
constexpr size_t NAME_LINE_LIMIT = 512;

// The contents of a store file, read line by line.
struct StoreText {
    const char *data;
    size_t len;
    size_t pos = 0;

    const char *rest() const { return data + pos; }
    size_t rest_len() const { return len - pos; }

    // Up to `limit` characters through the next line feed, which is dropped.
    // False at the end of the text.
    bool read_line(std::string *line, size_t limit = std::string::npos)
    {
        if (pos >= len)
            return false;
        std::string_view view(rest(), rest_len());
        size_t feed = view.find('\n');
        size_t take = feed == std::string_view::npos ? view.size() : feed + 1;
        if (take > limit)
            take = limit;
        line->assign(view.substr(0, take));
        pos += take;
        if (!line->empty() && line->back() == '\n')
            line->pop_back();
        return true;
    }
    bool read_name_line(std::string *line) { return read_line(line, NAME_LINE_LIMIT - 1); }

    // The line feed that ends a record, when it is there.
    void skip_line_feed()
    {
        if (pos < len && data[pos] == '\n')
            ++pos;
    }
};

KeyPtr certificate_from_reference(uint32_t location, const std::string &line)
{
    return cert_identity_from_reference(location, line);
}

// A key read back under the passphrase is kept in the form it was stored
// in, as long as that form is the one a save would write now.
bool block_fits_password(std::string_view block, const char *password)
{
    bool encrypted = block.find("ENCRYPTED") != std::string_view::npos;
    return encrypted == (password[0] != '\0');
}

// The comments of a table in table order; its identities are removed.
std::vector<std::optional<std::string>> take_comments(int version)
{
    std::vector<std::optional<std::string>> comments;
    IdentityTable *table = identity_table_for_version(version);
    while (!table->identities.empty()) {
        Identity *identity = table->identities.front().get();
        comments.push_back(identity->comment);
        identity_remove(table, identity);
    }
    table->nentries = table->ncerts = 0;
    return comments;
}

// One record of the private file as read under a password.
struct PrivateRecord {
    std::string name;
    KeyPtr key;              // null when it could not be read
    std::string_view block;  // the PEM block, when a key was read
    std::string_view raw;    // the whole record, through its ending line feed
};

// Reads the next record; false at the end of the text.
bool next_private_record(StoreText *in, PemKeyReader *reader, PrivateRecord *record)
{
    size_t start = in->pos;
    if (!in->read_name_line(&record->name))
        return false;
    record->key.reset();
    record->block = {};
    size_t at = 0;
    uint32_t location = find_cert_source_marker(record->name, &at);
    if (location != CERT_SOURCE_NONE) {
        record->name.resize(at);
        std::string reference;
        in->read_line(&reference);
        record->key = certificate_from_reference(location, reference);
    } else {
        size_t consumed = 0, block_start = 0;
        record->key = reader->read(in->rest(), in->rest_len(), &consumed, &block_start);
        if (record->key)
            record->block = std::string_view(in->rest() + block_start, consumed - block_start);
        in->pos += consumed;
    }
    in->skip_line_feed();
    record->raw = std::string_view(in->data + start, in->pos - start);
    return true;
}

// The lines of the public file's record named `name`, or empty.
std::string public_record_named(std::string_view public_text, const std::string &name)
{
    StoreText in{public_text.data(), public_text.size()};
    std::string line, key_line;
    for (size_t start = in.pos; in.read_name_line(&line); start = in.pos) {
        in.read_line(&key_line);
        if (line == name)
            return std::string(public_text.substr(start, in.pos - start));
    }
    return {};
}

size_t public_only_identities()
{
    size_t n = 0;
    for (int version : {1, 2})
        for (const auto &identity : identity_table_for_version(version)->identities)
            n += identity->public_only ? 1 : 0;
    return n;
}

}  // namespace

void read_public_key_store(const char *text, size_t len)
{
    StoreText in{text, len};
    IdentityTable *table = identity_table_for_version(2);
    std::string name, line;
    while (in.read_name_line(&name) && in.read_line(&line)) {
        KeyPtr key = key_new(KEY_UNSPEC);
        const char *cursor = line.c_str();
        if (key_read(key.get(), &cursor) != 1 || lookup_identity(key.get(), 2))
            continue;
        std::optional<std::string> comment;
        if (*cursor == ' ')
            comment = std::string(cursor + 1);
        key->name = name;
        auto identity = make_identity_record(std::move(key), std::move(comment), 0, 0, 0);
        identity->public_only = true;
        identity_add(table, std::move(identity));
    }
}

void read_private_key_store(const char *text, size_t len, const char *password, uint64_t generation,
                            std::string_view public_text)
{
    unreadable_records().clear();
    if (len == 0) {
        debug("No keys in the private key file");
        return;
    }
    // Comments are matched by position: the private file has none of its
    // own, and its keys take the comments of the identities they replace.
    take_comments(1);
    std::vector<std::optional<std::string>> comments = take_comments(2);
    size_t next_comment = 0;

    IdentityTable *table = identity_table_for_version(2);
    StoreText in{text, len};
    PrivateRecord record;
    PemKeyReader reader(password);
    while (next_private_record(&in, &reader, &record)) {
        if (!record.key) {
            UnreadableRecord kept;
            kept.name = record.name;
            kept.public_record = public_record_named(public_text, record.name);
            kept.private_record.assign(record.raw.data(), record.raw.size());
            unreadable_records().push_back(std::move(kept));
            continue;
        }
        if (lookup_identity(record.key.get(), 2))
            continue;
        std::optional<std::string> comment;
        if (next_comment < comments.size())
            comment = comments[next_comment++];
        record.key->name = record.name;
        auto identity = make_identity_record(std::move(record.key), std::move(comment), 0, 0, 0);
        if (!record.block.empty() && block_fits_password(record.block, password)) {
            identity->stored_pem.assign(record.block.data(), record.block.size());
            identity->stored_pem_generation = generation;
        }
        identity_add(table, std::move(identity));
    }
}

std::vector<UnreadableRecord> &unreadable_records()
{
    static std::vector<UnreadableRecord> records;
    return records;
}

size_t key_store_unreadable_count()
{
    return unreadable_records().size() + (agent_passphrase_held() ? public_only_identities() : 0);
}

bool key_store_password_opens(const char *password)
{
    bool ok = false;
    SecureBytes data = read_whole_file(key_store_paths().private_file, &ok);
    StoreText in{reinterpret_cast<const char *>(data.data()), data.size()};
    PrivateRecord record;
    PemKeyReader reader(password);
    while (ok && next_private_record(&in, &reader, &record))
        if (record.key && !record.block.empty() && block_fits_password(record.block, password))
            return true;
    return false;
}

namespace {

// Once per load, at error level: what could not be read, and where.
void report_unreadable(const KeyStorePaths &paths, bool private_file_read)
{
    for (const UnreadableRecord &record : unreadable_records())
        error("%s: the stored key \"%s\" cannot be read; it is kept as it stands", paths.private_file.c_str(),
              record.name.c_str());
    size_t public_only = public_only_identities();
    if (!private_file_read && public_only > 0)
        error("%s is %s but %s lists %zu keys: they stay listed and cannot sign", paths.private_file.c_str(),
              platform_file_exists(paths.private_file) ? "empty" : "missing", paths.public_file.c_str(), public_only);
}

}  // namespace

void load_public_key_store()
{
    KeyStorePaths paths = key_store_paths();
    key_store_recover(paths);
    bool ok = false;
    SecureBytes data = read_whole_file(paths.public_file, &ok);
    if (!ok) {
        debug("No keys in the public key file");
        return;
    }
    read_public_key_store(reinterpret_cast<const char *>(data.data()), data.size());
}

void load_private_key_store()
{
    KeyStorePaths paths = key_store_paths();
    const char *password = agent_passphrase_text();
    if (paths.private_file.empty() || password == nullptr)
        return;
    key_store_recover(paths);
    bool ok = false;
    SecureBytes data = read_whole_file(paths.private_file, &ok);
    if (!ok)
        debug("Failed to open the private key file");
    else {
        bool public_ok = false;
        SecureBytes public_data = read_whole_file(paths.public_file, &public_ok);
        read_private_key_store(reinterpret_cast<const char *>(data.data()), data.size(), password,
                               agent_passphrase_generation(),
                               std::string_view(reinterpret_cast<const char *>(public_data.data()), public_data.size()));
    }
    report_unreadable(paths, ok && !data.empty());
}
