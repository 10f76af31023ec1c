#include <gtest/gtest.h>
#include <sys/stat.h>

#include <string>

#include "http/http_test_support.h"
#include "tests/support/log_capture.h"

namespace {

using quarry_http_test::Request;
using quarry_test::TempDir;

class SetBody : public quarry_http_test::HttpTest {
 protected:
  // A request of |type| with the borrowed texts set as make_request sets
  // them.
  void prepare(int type, const char *extra, const char *text, const char *path) {
    ASSERT_EQ(http_set_request_line(req_.get(), type, "/up"), 0);
    req_->extra = extra;
    req_->body->text = text;
    req_->body->path = path;
  }
  std::string head() const { return std::string(req_->body->head, req_->body->head_len); }
  std::string tail() const {
    return std::string(req_->body->tail, static_cast<size_t>(req_->body->tail_len));
  }

  Request req_;
  TempDir dir_;
};

const char kMultipartExtra[] = "Content-Type: multipart/form-data; boundary=XyZ\r\nX-Other: 1\r\n";

TEST_F(SetBody, TextBecomesTheHead) {
  prepare(DL_HTTP_POST, nullptr, "name=value", nullptr);
  EXPECT_EQ(http_set_body(req_.get()), 0);
  EXPECT_EQ(head(), "name=value");
  EXPECT_EQ(req_->body->total, 10);
  EXPECT_EQ(req_->body->file, nullptr);
  EXPECT_EQ(req_->body->tail, nullptr);
}

TEST_F(SetBody, NothingToSendIsNoBody) {
  prepare(DL_HTTP_GET, "X: 1\r\n", nullptr, nullptr);
  EXPECT_EQ(http_set_body(req_.get()), 0);
  EXPECT_EQ(req_->body->head, nullptr);
  EXPECT_EQ(req_->body->total, 0);
}

TEST_F(SetBody, TextAndFileTogetherAreRefused) {
  std::string path = dir_.write("a.cfg", "data");
  prepare(DL_HTTP_POST, "X: 1\r\n", "text", path.c_str());
  EXPECT_EQ(http_set_body(req_.get()), DL_ERR_PARAM);
  EXPECT_TRUE(capture_->has(3, 3, "body & post file or without addtion header\n"));
  EXPECT_EQ(req_->body->head, nullptr);
}

TEST_F(SetBody, FileWithoutExtraHeaderTextIsRefused) {
  std::string path = dir_.write("a.cfg", "data");
  prepare(DL_HTTP_POST, nullptr, nullptr, path.c_str());
  EXPECT_EQ(http_set_body(req_.get()), DL_ERR_PARAM);
  EXPECT_TRUE(capture_->has(3, 3, "body & post file or without addtion header\n"));
  EXPECT_EQ(req_->body->file, nullptr);
}

TEST_F(SetBody, PutSendsTheFileAsItIs) {
  std::string path = dir_.write("fw.rom", std::string(3000, 'r'));
  prepare(DL_HTTP_PUT, "X: 1\r\n", nullptr, path.c_str());
  EXPECT_EQ(http_set_body(req_.get()), 0);
  EXPECT_NE(req_->body->file, nullptr);
  EXPECT_EQ(req_->body->head, nullptr);
  EXPECT_EQ(req_->body->total, 3000);
}

TEST_F(SetBody, PutOfAMissingFileIsRefused) {
  prepare(DL_HTTP_PUT, "X: 1\r\n", nullptr, "/no/such/file");
  EXPECT_EQ(http_set_body(req_.get()), DL_ERR_PARAM);
  EXPECT_TRUE(capture_->has(3, 3, "Open file for set body fail\n"));
}

TEST_F(SetBody, PutOfADirectoryIsRefused) {
  prepare(DL_HTTP_PUT, "X: 1\r\n", nullptr, dir_.path().c_str());
  EXPECT_EQ(http_set_body(req_.get()), DL_ERR_PARAM);
  EXPECT_TRUE(capture_->has(3, 3, "Open file for set body fail\n"));
  EXPECT_EQ(req_->body->file, nullptr);
}

TEST_F(SetBody, GetAndDeleteIgnoreTheFile) {
  std::string path = dir_.write("a.cfg", "data");
  for (int type : {DL_HTTP_GET, DL_HTTP_DELETE}) {
    prepare(type, "X: 1\r\n", nullptr, path.c_str());
    EXPECT_EQ(http_set_body(req_.get()), 0);
    EXPECT_EQ(req_->body->file, nullptr);
    EXPECT_EQ(req_->body->total, 0);
  }
}

TEST_F(SetBody, PostWithoutBoundarySendsTheRawFile) {
  std::string path = dir_.write("raw.bin", std::string(700, 'x'));
  prepare(DL_HTTP_POST, "Content-Type: application/octet-stream\r\n", nullptr, path.c_str());
  EXPECT_EQ(http_set_body(req_.get()), 0);
  EXPECT_TRUE(capture_->has(3, 3, "post file without boundary\n"));
  EXPECT_NE(req_->body->head, nullptr);
  EXPECT_EQ(req_->body->head_len, 0u);
  EXPECT_NE(req_->body->file, nullptr);
  EXPECT_EQ(req_->body->total, 700);
}

TEST_F(SetBody, PostWithBoundaryFramesTheFileAsOneFormPart) {
  ASSERT_EQ(mkdir(dir_.file("a").c_str(), 0700), 0);
  std::string path = dir_.write("a/b.cfg", "key=1\n");
  prepare(DL_HTTP_POST, kMultipartExtra, nullptr, path.c_str());
  EXPECT_EQ(http_set_body(req_.get()), 0);
  EXPECT_TRUE(capture_->has(3, 3, "post file with boundary\n"));
  const std::string preamble =
      "--XyZ\r\n"
      "Content-Disposition: form-data; name=\"upload\"; filename=\"b.cfg\"\r\n"
      "Content-Type: application/octet-stream\r\n"
      "Content-Transfer-Encoding: binary\r\n"
      "\r\n";
  EXPECT_EQ(head(), preamble);
  EXPECT_EQ(tail(), "\r\n--XyZ--\r\n");
  EXPECT_EQ(req_->body->total, static_cast<int32_t>(preamble.size() + 6 + 11));
}

TEST_F(SetBody, PathWithoutSlashIsItsOwnFileName) {
  std::string cwd_name = "quarry-body-test.cfg";
  FILE *f = fopen(cwd_name.c_str(), "wb");
  ASSERT_NE(f, nullptr);
  fclose(f);
  prepare(DL_HTTP_POST, kMultipartExtra, nullptr, cwd_name.c_str());
  EXPECT_EQ(http_set_body(req_.get()), 0);
  EXPECT_NE(head().find("filename=\"quarry-body-test.cfg\""), std::string::npos);
  unlink(cwd_name.c_str());
}

TEST_F(SetBody, BoundaryWithoutLineEndIsRefusedAndTheFileClosed) {
  std::string path = dir_.write("b.cfg", "x");
  prepare(DL_HTTP_POST, "Content-Type: multipart/form-data; boundary=XyZ", nullptr, path.c_str());
  EXPECT_EQ(http_set_body(req_.get()), DL_ERR_PARAM);
  EXPECT_TRUE(capture_->has(3, 3, "post file with boundary\n"));
  EXPECT_TRUE(capture_->has(3, 3, "header without CRLF\n"));
  EXPECT_EQ(req_->body->file, nullptr);
  EXPECT_EQ(req_->body->head, nullptr);
}

TEST_F(SetBody, OverlongBoundaryIsCutToItsBlock) {
  std::string extra =
      "Content-Type: multipart/form-data; boundary=" + std::string(600, 'b') + "\r\n";
  std::string path = dir_.write("b.cfg", "x");
  prepare(DL_HTTP_POST, extra.c_str(), nullptr, path.c_str());
  EXPECT_EQ(http_set_body(req_.get()), 0);
  // "--" and 509 characters of the boundary fill the 512-byte line.
  EXPECT_EQ(head().substr(0, 513), "--" + std::string(509, 'b') + "\r\n");
  EXPECT_EQ(req_->body->tail_len, 511);
  EXPECT_EQ(req_->body->total, static_cast<int32_t>(req_->body->head_len) + 1 + 511);
}

TEST_F(SetBody, PreparingTwiceKeepsOnlyTheSecondBody) {
  prepare(DL_HTTP_POST, nullptr, "first", nullptr);
  ASSERT_EQ(http_set_body(req_.get()), 0);
  req_->body->text = "second!";
  ASSERT_EQ(http_set_body(req_.get()), 0);
  EXPECT_EQ(head(), "second!");
  EXPECT_EQ(req_->body->total, 7);
}

TEST_F(SetBody, WithoutARequestOrItsLineIsRefused) {
  EXPECT_EQ(http_set_body(nullptr), DL_ERR_PARAM);
  EXPECT_EQ(http_set_body(req_.get()), DL_ERR_PARAM);
  EXPECT_EQ(capture_->count(3, 3, "http set body with invalid parameter\n"), 2);
}

}  // namespace
