#include <gtest/gtest.h>

#include <string>

#include "quarry.h"
#include "tests/support/log_capture.h"
#include "transfer/transfer.h"

namespace {

using quarry_test::LogCapture;

TEST(PathIsFile, TrueForTextNotEndingInSlash) {
  EXPECT_EQ(path_is_file("/cfg/x.cfg"), 1);
  EXPECT_EQ(path_is_file("/cfg"), 1);
  EXPECT_EQ(path_is_file("a"), 1);
}

TEST(PathIsFile, FalseForSlashEndEmptyAndNull) {
  EXPECT_EQ(path_is_file("/cfg/"), 0);
  EXPECT_EQ(path_is_file("/"), 0);
  EXPECT_EQ(path_is_file(""), 0);
  EXPECT_EQ(path_is_file(nullptr), 0);
}

TEST(PathIsUpgradeCfgFile, TrueWhenADotStandsAnywhere) {
  EXPECT_EQ(path_is_upgrade_cfg_file("/cfg/x.cfg"), 1);
  EXPECT_EQ(path_is_upgrade_cfg_file("/v1.2/upload"), 1);
  EXPECT_EQ(path_is_upgrade_cfg_file("."), 1);
}

TEST(PathIsUpgradeCfgFile, FalseWithoutDotEmptyAndNull) {
  EXPECT_EQ(path_is_upgrade_cfg_file("/cfg/upload"), 0);
  EXPECT_EQ(path_is_upgrade_cfg_file(""), 0);
  EXPECT_EQ(path_is_upgrade_cfg_file(nullptr), 0);
}

std::string target_of(const char *url_path, const char *remote, const char *local) {
  char target[512];
  quarry::upload_target(url_path, remote, local, target, sizeof(target));
  return target;
}

TEST(UploadTarget, FileInUrlKeepsItsDirectoryAndTakesLocalName) {
  EXPECT_EQ(target_of("/cfg/x.cfg", "", "/home/a.cfg"), "/cfg/a.cfg");
  EXPECT_EQ(target_of("/cfg/x.cfg", nullptr, "/home/a.cfg"), "/cfg/a.cfg");
}

TEST(UploadTarget, DirectoryWithSlashTakesLocalName) {
  EXPECT_EQ(target_of("/cfg/", "", "/home/a.cfg"), "/cfg/a.cfg");
}

TEST(UploadTarget, DirectoryWithoutSlashOrDotIsGluedWithoutSeparator) {
  EXPECT_EQ(target_of("/cfg", "", "/home/a.cfg"), "/cfga.cfg");
}

TEST(UploadTarget, RemoteNameWinsOverLocalName) {
  EXPECT_EQ(target_of("/cfg/", "new.cfg", "/home/a.cfg"), "/cfg/new.cfg");
}

TEST(UploadTarget, LocalNameWithoutSlashIsTakenWhole) {
  EXPECT_EQ(target_of("/up/", "", "plain.bin"), "/up/plain.bin");
}

TEST(UploadTarget, LogsThePathBeforeCutting) {
  LogCapture capture;
  target_of("/cfg/x.cfg", "", "/home/a.cfg");
  EXPECT_TRUE(capture.has(2, 6, "Uplaod path without filename is /cfg/x.cfg \n"));
}

TEST(UploadTarget, IsBoundedTo511Characters) {
  std::string long_path = "/" + std::string(600, 'd') + "/";
  char target[512];
  quarry::upload_target(long_path.c_str(), "", "/home/a.cfg", target, sizeof(target));
  EXPECT_EQ(strlen(target), 511u);
}

TEST(FtpLogin, UrlLoginOverridesRequestAndFillsGapsFromIt) {
  dl_request req = {};
  req.user = const_cast<char *>("req-user");
  req.password = const_cast<char *>("req-pass");
  dl_url_parts parts = {};
  quarry::FtpLogin none = quarry::ftp_login(&req, parts);
  EXPECT_STREQ(none.user, "req-user");
  EXPECT_STREQ(none.password, "req-pass");
  parts.user = const_cast<char *>("url-user");
  quarry::FtpLogin user_only = quarry::ftp_login(&req, parts);
  EXPECT_STREQ(user_only.user, "url-user");
  EXPECT_STREQ(user_only.password, "req-pass");
  parts.password = const_cast<char *>("");
  quarry::FtpLogin both = quarry::ftp_login(&req, parts);
  EXPECT_STREQ(both.password, "");
}

TEST(FtpLogin, LogLineMasksThePassword) {
  LogCapture capture;
  quarry::log_ftp_login({"alice", "s3cret"});
  EXPECT_TRUE(capture.has(2, 6, "FTP Login Info:uername=alice passwd=******\n"));
  EXPECT_FALSE(capture.mentions("s3cret"));
}

}  // namespace
