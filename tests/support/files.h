// Test files on every platform: whole-file reads and private temporary
// folders under the system's temporary folder.
#pragma once

#include <chrono>
#include <filesystem>
#include <fstream>
#include <random>
#include <sstream>
#include <string>
#include <system_error>
#include <thread>

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

// Removes `folder` and what it holds without throwing. On Windows a program
// that has just ended, or one it started, may hold a file open for a moment
// longer: tries again for up to five seconds.
inline bool remove_folder(const std::filesystem::path &folder)
{
    for (int attempt = 0; attempt < 50; ++attempt) {
        std::error_code error;
        std::filesystem::remove_all(folder, error);
        if (!error)
            return true;
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
    }
    return false;
}

// How many times `part` occurs in `text`.
inline size_t count_of(const std::string &text, const std::string &part)
{
    size_t count = 0;
    for (size_t at = text.find(part); at != std::string::npos; at = text.find(part, at + 1))
        ++count;
    return count;
}
