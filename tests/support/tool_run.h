// Runs command-line tools (ssh-keygen, openssl) in a private temporary
// folder, and decodes what they print.
#pragma once

#include <cstdio>
#include <sstream>
#include <string>

#include <openssl/evp.h>

#include "support/bytes.h"
#include "support/files.h"

// A folder of mode 0700, removed with everything in it.
class TempFolder {
public:
    TempFolder() : path_(fresh_temp_folder("test").string())
    {
        std::filesystem::permissions(path_, std::filesystem::perms::owner_all);
    }
    ~TempFolder() { remove_folder(path_); }
    TempFolder(const TempFolder &) = delete;
    TempFolder &operator=(const TempFolder &) = delete;
    std::string path(const std::string &name = "") const { return name.empty() ? path_ : path_ + "/" + name; }

private:
    std::string path_;
};

struct ToolResult {
    int status = -1;
    std::string output;  // standard output and standard error
};

inline ToolResult run_tool(const std::string &command)
{
    ToolResult result;
    FILE *pipe = popen((command + " 2>&1").c_str(), "r");
    if (!pipe)
        return result;
    char chunk[4096];
    size_t n;
    while ((n = fread(chunk, 1, sizeof chunk, pipe)) > 0)
        result.output.append(chunk, n);
    result.status = pclose(pipe);
    return result;
}

inline Bytes base64_decode(const std::string &text)
{
    Bytes out(text.size());
    int n = EVP_DecodeBlock(out.data(), reinterpret_cast<const unsigned char *>(text.data()),
                            static_cast<int>(text.size()));
    if (n < 0)
        return {};
    size_t padding = 0;
    for (size_t i = text.size(); i > 0 && text[i - 1] == '='; --i)
        ++padding;
    out.resize(static_cast<size_t>(n) - padding);
    return out;
}

// The blob of a one-line public key file ("ssh-rsa AAAA... comment").
inline Bytes public_line_blob(const std::string &path)
{
    std::istringstream line(read_file_text(path));
    std::string name, data;
    line >> name >> data;
    return base64_decode(data);
}

// The word after `prefix` in `text` ("MD5:" in "2048 MD5:aa:bb... comment").
inline std::string word_after(const std::string &text, const std::string &prefix)
{
    size_t at = text.find(prefix);
    if (at == std::string::npos)
        return {};
    at += prefix.size();
    return text.substr(at, text.find_first_of(" \n", at) - at);
}

// A new unencrypted key made by ssh-keygen in PEM form at `path` (and
// `path`.pub), with `comment` (by default `path`'s file name) as its comment.
inline bool make_ssh_keygen_key(const std::string &path, const std::string &type, int bits = 0,
                                std::string comment = "")
{
    if (comment.empty())
        comment = std::filesystem::path(path).filename().string();
    std::string command = "ssh-keygen -q -m PEM -N '' -C '" + comment + "' -t " + type +
                          (bits ? " -b " + std::to_string(bits) : "") + " -f " + path;
    return run_tool(command).status == 0;
}
