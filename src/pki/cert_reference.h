// The certificate reference line of the private key store: how a
// certificate identity is found again after a restart. Fields are
// "name=value" pairs joined by ';':
//   sha1=<40 hex digits of the certificate's SHA-1>   (always)
//   module=<PKCS#11 module path>                      (tokens)
//   token=<token label>                               (tokens)
//   cert=<base64 DER of the certificate>              (always)
// The certificate itself is carried so that an identity whose source is
// gone (a removed token) stays listed and is kept in the store.
#pragma once

#include <string>
#include <string_view>

struct CertReference {
    std::string sha1_hex;  // lower case
    std::string module;
    std::string token;
    std::string cert_base64;
};

// Empty when a value would break the line (';', '=' in a name, a control
// character) or the hash is not 40 hex digits.
std::string cert_reference_format(const CertReference &reference);
// False, with `*why` saying what is wrong, for a line that is not a
// reference. Unknown fields are ignored.
bool cert_reference_parse(std::string_view line, CertReference *reference, std::string *why);
