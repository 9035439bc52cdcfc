// Test files on every platform: whole-file reads and private temporary
// folders under the system's temporary folder.
#pragma once

#include <filesystem>
#include <fstream>
#include <random>
#include <sstream>
#include <string>

inline std::string read_file_text(const std::filesystem::path &path)
{
    std::ifstream in(path, std::ios::binary);
    std::stringstream text;
    text << in.rdbuf();
    return text.str();
}

// A new empty folder whose name no other test process picks.
inline std::filesystem::path fresh_temp_folder(const std::string &prefix)
{
    std::random_device random;
    for (;;) {
        std::filesystem::path folder = std::filesystem::temp_directory_path() /
                                       ("tarnwell-" + prefix + "-" + std::to_string(random()));
        if (std::filesystem::create_directories(folder))
            return folder;
    }
}

// How many times `part` occurs in `text`.
inline size_t count_of(const std::string &text, const std::string &part)
{
    size_t count = 0;
    for (size_t at = text.find(part); at != std::string::npos; at = text.find(part, at + 1))
        ++count;
    return count;
}
