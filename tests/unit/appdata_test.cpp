#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <string>

#include "common_app_data.h"
#include "dirops.h"
#include "mdirtools.h"
#include "errtrace_match.h"
#include "mtrace.h"
#include "tempdir.h"

namespace {

/* Every test points ORVIK_CONFIGPATH into its own temporary folder (or clears
 * it only with create=false), so nothing is made below the real /var/opt. */
class AppDataTest : public testing::Test {
protected:
    void SetUp() override
    {
        const char* old = getenv("ORVIK_CONFIGPATH");
        had_ = old != nullptr;
        old_ = had_ ? old : "";
        setenv("ORVIK_CONFIGPATH", dir.path().c_str(), 1);
        MErrTrace_ClearContext();
    }
    void TearDown() override
    {
        if (had_)
            setenv("ORVIK_CONFIGPATH", old_.c_str(), 1);
        else
            unsetenv("ORVIK_CONFIGPATH");
        MErrTrace_ClearContext();
    }

    vt::TempDir dir;

private:
    bool had_ = false;
    std::string old_;
};

TEST_F(AppDataTest, ProductFolderFollowsTheRootAndIsCreated)
{
    std::string folder;
    ASSERT_TRUE(orvik::GetCommonAppDataFolderProduct(&folder, "Orvik", "vela", true));
    EXPECT_EQ(dir.path() + "/Orvik/vela/", folder);
    EXPECT_TRUE(dir_exists((dir.path() + "/Orvik/vela").c_str()));
    ASSERT_TRUE(orvik::GetCommonAppDataFolderProduct(&folder, "Orvik", "vela", true)); /* exists: fine */

    setenv("ORVIK_CONFIGPATH", (dir.path() + "/").c_str(), 1);
    ASSERT_TRUE(orvik::GetCommonAppDataFolderProduct(&folder, nullptr, "solo", true));
    EXPECT_EQ(dir.path() + "//solo/", folder);
    EXPECT_TRUE(dir_exists((dir.path() + "/solo").c_str()));

    EXPECT_FALSE(orvik::GetCommonAppDataFolderProduct(&folder, "Orvik", "", false));
    EXPECT_FALSE(orvik::GetCommonAppDataFolderProduct(&folder, "Orvik", nullptr, false));
    EXPECT_TRUE(trace_has("GetCommonAppDataFolderForProduct(): no company name"));

    /* the default root, only as text */
    unsetenv("ORVIK_CONFIGPATH");
    ASSERT_TRUE(orvik::GetCommonAppDataFolder(&folder));
    EXPECT_EQ("/var/opt/", folder);
    ASSERT_TRUE(orvik::GetCommonAppDataFolderProduct(&folder, "Orvik", "vela", false));
    EXPECT_EQ("/var/opt//Orvik/vela/", folder);
    setenv("ORVIK_CONFIGPATH", "", 1);
    ASSERT_TRUE(orvik::GetCommonAppDataFolderProduct(&folder, "Orvik", "vela", false));
    EXPECT_EQ("/var/opt//Orvik/vela/", folder);
}

TEST_F(AppDataTest, CFormsCopyOnlyWhatFitsWithItsTerminator)
{
    /* root + "/Orvik/" + product + "/" is exactly 255 characters */
    std::string product(255 - dir.path().size() - 8, 'p');
    char buf[300];
    memset(buf, '!', sizeof buf);
    ASSERT_TRUE(GetCommonAppDataFolderProduct(buf, 256, "Orvik", product.c_str(), false));
    EXPECT_EQ(dir.path() + "/Orvik/" + product + "/", buf);
    EXPECT_EQ(255u, strlen(buf));

    product += 'p';
    memset(buf, '!', sizeof buf);
    EXPECT_FALSE(GetCommonAppDataFolderProduct(buf, 256, "Orvik", product.c_str(), false));
    EXPECT_TRUE(trace_has("GetCommonAppDataFolderProduct(): folder name too long (256 <= 256)"));
    EXPECT_EQ('!', buf[0]);
}

TEST_F(AppDataTest, DirectoryCreationWalksAbsolutePathsOnly)
{
    std::string folder;
    setenv("ORVIK_CONFIGPATH", "relative/cfg", 1);
    EXPECT_FALSE(orvik::GetCommonAppDataFolderProduct(&folder, "Orvik", "vela", true));
    EXPECT_TRUE(trace_has("createDirectoryRecursive(): Sorry, relative path not supported"));
    EXPECT_TRUE(trace_has("GetCommonAppDataFolderForProduct createDirectoryRecursive(relative/cfg/Orvik/vela/) failed"));
    EXPECT_FALSE(dir_exists("relative"));

    EXPECT_TRUE(orvik::createDirectoryRecursive((dir.path() + "//a///b/").c_str()));
    EXPECT_TRUE(dir_exists((dir.path() + "/a/b").c_str()));

    std::string file = dir.file("plain");
    vt::write_file(file, "x");
    MErrTrace_ClearContext();
    EXPECT_FALSE(orvik::createDirectoryRecursive((file + "/sub").c_str()));
    EXPECT_TRUE(trace_has("createDirectoryRecursive(): dir_mk(" + file + ") failed"));
    EXPECT_TRUE(trace_has("createDirectoryRecursive(): system error: [17] \"File exists\""));
}

} // namespace
