// Release files under a temporary install root, and version comparison against known answers.
#include <ksutils/releaseutl.h>

#include <gtest/gtest.h>

#include "kstest.h"

namespace {

TEST(ReleaseInfo, FilesUnderTheInstallRoot) {
    kstest::InstallRoot root;
    EXPECT_EQ("0", ks::get_patch_version()) << "no patch file";
    EXPECT_EQ("2.0.0.0", ks::get_release_version());
    ks::info_map info;
    EXPECT_FALSE(ks::load_setup_info(info));

    ASSERT_TRUE(kstest::write_file(root / "kestrum-release",
                                   "# comment\n\nVERSION=3.1.4\nversion\n=x\nBuild.Date=a=b \nname=old\nName=new\n"));
    ASSERT_TRUE(ks::load_release_info(info));
    EXPECT_EQ((ks::info_map{{"version", "3.1.4"}, {"", "x"}, {"build.date", "a=b "}, {"name", "new"}}), info);
    EXPECT_EQ("3.1.4", ks::get_release_version());

    ASSERT_EQ(0, kstest::run("mkdir -p '" + (root / "patches/latest") + "' '" + (root / "share/data") + "'"));
    ASSERT_TRUE(kstest::write_file(root / "patches/latest/patch.info", "version=17\n"));
    ASSERT_TRUE(kstest::write_file(root / "share/data/setup_version", "version\n"));
    EXPECT_EQ("17", ks::get_patch_version());
    EXPECT_TRUE(ks::load_setup_info(info));
}

TEST(Versions, CompareAndCloudForm) {
    const struct {
        const char *a, *b;
        int expected;
    } cases[] = {{"1.10", "1.9", 1}, {"2", "10", -1},    {"1.2", "1.2.0", -1}, {"1.0", "1.00", -1}, {"1.2.3", "1.2.3", 0},
                 {"", "", 0},        {"", "0", -1},      {"1.a", "1.0", 1},    {"3.x.1", "3.0.2", -1}, {"1..2", "1.0.2", -1},
                 // Components are truncated to 32 bits: this one reads as 1, and then the longer text wins.
                 {"-1", "0", -1},    {"4294967297", "1", 1}};
    for (const auto& c : cases) EXPECT_EQ(c.expected, ks::compare_versions(c.a, c.b)) << c.a << " vs " << c.b;
    for (const auto& [text, cloud] : std::vector<std::pair<const char*, const char*>>{
             {"1.2.3-4~beta", "1.2.3.4"}, {"7-1", "7.1"}, {"", ""}, {"~x", ""}, {"a-b-c", "a.b.c"}})
        EXPECT_EQ(cloud, ks::extract_cloud_version(text)) << text;
}

}  // namespace
