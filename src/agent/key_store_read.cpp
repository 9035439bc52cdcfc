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
#include "keys/private_key_pem.h"
#include "keys/public_key_format.h"
#include "log/log.h"
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
        identity_add(table, make_identity_record(std::move(key), std::move(comment), 0, 0, 0));
    }
}

void read_private_key_store(const char *text, size_t len, const char *password, uint64_t generation)
{
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
    std::string name;
    while (in.read_name_line(&name)) {
        KeyPtr key;
        SecretString block;
        size_t at = 0;
        uint32_t location = find_cert_source_marker(name, &at);
        if (location != CERT_SOURCE_NONE) {
            name.resize(at);
            std::string reference;
            in.read_line(&reference);
            key = certificate_from_reference(location, reference);
        } else {
            size_t consumed = 0, start = 0;
            key = private_key_pem_read(in.rest(), in.rest_len(), password, &consumed, &start);
            std::string_view found(in.rest() + start, consumed - start);
            if (key && block_fits_password(found, password))
                block.assign(found.data(), found.size());
            in.pos += consumed;
        }
        if (key && !lookup_identity(key.get(), 2)) {
            std::optional<std::string> comment;
            if (next_comment < comments.size())
                comment = comments[next_comment++];
            key->name = name;
            auto identity = make_identity_record(std::move(key), std::move(comment), 0, 0, 0);
            if (!block.empty()) {
                identity->stored_pem = std::move(block);
                identity->stored_pem_generation = generation;
            }
            identity_add(table, std::move(identity));
        }
        in.skip_line_feed();
    }
}

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
    if (!ok) {
        debug("Failed to open the private key file");
        return;
    }
    read_private_key_store(reinterpret_cast<const char *>(data.data()), data.size(), password,
                           agent_passphrase_generation());
}
