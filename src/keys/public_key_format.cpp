#include "keys/public_key_format.h"

#include <cstring>
#include <sstream>

#include <openssl/evp.h>

#include "keys/buffer.h"
#include "keys/cert_key_blob.h"
#include "keys/cert_key_hooks.h"
#include "keys/key_blob.h"
#include "keys/key_fingerprint.h"
#include "keys/kvl.h"
#include "log/log.h"

namespace {

struct SourceMarker {
    const char *text;
    uint32_t source;
};

// Looked for in this order.
constexpr SourceMarker markers[] = {
    {"#CERT_SYSTEM", CERT_SOURCE_SYSTEM},
    {"#CERT_TARNWELL", CERT_SOURCE_TARNWELL},
    {"#CERT_PKCS11", CERT_SOURCE_PKCS11},
};

std::string base64(const uint8_t *data, size_t len)
{
    std::string out(4 * ((len + 2) / 3) + 1, '\0');
    int n = EVP_EncodeBlock(reinterpret_cast<unsigned char *>(out.data()), data, static_cast<int>(len));
    out.resize(n > 0 ? static_cast<size_t>(n) : 0);
    return out;
}

// The certificate providers resolve a certificate by its public-key hash.
KeyPtr certificate_by_reference(uint32_t source, const uint8_t *hash, size_t len)
{
    return cert_key_hooks().by_public_key_hash(source, hash, len);
}

// The blob reader treats a huge string length as fatal, as it must on the
// wire, but reading a key from text never aborts: a length that runs past
// the end can only come from damaged text and is refused first. A plain
// key's blob is a run of length-prefixed fields; a certificate's starts with
// one, its name, and the rest is read without that risk, or it is a bare DER
// certificate (a SEQUENCE, 0x30), which is read without fields at all.
bool fields_fit(const uint8_t *blob, size_t len, bool all_fields)
{
    size_t at = 0;
    while (len - at >= 4) {
        uint32_t field = get_u32(blob + at);
        at += 4;
        if (field > len - at)
            return false;
        at += field;
        if (!all_fields)
            break;
    }
    return true;
}

}  // namespace

const char *cert_source_marker(uint32_t source)
{
    for (const auto &m : markers)
        if (m.source == source)
            return m.text;
    return nullptr;
}

uint32_t find_cert_source_marker(std::string_view text, size_t *at)
{
    for (const auto &m : markers) {
        size_t found = text.find(m.text);
        if (found != std::string_view::npos) {
            *at = found;
            return m.source;
        }
    }
    return CERT_SOURCE_NONE;
}

int key_get_type(const char **line, uint32_t *cert_source)
{
    if (line == nullptr || *line == nullptr)
        return KEY_NULL;
    const char *text = *line;
    const char *blank = strchr(text, ' ');
    if (blank == nullptr) {
        debug3("key_get_type: missing whitespace");
        return KEY_UNSPEC;
    }
    std::string name(text, blank);
    size_t at = 0;
    uint32_t source = find_cert_source_marker(name, &at);
    if (source != CERT_SOURCE_NONE)
        name.resize(at);
    int type = key_type_from_name(name.c_str());
    if (type == KEY_UNSPEC) {
        debug3("key_get_type: missing keytype");
        return KEY_UNSPEC;
    }
    if (blank[1] == '\0') {
        debug3("key_get_type: short string");
        return KEY_UNSPEC;
    }
    if (cert_source)
        *cert_source = source;
    *line = blank + 1;
    return type;
}

int key_read(Key *key, const char **line)
{
    uint32_t source = CERT_SOURCE_NONE;
    int type = key_get_type(line, &source);
    if (type == KEY_UNSPEC) {
        debug3("key_read: missing keytype");
        return -1;
    }
    if (key->type == KEY_UNSPEC) {
        key->type = type;
    } else if (key->type != type) {
        debug3("key_read: type mismatch");
        return -2;
    }
    return key_read_by_type(key, type, source, line);
}

int key_read_by_type(Key *key, int type, uint32_t cert_source, const char **line)
{
    const char *text = *line;
    SecureBytes decoded(2 * strlen(text) + 4);
    int len = uudecode(text, decoded.data(), decoded.size());
    if (len < 0) {
        debug3("key_read_by_type: uudecode %s failed", text);
        return -1;
    }
    // Which fields must fit follows the blob's own name, not the type the
    // line claims: a damaged store may pair any name with any blob.
    int blob_type = key_type_from_name(key_blob_name(decoded.data(), static_cast<uint32_t>(len)).c_str());
    bool plain = blob_type == KEY_RSA || blob_type == KEY_DSA || blob_type == KEY_ECDSA || blob_type == KEY_ED25519;
    KeyPtr found;
    if (cert_source != CERT_SOURCE_NONE)
        found = certificate_by_reference(cert_source, decoded.data(), static_cast<size_t>(len));
    else if (fields_fit(decoded.data(), static_cast<size_t>(len), plain))
        found = key_from_blob(decoded.data(), static_cast<uint32_t>(len));
    else if (!plain && len > 0 && decoded[0] == 0x30)  // a certificate's DER alone
        found = x509key_from_any_blob(decoded.data(), static_cast<uint32_t>(len), nullptr);
    if (!found) {
        debug3("key_read_by_type: key_from_blob %s failed", text);
        return -1;
    }
    if (found->type != type) {
        debug3("key_read_by_type: type mismatch: encoding error");
        return -1;
    }
    key->pkey = std::move(found->pkey);
    key->ecdsa_nid = found->ecdsa_nid;
    key->cert = std::move(found->cert);
    key->cert_extra = std::move(found->cert_extra);
    key->cert_reference = std::move(found->cert_reference);
    key->cert_source = cert_source != CERT_SOURCE_NONE ? cert_source : found->cert_source;
    while (*text == ' ' || *text == '\t')
        ++text;
    while (*text && *text != ' ' && *text != '\t')
        ++text;
    *line = text;
    return 1;
}

std::string key_line(const Key *key, bool with_comment)
{
    std::string line;
    if (key == nullptr)
        return line;
    if (key->type == KEY_X509_RSA || key->type == KEY_X509_DSA || key->type == KEY_X509_ECDSA) {
        const char *marker = cert_source_marker(key->cert_source);
        if (marker == nullptr || !key->cert)
            return line;
        KVL::Bytes hash = KVL::Cert(key->cert.get()).GetPubKeyHash();
        line = std::string(key_ssh_name(key)) + marker + " " + base64(hash.data(), hash.size());
    } else {
        if (!key->pkey)
            return line;
        SecureBytes blob;
        uint32_t len = key_to_blob(key, &blob, nullptr, key_blob_type_name(key));
        if (len == 0 || blob.empty())
            return line;
        line = std::string(key_blob_type_name(key)) + " " + base64(blob.data(), len);
    }
    if (with_comment) {
        // Appended piece by piece: a temporary built by " " + text sends
        // g++ 12's -Wrestrict after an overlap that cannot happen.
        line += ' ';
        line += user_at_host();
        line += '\n';
    }
    return line;
}

int key_write(const Key *key, FILE *file, bool with_comment)
{
    std::string line = key_line(key, with_comment);
    return !line.empty() && fputs(line.c_str(), file) >= 0 ? 1 : 0;
}

std::string key_secsh_block(const Key *key, const char *comment)
{
    SecureBytes blob;
    uint32_t len = key ? key_to_blob(key, &blob, nullptr, key_blob_type_name(key)) : 0;
    if (len == 0 || blob.empty())
        return "";
    char header[1024];
    if (comment)
        snprintf(header, sizeof header, "Comment: \"%u-bit %s, %s\"\n", key_size(key), key_type(key), comment);
    else
        snprintf(header, sizeof header, "Comment: \"%u-bit %s, exported by %s\"\n", key_size(key), key_type(key),
                 user_at_host().c_str());
    return std::string("---- BEGIN SSH2 PUBLIC KEY ----\n") + header + base64_lines(blob.data(), len) +
           "---- END SSH2 PUBLIC KEY ----\n";
}

int key_write_secsh(const Key *key, FILE *file) { return key_write_secsh_comment(file, key, nullptr); }

int key_write_secsh_comment(FILE *file, const Key *key, const char *comment)
{
    std::string block = key_secsh_block(key, comment);
    return !block.empty() && fputs(block.c_str(), file) >= 0 ? 1 : 0;
}

KeyPtr key_read_secsh(const std::string &text, std::string *comment)
{
    std::istringstream lines(text);
    std::string line, body;
    bool inside = false, continued = false;
    while (std::getline(lines, line)) {
        if (!line.empty() && line.back() == '\r')
            line.pop_back();
        if (line.rfind("---- BEGIN SSH2 PUBLIC KEY ----", 0) == 0) {
            inside = true;
            continue;
        }
        if (!inside)
            continue;
        // A last line of 69 characters carries the END marker behind it.
        auto end = line.find("---- END SSH2 PUBLIC KEY ----");
        if (end != std::string::npos) {
            body += line.substr(0, end);
            break;
        }
        if (continued) {
            continued = !line.empty() && line.back() == '\\';
            continue;
        }
        auto colon = line.find(':');
        if (colon != std::string::npos) {
            std::string name = line.substr(0, colon);
            if (comment && (name == "Comment" || name == "comment")) {
                std::string value = line.substr(colon + 1);
                value.erase(0, value.find_first_not_of(' '));
                if (value.size() >= 2 && value.front() == '"' && value.back() == '"')
                    value = value.substr(1, value.size() - 2);
                *comment = value;
            }
            continued = !line.empty() && line.back() == '\\';
            continue;
        }
        body += line;
    }
    if (body.empty())
        return nullptr;
    SecureBytes decoded(body.size() + 4);
    int len = uudecode(body.c_str(), decoded.data(), decoded.size());
    if (len <= 0)
        return nullptr;
    return key_from_blob(decoded.data(), static_cast<uint32_t>(len));
}

int uudecode(const char *text, uint8_t *out, size_t capacity)
{
    while (*text == ' ' || *text == '\t')
        ++text;
    size_t n = strcspn(text, " \t\r\n");
    if (n == 0 || n % 4 != 0)
        return -1;
    size_t padding = text[n - 1] == '=' ? (text[n - 2] == '=' ? 2 : 1) : 0;
    if (n / 4 * 3 > capacity)
        return -1;
    int decoded = EVP_DecodeBlock(out, reinterpret_cast<const unsigned char *>(text), static_cast<int>(n));
    if (decoded < 0)
        return -1;
    return decoded - static_cast<int>(padding);
}

std::string base64_lines(const uint8_t *data, size_t len)
{
    std::string encoded = base64(data, len), out;
    size_t i = 0;
    for (; i < encoded.size(); ++i) {
        out += encoded[i];
        if (i % 70 == 69)
            out += '\n';
    }
    // A total of 69 modulo 70 gets no line end of its own: kept as the block
    // format has always been written.
    if (i % 70 != 69)
        out += '\n';
    return out;
}

void dump_base64(FILE *file, const uint8_t *data, size_t len) { fputs(base64_lines(data, len).c_str(), file); }
