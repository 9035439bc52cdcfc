#include "agent/identity_table.h"

#include <array>
#include <cctype>
#include <cstring>
#include <unordered_set>
#include <ctime>

#include <openssl/bn.h>
#include <openssl/core_names.h>
#include <openssl/err.h>
#include <openssl/evp.h>

#include "agent/key_store.h"
#include "keys/key.h"
#include "keys/key_fingerprint.h"
#include "log/agent_log.h"
#include "log/log.h"
#include "log/text_compare.h"

namespace {

// Entry 0 is never used: tables are indexed by protocol version.
std::array<IdentityTable, 3> &tables()
{
    static std::array<IdentityTable, 3> all;
    return all;
}

// Removes every identity of both tables for which `doomed` holds, logging
// `why`; returns how many went.
template <class Predicate>
int sweep(Predicate doomed, const char *why)
{
    int removed = 0;
    for (int version = 1; version <= 2; ++version) {
        IdentityTable *table = identity_table_for_version(version);
        for (auto it = table->identities.begin(); it != table->identities.end();) {
            Identity *identity = (it++)->get();  // successor taken before the record may go
            if (!doomed(*identity))
                continue;
            agent_log("Removing key: %s - %s", identity->key ? identity->key->name.c_str() : "", why);
            identity_remove(table, identity);
            ++removed;
        }
    }
    return removed;
}

// Compares `key` with the entry's key seen as its plain type.
bool equal_as_plain_key(Key *entry, const Key *key)
{
    int saved = entry->type;
    entry->type = plain_key_type(saved);
    bool equal = key_equal(entry, key) != 0;
    entry->type = saved;
    return equal;
}

// The public key's numbers or point, which equal keys share. Certificate
// identities compare by their certificates' public keys instead, so they
// have none here, nor have key kinds not listed. (The library's DER encoder
// would do, but it sets itself up anew for every key, which is far slower.)
std::string plain_public_blob(const Key *key)
{
    if (key == nullptr || key->pkey == nullptr || is_certificate_type(key->type))
        return {};
    EVP_PKEY *pkey = key->pkey.get();
    std::string blob;
    auto add_number = [&](const char *name) {
        BIGNUM *number = nullptr;
        if (EVP_PKEY_get_bn_param(pkey, name, &number) != 1)
            return false;
        std::string bytes(static_cast<size_t>(BN_num_bytes(number)), '\0');
        BN_bn2bin(number, reinterpret_cast<unsigned char *>(bytes.data()));
        BN_free(number);
        blob += std::to_string(bytes.size()) + ":" + bytes;
        return true;
    };
    ERR_set_mark();
    bool ok = false;
    switch (EVP_PKEY_get_base_id(pkey)) {
    case EVP_PKEY_RSA: ok = add_number(OSSL_PKEY_PARAM_RSA_N) && add_number(OSSL_PKEY_PARAM_RSA_E); break;
    case EVP_PKEY_DSA:
        ok = add_number(OSSL_PKEY_PARAM_PUB_KEY) && add_number(OSSL_PKEY_PARAM_FFC_P) &&
             add_number(OSSL_PKEY_PARAM_FFC_Q) && add_number(OSSL_PKEY_PARAM_FFC_G);
        break;
    case EVP_PKEY_EC:
    case EVP_PKEY_ED25519: {
        // The point as the key holds it: only the uncompressed form (0x04)
        // is one per point, so a key held in another form has no blob.
        bool ec = EVP_PKEY_get_base_id(pkey) == EVP_PKEY_EC;
        char group[64] = {};
        unsigned char *point = nullptr;
        size_t len = EVP_PKEY_get1_encoded_public_key(pkey, &point);
        ok = len > 0 && (!ec || (point[0] == 0x04 && EVP_PKEY_get_group_name(pkey, group, sizeof group, nullptr) == 1));
        if (ok)
            blob = std::string(group) + ":" + std::string(reinterpret_cast<const char *>(point), len);
        OPENSSL_free(point);
        break;
    }
    default: break;
    }
    ERR_pop_to_mark();
    return ok ? blob : std::string();
}

std::string lower_case(std::string text)
{
    for (char &c : text)
        c = static_cast<char>(tolower(static_cast<unsigned char>(c)));
    return text;
}

// Below this many entries the probe's own blob costs more than it saves.
constexpr size_t BLOB_LOOKUP_MIN_ENTRIES = 16;

}  // namespace

bool is_certificate_type(int type) { return type == KEY_X509_RSA || type == KEY_X509_DSA || type == KEY_X509_ECDSA; }

int plain_key_type(int type)
{
    switch (type) {
    case KEY_X509_RSA: return KEY_RSA;
    case KEY_X509_DSA: return KEY_DSA;
    case KEY_X509_ECDSA: return KEY_ECDSA;
    default: return type;
    }
}

IdentityTable *identity_table_for_version(int version)
{
    if (version != 1 && version != 2)
        fatal("internal error, bad protocol version %d", version);
    return &tables()[static_cast<size_t>(version)];
}

void identity_tables_init()
{
    for (IdentityTable &table : tables()) {
        table.identities.clear();
        table.nentries = table.ncerts = 0;
    }
}

int identity_add(IdentityTable *table, std::unique_ptr<Identity> identity)
{
    if (table == nullptr || identity == nullptr)
        return -1;
    if (identity->key)
        identity->key->sigalg = nullptr;
    if (identity->key && is_certificate_type(identity->key->type))
        ++table->ncerts;
    identity->public_blob = plain_public_blob(identity->key.get());
    table->identities.push_back(std::move(identity));
    return ++table->nentries;
}

int identity_remove(IdentityTable *table, Identity *identity)
{
    if (table == nullptr || identity == nullptr)
        return -1;
    bool certificate = identity->key && is_certificate_type(identity->key->type);
    for (auto it = table->identities.begin(); it != table->identities.end(); ++it)
        if (it->get() == identity) {
            table->identities.erase(it);
            break;
        }
    if (table->nentries > 0)
        --table->nentries;
    if (certificate)
        --table->ncerts;
    if (table->ncerts > table->nentries)
        table->ncerts = table->nentries;
    if (table->ncerts < 0)
        table->ncerts = 0;
    return table->nentries;
}

Identity *lookup_identity(const Key *key, int version)
{
    const auto &identities = identity_table_for_version(version)->identities;
    std::string probe = identities.size() >= BLOB_LOOKUP_MIN_ENTRIES ? plain_public_blob(key) : std::string();
    for (const auto &entry : identities) {
        if (!entry->key || !key || entry->key->type != key->type)
            continue;
        if (!probe.empty() && !entry->public_blob.empty() && entry->public_blob != probe)
            continue;
        if (key_equal(entry->key.get(), key))
            return entry.get();
    }
    return nullptr;
}

Identity *lookup_identity_as_key(const Key *key, int version)
{
    for (const auto &entry : identity_table_for_version(version)->identities)
        if (entry->key && key && equal_as_plain_key(entry->key.get(), key))
            return entry.get();
    return nullptr;
}

std::string make_identity_name(const Key *key)
{
    char base[128];
    snprintf(base, sizeof base, "id_%s_%u", key_type(key), key_size(key));
    // The names taken, gathered once: a table with many keys of one type
    // would otherwise be searched once for every number tried.
    std::unordered_set<std::string> taken;
    for (int version = 1; version <= 2; ++version)
        for (const auto &entry : identity_table_for_version(version)->identities)
            if (entry->key && starts_with_ignore_case(entry->key->name, base))
                taken.insert(lower_case(entry->key->name));
    for (unsigned attempt = 1;; ++attempt) {
        std::string candidate = attempt == 1 ? base : std::string(base) + "_" + std::to_string(attempt);
        if (!taken.count(lower_case(candidate)))
            return candidate;
    }
}

std::unique_ptr<Identity> make_identity_record(KeyPtr key, std::optional<std::string> comment, int64_t death,
                                               uint32_t confirm, uint32_t temporary)
{
    auto identity = std::make_unique<Identity>();
    identity->key = std::move(key);
    identity->comment = std::move(comment);
    identity->death = death;
    identity->confirm = confirm;
    identity->temporary = temporary;
    return identity;
}

void remove_expired_identities()
{
    const int64_t now = static_cast<int64_t>(time(nullptr));
    int removed = sweep([now](const Identity &identity) { return identity.death != 0 && now >= identity.death; },
                        "lifetime has expired");
    if (removed > 0)
        save_key_store();
}

void remove_temporary_identities()
{
    sweep([](const Identity &identity) { return identity.temporary != 0; }, "key only temporary");
}
