// Certificate identities: matching identifiers, chains and the handle that
// the providers attach.
#include <cctype>
#include <cstring>

#include <openssl/evp.h>
#include <openssl/x509v3.h>

#include "log/log.h"
#include "pki/cert_provider.h"
#include "pki/x509_key_blob.h"

namespace {

std::string base64_der(X509 *cert)
{
    int len = i2d_X509(cert, nullptr);
    if (len <= 0)
        return "";
    SecureBytes der(static_cast<size_t>(len));
    uint8_t *out = der.data();
    i2d_X509(cert, &out);
    std::string text(4 * ((der.size() + 2) / 3) + 1, '\0');
    int n = EVP_EncodeBlock(reinterpret_cast<unsigned char *>(text.data()), der.data(), len);
    text.resize(n > 0 ? static_cast<size_t>(n) : 0);
    return text;
}

}  // namespace

std::string cert_sha1_hex(X509 *cert)
{
    uint8_t digest[EVP_MAX_MD_SIZE];
    unsigned len = 0;
    if (!cert || !X509_digest(cert, EVP_sha1(), digest, &len))
        return "";
    static const char hex[] = "0123456789abcdef";
    std::string out;
    for (unsigned i = 0; i < len; ++i) {
        out += hex[digest[i] >> 4];
        out += hex[digest[i] & 15];
    }
    return out;
}

std::string cert_simple_name(X509 *cert)
{
    X509_NAME *subject = cert ? X509_get_subject_name(cert) : nullptr;
    int at = subject ? X509_NAME_get_index_by_NID(subject, NID_commonName, -1) : -1;
    if (at < 0)
        return "";
    unsigned char *utf8 = nullptr;
    int len = ASN1_STRING_to_UTF8(&utf8, X509_NAME_ENTRY_get_data(X509_NAME_get_entry(subject, at)));
    if (len < 0)
        return "";
    std::string name(reinterpret_cast<char *>(utf8), static_cast<size_t>(len));
    OPENSSL_free(utf8);
    return name;
}

bool cert_matches_identifier(X509 *cert, const std::string &identifier)
{
    if (!cert || identifier.empty())
        return false;
    std::string hex;
    for (char c : identifier)
        if (c != ':')
            hex += static_cast<char>(tolower(static_cast<unsigned char>(c)));
    return hex == cert_sha1_hex(cert) || identifier == cert_simple_name(cert);
}

X509StackPtr cert_issuers_from(X509 *leaf, STACK_OF(X509) *candidates)
{
    X509StackPtr issuers(sk_X509_new_null());
    X509 *current = leaf;
    for (int depth = 0; issuers && current && depth < 8; ++depth) {
        if (X509_check_issued(current, current) == X509_V_OK)
            break;  // self-signed: the root
        X509 *next = nullptr;
        for (int i = 0; i < sk_X509_num(candidates) && !next; ++i) {
            X509 *ca = sk_X509_value(candidates, i);
            PkeyPtr key(X509_get_pubkey(ca));
            if (X509_check_issued(ca, current) == X509_V_OK && key && X509_verify(current, key.get()) == 1)
                next = ca;
        }
        if (!next)
            break;
        X509Ptr ref = x509_ref(next);
        if (!sk_X509_push(issuers.get(), ref.get()))
            break;
        ref.release();
        current = next;
    }
    return issuers;
}

CertHandle *cert_identity_handle(const Key *key)
{
    if (!key || !key->cert_extra || key->cert_source == CERT_SOURCE_NONE)
        return nullptr;
    return static_cast<CertHandle *>(key->cert_extra.get());
}

KeyPtr cert_identity_make(X509 *cert, uint32_t location, std::shared_ptr<CertHandle> handle)
{
    KeyPtr key = x509key_from_certificate(x509_ref(cert), nullptr);
    if (!key || !handle)
        return nullptr;
    handle->location = location;
    handle->reference.sha1_hex = cert_sha1_hex(cert);
    handle->reference.cert_base64 = base64_der(cert);
    key->cert_source = location;
    key->cert_reference = cert_reference_format(handle->reference);
    if (key->cert_reference.empty()) {
        error("cert_identity_make: certificate %s cannot be referenced", handle->reference.sha1_hex.c_str());
        return nullptr;
    }
    key->sigalg = nullptr;  // chosen per request
    key->cert_extra = std::move(handle);
    return key;
}
