#include "keys/signature_algorithm.h"

#include <openssl/obj_mac.h>

#include "log/text_compare.h"

namespace {

const SignatureAlgorithm rows[SIGNATURE_ALGORITHM_COUNT] = {
    {"ssh-rsa", "ssh-rsa", "ssh-rsa", NID_sha1},
    {"rsa-sha2-256", "rsa-sha2-256", "ssh-rsa", NID_sha256},
    {"rsa-sha2-512", "rsa-sha2-512", "ssh-rsa", NID_sha512},
    {SSH_RSA_SHA256_VENDOR_ALIAS, SSH_RSA_SHA256_VENDOR_ALIAS, "ssh-rsa", NID_sha256},
    {"x509v3-sign-rsa", "x509v3-sign-rsa", "", NID_sha1},
    // Certificate identities sign under the plain signature name.
    {"x509v3-ssh-rsa", "ssh-rsa", "", NID_sha1},
    {"x509v3-rsa2048-sha256", "rsa2048-sha256", "", NID_sha256},
    {"ssh-dss", "ssh-dss", "ssh-dss", NID_sha1},
    {"x509v3-sign-dss", "x509v3-sign-dss", "", NID_sha1},
    {"ecdsa-sha2-nistp256", "ecdsa-sha2-nistp256", "ecdsa-sha2-nistp256", NID_sha256},
    {"ecdsa-sha2-nistp384", "ecdsa-sha2-nistp384", "ecdsa-sha2-nistp384", NID_sha384},
    {"ecdsa-sha2-nistp521", "ecdsa-sha2-nistp521", "ecdsa-sha2-nistp521", NID_sha512},
    {"x509v3-ecdsa-sha2-nistp256", "ecdsa-sha2-nistp256", "", NID_sha256},
    {"x509v3-ecdsa-sha2-nistp384", "ecdsa-sha2-nistp384", "", NID_sha384},
    {"x509v3-ecdsa-sha2-nistp521", "ecdsa-sha2-nistp521", "", NID_sha512},
    // PureEdDSA: the data is signed whole, with no separate digest step.
    {"ssh-ed25519", "ssh-ed25519", "ssh-ed25519", NID_undef},
};

template <class Column>
const SignatureAlgorithm *find_row(const char *name, Column column)
{
    if (!name)
        return nullptr;
    for (const SignatureAlgorithm &row : rows)
        if (equals_ignore_case(column(row), name))
            return &row;
    return nullptr;
}

}  // namespace

const SignatureAlgorithm *signature_algorithms() { return rows; }

const SignatureAlgorithm *signature_algorithm_by_name(const char *name)
{
    return find_row(name, [](const SignatureAlgorithm &row) { return row.name; });
}

const SignatureAlgorithm *signature_algorithm_by_signature_name(const char *name)
{
    return find_row(name, [](const SignatureAlgorithm &row) { return row.signature_name; });
}

const char *digest_text_name(int nid)
{
    switch (nid) {
    case NID_md5: return "MD5";
    case NID_sha1: return "SHA1";
    case NID_sha256: return "SHA256";
    case NID_sha384: return "SHA384";
    case NID_sha512: return "SHA512";
    default: return "UNDEF";
    }
}

bool signature_algorithm_is_certificate(const SignatureAlgorithm *row) { return row && row->base_name[0] == '\0'; }
