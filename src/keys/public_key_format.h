// Public keys as text: the one-line form ("ssh-rsa AAAA... comment"),
// certificate reference lines ("ssh-rsa#CERT_SYSTEM <hash>") and the SECSH
// block ("---- BEGIN SSH2 PUBLIC KEY ----").
#pragma once

#include <cstdint>
#include <cstdio>
#include <string>
#include <string_view>

#include "keys/key.h"

// The marker of a certificate source ("#CERT_SYSTEM", "#CERT_PKCS11",
// "#CERT_TARNWELL"); null for any other source.
const char *cert_source_marker(uint32_t source);
// The source of the first marker found in `text`, looked for in the order
// "#CERT_SYSTEM", "#CERT_TARNWELL", "#CERT_PKCS11"; its offset goes to `*at`.
// CERT_SOURCE_NONE when there is none.
uint32_t find_cert_source_marker(std::string_view text, size_t *at);

// Type of the key named at the front of `*line`; a source marker after the
// name makes it a certificate reference and its source goes to
// `cert_source`. On success `*line` moves past the blank after the name.
int key_get_type(const char **line, uint32_t *cert_source);
// 1 read, -1 failure, -2 the line holds another type than `key`.
int key_read(Key *key, const char **line);
int key_read_by_type(Key *key, int type, uint32_t cert_source, const char **line);

// The one-line form; with `with_comment` " user@host\n" follows. Empty when
// the key cannot be written (a certificate identity with no source).
std::string key_line(const Key *key, bool with_comment);
// 1 written, 0 not.
int key_write(const Key *key, FILE *file, bool with_comment);

// The SECSH block, with the default comment or the caller's.
std::string key_secsh_block(const Key *key, const char *comment);
int key_write_secsh(const Key *key, FILE *file);
int key_write_secsh_comment(FILE *file, const Key *key, const char *comment);
// Reads a key back from a SECSH block; its "Comment" header (either letter
// case) goes to `comment`. Null when the text holds no readable key.
KeyPtr key_read_secsh(const std::string &text, std::string *comment);

// Decodes the first blank- or tab-separated base64 token of `text`;
// negative on a bad character or when it does not fit `capacity`.
int uudecode(const char *text, uint8_t *out, size_t capacity);
// Base64 in lines of 70 characters, ending as the block form wants.
std::string base64_lines(const uint8_t *data, size_t len);
void dump_base64(FILE *file, const uint8_t *data, size_t len);
