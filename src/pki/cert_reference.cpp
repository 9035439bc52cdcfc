#include "pki/cert_reference.h"

#include <cctype>

namespace {

bool value_fits(const std::string &value)
{
    for (unsigned char c : value)
        if (c < 0x20 || c == 0x7f || c == ';')
            return false;
    return true;
}

bool is_sha1_hex(std::string_view text)
{
    if (text.size() != 40)
        return false;
    for (char c : text)
        if (!isxdigit(static_cast<unsigned char>(c)) || isupper(static_cast<unsigned char>(c)))
            return false;
    return true;
}

}  // namespace

std::string cert_reference_format(const CertReference &r)
{
    if (!is_sha1_hex(r.sha1_hex) || !value_fits(r.module) || !value_fits(r.token) || !value_fits(r.cert_base64))
        return "";
    std::string line = "sha1=" + r.sha1_hex;
    if (!r.module.empty())
        line += ";module=" + r.module;
    if (!r.token.empty())
        line += ";token=" + r.token;
    if (!r.cert_base64.empty())
        line += ";cert=" + r.cert_base64;
    return line;
}

bool cert_reference_parse(std::string_view line, CertReference *reference, std::string *why)
{
    CertReference r;
    while (!line.empty()) {
        size_t end = line.find(';');
        std::string_view field = line.substr(0, end);
        line = end == std::string_view::npos ? std::string_view() : line.substr(end + 1);
        size_t eq = field.find('=');
        if (eq == std::string_view::npos) {
            *why = "field without '='";
            return false;
        }
        std::string_view name = field.substr(0, eq), value = field.substr(eq + 1);
        for (unsigned char c : value)
            if (c < 0x20 || c == 0x7f) {
                *why = "control character in a value";
                return false;
            }
        if (name == "sha1")
            r.sha1_hex.assign(value);
        else if (name == "module")
            r.module.assign(value);
        else if (name == "token")
            r.token.assign(value);
        else if (name == "cert")
            r.cert_base64.assign(value);
    }
    if (!is_sha1_hex(r.sha1_hex)) {
        *why = "no sha1 of 40 lower-case hex digits";
        return false;
    }
    *reference = std::move(r);
    return true;
}
