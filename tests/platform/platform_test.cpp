#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <string>

#include "platform/platform.h"
#include "support/environment.h"
#include "support/files.h"

#if defined(_WIN32)
#include <windows.h>
#endif

namespace fs = std::filesystem;

namespace {

class PlatformFiles : public ::testing::Test {
protected:
    void TearDown() override { remove_folder(folder_); }
    std::string path(const char *name) const { return (folder_ / name).string(); }
    void write(const char *name, const std::string &text) const
    {
        std::ofstream(path(name), std::ios::binary) << text;
    }

    fs::path folder_ = fresh_temp_folder("platform");
};

bool is_private(const std::string &path)
{
#if defined(_WIN32)
    DWORD attributes = GetFileAttributesA(path.c_str());
    return attributes != INVALID_FILE_ATTRIBUTES && (attributes & FILE_ATTRIBUTE_HIDDEN);
#else
    return (fs::status(path).permissions() & fs::perms::all) == (fs::perms::owner_read | fs::perms::owner_write);
#endif
}

}  // namespace

TEST_F(PlatformFiles, WriteCompleteAndRewriteACompletedFile)
{
    std::string file = path("store");
    ASSERT_TRUE(platform_write_private_file(file, "first version", 13));
    ASSERT_TRUE(platform_complete_file(file));
    EXPECT_TRUE(is_private(file));
    // A completed (hidden) file can be written again, and shorter.
    ASSERT_TRUE(platform_write_private_file(file, "second", 6));
    EXPECT_EQ(read_file_text(file), "second");
    EXPECT_FALSE(platform_complete_file(path("missing")));
}

TEST_F(PlatformFiles, DestroyRemovesAndAMissingFileCountsAsDestroyed)
{
    write("secret", "key material");
    ASSERT_TRUE(platform_complete_file(path("secret")));
    EXPECT_TRUE(platform_destroy_file(path("secret")));
    EXPECT_FALSE(platform_file_exists(path("secret")));
    EXPECT_TRUE(platform_destroy_file(path("secret")));
    EXPECT_TRUE(platform_remove_file(path("secret")));
}

TEST_F(PlatformFiles, ReplaceTakesTheNameAndTheDestroyingReplaceClearsTheOldContents)
{
    write("new", "new contents");
    write("target", "old contents");
    // A second name for the old file shows what became of its contents.
    fs::create_hard_link(path("target"), path("old-link"));
    ASSERT_TRUE(platform_replace_file_destroying(path("new"), path("target")));
    EXPECT_EQ(read_file_text(path("target")), "new contents");
    EXPECT_FALSE(platform_file_exists(path("new")));
    EXPECT_EQ(read_file_text(path("old-link")), std::string(12, '\0'));
    EXPECT_EQ(std::distance(fs::directory_iterator(folder_), fs::directory_iterator()), 2);

    write("newer", "newest");
    ASSERT_TRUE(platform_replace_file(path("newer"), path("target")));
    EXPECT_EQ(read_file_text(path("target")), "newest");
    EXPECT_FALSE(platform_replace_file(path("newer"), path("target")));
}

TEST_F(PlatformFiles, LockedAppendsAccumulate)
{
    std::string log = path("log.txt");
    ASSERT_TRUE(platform_append_locked(log, "one\n"));
    ASSERT_TRUE(platform_append_locked(log, "two\n"));
    EXPECT_EQ(read_file_text(log), "one\ntwo\n");
    EXPECT_FALSE(platform_append_locked(path("no-such-folder/log.txt"), "x"));
}

TEST(Platform, PolicyValuesComeFromTheirPlace)
{
    unset_environment("TARNWELL_TEST_POLICY");
    EXPECT_FALSE(platform_policy_value("TARNWELL_TEST_POLICY").has_value());
    set_environment("TARNWELL_TEST_POLICY", "1");
    EXPECT_EQ(platform_policy_value("TARNWELL_TEST_POLICY"), "1");
    unset_environment("TARNWELL_TEST_POLICY");
}

TEST(Platform, ProcessFacts)
{
    EXPECT_FALSE(platform_user_name().empty());
    EXPECT_FALSE(platform_host_name().empty());
    LocalTime now = platform_local_time();
    EXPECT_GE(now.year, 2024u);
    EXPECT_TRUE(now.month >= 1 && now.month <= 12 && now.day >= 1 && now.day <= 31);
    EXPECT_LT(now.millisecond, 1000u);
    uint64_t before = platform_tick_count();
    EXPECT_GE(platform_tick_count(), before);

    std::string folder = platform_executable_dir();
    ASSERT_FALSE(folder.empty());
    // It ends with its separator, so joining adds none.
    EXPECT_EQ(platform_join_path(folder, "tAgent"), folder + "tAgent");
    EXPECT_EQ(platform_join_path("", "tAgent"), "tAgent");
    EXPECT_TRUE(fs::is_directory(folder));
}

TEST(Platform, CryptoModuleLoadsWithItsOneExport)
{
    // The tests find the module beside them or by bare name on the run path.
    std::string beside = platform_executable_dir() + platform_crypto_module_file();
    void *module = platform_load_library(beside);
    if (!module)
        module = platform_load_library(platform_crypto_module_file());
    ASSERT_NE(module, nullptr) << platform_library_error();
    EXPECT_NE(platform_library_symbol(module, "GetCryptoApi"), nullptr);
    EXPECT_EQ(platform_library_symbol(module, "NoSuchExport"), nullptr);
    EXPECT_FALSE(platform_library_error().empty());
    EXPECT_EQ(platform_load_library(platform_executable_dir() + "no-such-library"), nullptr);
}
