#include <gtest/gtest.h>
#include <sys/stat.h>
#include <time.h>
#include <utime.h>

#include <string>

#include "quarry.h"
#include "quarry_internal.h"
#include "tests/support/log_capture.h"

namespace {

using quarry_test::LogCapture;
using quarry_test::TempDir;

TEST(FileSize, GivesTheSizeOfAFile) {
  TempDir dir;
  EXPECT_EQ(dl_get_file_size(dir.write("f", std::string(1234, 'x')).c_str()), 1234);
}

TEST(FileSize, EmptyFileIsZero) {
  TempDir dir;
  EXPECT_EQ(dl_get_file_size(dir.write("f", "").c_str()), 0);
}

TEST(FileSize, MissingFileIsMinusOneWithoutLog) {
  TempDir dir;
  LogCapture capture;
  EXPECT_EQ(dl_get_file_size(dir.file("missing").c_str()), -1);
  EXPECT_EQ(capture.text(), "");
}

TEST(FileSize, EmptyPathIsMinusOne) { EXPECT_EQ(dl_get_file_size(""), -1); }

TEST(FileSize, NullPathIsLogged) {
  LogCapture capture;
  EXPECT_EQ(dl_get_file_size(nullptr), -1);
  EXPECT_TRUE(capture.has(2, 3, "NULL path!\n"));
}

TEST(FileMtime, GivesTheModificationTime) {
  TempDir dir;
  std::string path = dir.write("f", "x");
  struct utimbuf times = {1000000000, 1234567890};
  ASSERT_EQ(utime(path.c_str(), &times), 0);
  time_t mtime = 0;
  EXPECT_EQ(dl_get_file_mtime(path.c_str(), &mtime), 0);
  EXPECT_EQ(mtime, 1234567890);
}

TEST(FileMtime, RefusesBadArgumentsWithoutLog) {
  TempDir dir;
  std::string path = dir.write("f", "x");
  LogCapture capture;
  time_t mtime = 42;
  EXPECT_EQ(dl_get_file_mtime(nullptr, &mtime), -1);
  EXPECT_EQ(dl_get_file_mtime(path.c_str(), nullptr), -1);
  EXPECT_EQ(dl_get_file_mtime("", &mtime), -1);
  EXPECT_EQ(dl_get_file_mtime(dir.file("missing").c_str(), &mtime), -1);
  EXPECT_EQ(mtime, 42);
  EXPECT_EQ(capture.text(), "");
}

TEST(PathIsDirectory, DirectoryIsOne) {
  TempDir dir;
  EXPECT_EQ(dl_path_is_directory(dir.path().c_str()), 1);
}

TEST(PathIsDirectory, FileIsZero) {
  TempDir dir;
  EXPECT_EQ(dl_path_is_directory(dir.write("f", "x").c_str()), 0);
}

TEST(PathIsDirectory, MissingPathIsZero) {
  TempDir dir;
  EXPECT_EQ(dl_path_is_directory(dir.file("missing").c_str()), 0);
  EXPECT_EQ(dl_path_is_directory(""), 0);
}

TEST(PathIsDirectory, NullPathIsLoggedAndZero) {
  LogCapture capture;
  EXPECT_EQ(dl_path_is_directory(nullptr), 0);
  EXPECT_TRUE(capture.has(2, 3, "NULL path!\n"));
}

}  // namespace
