#include <gtest/gtest.h>

#include <string>

#include "agent/data_folder.h"
#include "agent/passphrase.h"
#include "pki/cert_store.h"
#include "platform/platform.h"

namespace {

class DataFolderTest : public ::testing::Test {
protected:
    void SetUp() override { saved_ = agent_data_folder(); }
    void TearDown() override { agent_data_folder_set(saved_); }

private:
    std::string saved_;
};

TEST_F(DataFolderTest, TheCertificateStoreFollowsTheDataFolder)
{
    agent_data_folder_set("layers-data");
    EXPECT_EQ(cert_store_folder(), platform_join_path("layers-data", CERT_STORE_FOLDER));
    EXPECT_EQ(cert_store_folder(), agent_data_path(CERT_STORE_FOLDER));
    agent_data_folder_set("other-data");
    EXPECT_EQ(cert_store_folder(), platform_join_path("other-data", CERT_STORE_FOLDER));
}

TEST_F(DataFolderTest, NoDataFolderMeansNoCertificateStore)
{
    agent_data_folder_set("layers-data");
    agent_data_folder_set("");
    EXPECT_EQ(cert_store_folder(), "");
}

TEST_F(DataFolderTest, ReadWholeFileRefusesAnEmptyPathAndAMissingFile)
{
    bool ok = true;
    EXPECT_TRUE(read_whole_file("", &ok).empty());
    EXPECT_FALSE(ok);
    ok = true;
    EXPECT_TRUE(read_whole_file(platform_join_path("layers-no-such-folder", "none"), &ok).empty());
    EXPECT_FALSE(ok);
}

}  // namespace
