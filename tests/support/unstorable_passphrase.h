// A passphrase whose SHA-1 digest begins with a white-space byte, found by
// search: the settings file would read such a digest back shifted.
#pragma once

#include <string>

#include <openssl/evp.h>

inline bool digest_starts_with_space(const std::string &passphrase)
{
    unsigned char digest[EVP_MAX_MD_SIZE];
    unsigned int length = 0;
    EVP_Digest(passphrase.data(), passphrase.size(), digest, &length, EVP_sha1(), nullptr);
    return digest[0] == ' ' || (digest[0] >= '\t' && digest[0] <= '\r');
}

// The first "candidate-N" whose digest does (or does not) begin so.
inline std::string search_passphrase(bool starts_with_space = true)
{
    for (int i = 0;; ++i)
        if (digest_starts_with_space("candidate-" + std::to_string(i)) == starts_with_space)
            return "candidate-" + std::to_string(i);
}
