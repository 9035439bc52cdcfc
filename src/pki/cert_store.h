// The agent's own certificate store (location 3): a folder "tAgentCerts"
// in the user's data folder, mode 0700. For each identity "<sha1>.crt"
// holds its certificate (PEM) and "<sha1>.key" its private key as a PEM
// block encrypted under the agent passphrase; CA certificates are kept as
// "<sha1>.ca" and build the chains of the identities. <sha1> is the
// certificate's SHA-1 in lower-case hex.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

constexpr const char *CERT_STORE_FOLDER = "tAgentCerts";

struct CertStoreEntry {
    std::string sha1_hex;
    std::string name;  // the subject's common name
    bool ca = false;
};

// The agent binds the store to its folder and to the passphrase it holds
// (null while none is held); until then the folder is empty and the store
// holds nothing.
void cert_store_bind(const std::string &folder, const char *(*passphrase)());
// The bound folder; empty while none is bound.
std::string cert_store_folder();

// Imports a PKCS#12 file: its certificate and key as an identity, its other
// certificates as CA certificates. True with the identity's SHA-1 hex;
// false with a one-line reason.
bool cert_store_import_pkcs12(const std::string &folder, const uint8_t *p12, size_t len, const char *p12_password,
                              const char *agent_passphrase, std::string *sha1_hex, std::string *why);
// Identities first, then CA certificates, each sorted by hash.
std::vector<CertStoreEntry> cert_store_list(const std::string &folder);
// Removes every certificate (identity or CA) the identifier names; the count.
int cert_store_remove(const std::string &folder, const std::string &identifier);
// Encrypts every key again under the new passphrase; keys that do not open
// under the old one are left as they are. False when one could not be written.
bool cert_store_reencrypt(const std::string &folder, const char *old_passphrase, const char *new_passphrase);
