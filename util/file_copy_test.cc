#include <gtest/gtest.h>
#include <sys/stat.h>

#include <string>

#include "quarry.h"
#include "quarry_internal.h"
#include "tests/support/log_capture.h"

namespace {

using quarry_test::file_exists;
using quarry_test::LogCapture;
using quarry_test::read_file;
using quarry_test::TempDir;

TEST(CopyFile, CopiesBytesExactly) {
  TempDir dir;
  // Larger than one 16384-byte block, with every byte value.
  std::string data;
  for (int i = 0; i < 40000; ++i) data += static_cast<char>(i % 256);
  std::string src = dir.write("src", data);
  EXPECT_EQ(dl_copy_file(src.c_str(), dir.file("dst").c_str()), 0);
  EXPECT_EQ(read_file(dir.file("dst")), data);
}

TEST(CopyFile, TruncatesAnExistingTarget) {
  TempDir dir;
  std::string src = dir.write("src", "new");
  std::string dst = dir.write("dst", "old and longer");
  EXPECT_EQ(dl_copy_file(src.c_str(), dst.c_str()), 0);
  EXPECT_EQ(read_file(dst), "new");
}

TEST(CopyFile, EmptySourceGivesEmptyTarget) {
  TempDir dir;
  std::string src = dir.write("src", "");
  EXPECT_EQ(dl_copy_file(src.c_str(), dir.file("dst").c_str()), 0);
  EXPECT_TRUE(file_exists(dir.file("dst")));
  EXPECT_EQ(read_file(dir.file("dst")), "");
}

TEST(CopyFile, TargetInMissingDirectoryIsLoggedAndNothingCreated) {
  TempDir dir;
  std::string src = dir.write("src", "data");
  LogCapture capture;
  EXPECT_EQ(dl_copy_file(src.c_str(), dir.file("nodir/dst").c_str()), -1);
  EXPECT_TRUE(capture.has(2, 3, "Target file can't open! \n"));
  EXPECT_FALSE(file_exists(dir.file("nodir")));
}

TEST(CopyFile, MissingSourceIsLoggedAndNoTargetCreated) {
  TempDir dir;
  LogCapture capture;
  EXPECT_EQ(dl_copy_file(dir.file("missing").c_str(), dir.file("dst").c_str()), -1);
  EXPECT_TRUE(capture.has(2, 3, "Source file can't open! \n"));
  EXPECT_FALSE(file_exists(dir.file("dst")));
}

TEST(CopyFile, EmptyPathsCannotBeOpened) {
  TempDir dir;
  std::string src = dir.write("src", "x");
  LogCapture capture;
  EXPECT_EQ(dl_copy_file("", dir.file("dst").c_str()), -1);
  EXPECT_EQ(dl_copy_file(src.c_str(), ""), -1);
  EXPECT_TRUE(capture.has(2, 3, "Source file can't open! \n"));
  EXPECT_TRUE(capture.has(2, 3, "Target file can't open! \n"));
}

TEST(CopyFile, FailedWriteStillReturnsZero) {
  TempDir dir;
  std::string src = dir.write("src", std::string(20000, 'x'));
  // Every write to /dev/full fails with ENOSPC.
  EXPECT_EQ(dl_copy_file(src.c_str(), "/dev/full"), 0);
}

TEST(CopyFile, NullArgumentsAreRefusedWithoutLog) {
  TempDir dir;
  std::string src = dir.write("src", "x");
  LogCapture capture;
  EXPECT_EQ(dl_copy_file(nullptr, dir.file("dst").c_str()), -1);
  EXPECT_EQ(dl_copy_file(src.c_str(), nullptr), -1);
  EXPECT_EQ(capture.text(), "");
  EXPECT_FALSE(file_exists(dir.file("dst")));
}

}  // namespace
