#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <string>

#include "platform/platform.h"
#include "support/files.h"

#if defined(_WIN32)
#include <windows.h>
#endif

namespace fs = std::filesystem;

TEST(Platform, PrivateFilesReplacementAndLibraries)
{
    fs::path folder = fresh_temp_folder("platform");
    auto path = [&](const char *name) { return (folder / name).string(); };
    std::string store = path("store");
    ASSERT_TRUE(platform_write_private_file(store, "first version", 13));
    ASSERT_TRUE(platform_complete_file(store));
#if defined(_WIN32)
    EXPECT_TRUE(GetFileAttributesA(store.c_str()) & FILE_ATTRIBUTE_HIDDEN);
#else
    EXPECT_EQ(fs::status(store).permissions() & fs::perms::all, fs::perms::owner_read | fs::perms::owner_write);
#endif
    // A completed (hidden) file can be written again, and shorter.
    ASSERT_TRUE(platform_write_private_file(store, "second", 6));
    EXPECT_EQ(read_file_text(store), "second");
    EXPECT_FALSE(platform_complete_file(path("missing")));

    // A second name for the old file shows what became of its contents.
    std::ofstream(path("new"), std::ios::binary) << "new contents";
    fs::create_hard_link(store, path("old-link"));
    ASSERT_TRUE(platform_replace_file_destroying(path("new"), store));
    EXPECT_EQ(read_file_text(store), "new contents");
    EXPECT_FALSE(platform_file_exists(path("new")));
    EXPECT_EQ(read_file_text(path("old-link")), std::string(6, '\0'));

    // A missing file counts as destroyed.
    EXPECT_TRUE(platform_destroy_file(store));
    EXPECT_FALSE(platform_file_exists(store));
    EXPECT_TRUE(platform_destroy_file(store));
    EXPECT_TRUE(platform_remove_file(store));

    // Appending is what the log file tests do; a missing folder fails.
    EXPECT_FALSE(platform_append_locked(path("no-such-folder/log.txt"), "x"));

    // Loading the crypto module is what every crypto test does; a missing
    // library is reported.
    EXPECT_EQ(platform_load_library(path("no-such-library")), nullptr);
    EXPECT_FALSE(platform_library_error().empty());
    remove_folder(folder);
}
