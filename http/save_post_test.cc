#include <gtest/gtest.h>
#include <limits.h>
#include <string.h>
#include <unistd.h>

#include <string>

#include "http/open_test_support.h"
#include "tests/peer/scripted_peer.h"
#include "tests/support/log_capture.h"

namespace {

using quarry_http_test::count_of;
using quarry_http_test::local_url;
using quarry_http_test::response;
using quarry_test::file_exists;
using quarry_test::read_file;
using quarry_test::read_to_end;
using quarry_test::read_until;
using quarry_test::send_bytes;
using quarry_test::TcpPeer;

constexpr const char *kEnd = quarry_http_test::kHeaderEnd;
using quarry_test::TempDir;

class HttpSavePost : public quarry_http_test::ExchangeTest {
 protected:
  TempDir dir_;
};

TEST_F(HttpSavePost, BodyOfExactlyTheMaximumSizeIsSaved) {
  set_number(DL_OPT_MAX_FILE_SIZE, 8);
  TcpPeer peer;
  serve(&peer, response("200 OK", "", "12345678"));
  use_url(local_url(peer.port(), "/f"));
  const std::string path = dir_.file("out.bin");
  EXPECT_EQ(dl_http_recv_to_file(&param_, path.c_str(), redirect_, &err_), 0);
  EXPECT_EQ(err_.code, 0);
  EXPECT_EQ(read_file(path), "12345678");
  EXPECT_TRUE(capture_->has(3, 5, "recv : 8 bytes\n"));
}

TEST_F(HttpSavePost, OneByteOverTheMaximumSizeFailsWithoutAFile) {
  set_number(DL_OPT_MAX_FILE_SIZE, 8);
  TcpPeer peer;
  serve(&peer, response("200 OK", "", "123456789"));
  use_url(local_url(peer.port(), "/f"));
  const std::string path = dir_.file("out.bin");
  EXPECT_EQ(dl_http_recv_to_file(&param_, path.c_str(), redirect_, &err_), -1);
  EXPECT_EQ(err_.code, DL_ERR_MAX_SIZE);
  EXPECT_STREQ(err_.msg, "exceed max size 8");
  EXPECT_FALSE(file_exists(path));
  EXPECT_TRUE(capture_->has(3, 3, "exceed max size\n"));
}

TEST_F(HttpSavePost, WithoutAPathTheUrlNamesTheFileInTheCurrentDirectory) {
  TcpPeer peer;
  serve(&peer, response("200 OK", "", "data"));
  use_url(local_url(peer.port(), "/dir/x.bin"));
  char here[PATH_MAX];
  ASSERT_NE(getcwd(here, sizeof(here)), nullptr);
  ASSERT_EQ(chdir(dir_.path().c_str()), 0);
  const int ret = dl_http_recv_to_file(&param_, nullptr, redirect_, &err_);
  ASSERT_EQ(chdir(here), 0);
  EXPECT_EQ(ret, 0);
  EXPECT_EQ(read_file(dir_.file("x.bin")), "data");
}

TEST_F(HttpSavePost, FailedOpenLeavesNoFile) {
  TcpPeer peer;
  serve(&peer, response("404 Not Found", "", "gone"));
  use_url(local_url(peer.port(), "/f"));
  const std::string path = dir_.file("out.bin");
  EXPECT_EQ(dl_http_recv_to_file(&param_, path.c_str(), redirect_, &err_), -1);
  EXPECT_EQ(err_.code, 404);
  EXPECT_FALSE(file_exists(path));
}

TEST_F(HttpSavePost, BodyThatStopsComingLeavesNoFile) {
  TcpPeer peer;
  peer.add({read_until(kEnd), send_bytes("HTTP/1.1 200 OK\r\nContent-Length: 10\r\n\r\nabc"),
            read_to_end()});
  peer.start();
  use_url(local_url(peer.port(), "/f"));
  const std::string path = dir_.file("out.bin");
  EXPECT_EQ(dl_http_recv_to_file(&param_, path.c_str(), redirect_, &err_), -1);
  EXPECT_LT(err_.code, 0);
  EXPECT_FALSE(file_exists(path));
}

TEST_F(HttpSavePost, UnwritablePathIsReportedAndNothingRemoved) {
  TcpPeer peer;
  serve(&peer, response("200 OK", "", "data"));
  use_url(local_url(peer.port(), "/f"));
  EXPECT_EQ(dl_http_recv_to_file(&param_, dir_.path().c_str(), redirect_, &err_), -1);
  EXPECT_EQ(err_.code, 0);
  EXPECT_TRUE(capture_->has(3, 3, "Can't open " + dir_.path() + "\n"));
  EXPECT_EQ(access(dir_.path().c_str(), F_OK), 0);
}

TEST_F(HttpSavePost, SaveWithModeKeepsTheChallengeBody) {
  TcpPeer peer;
  serve(&peer, response("401 Unauthorized", "WWW-Authenticate: Basic realm=\"r\"\r\n", "deny"));
  use_url(local_url(peer.port(), "/f"));
  dl_http_param_ex ex = {&param_, DL_EX_NO_TRY_AUTH};
  const std::string path = dir_.file("out.bin");
  EXPECT_EQ(dl_http_recv_to_file_ex(&ex, path.c_str(), redirect_, &err_), 0);
  EXPECT_EQ(err_.code, 401);
  EXPECT_EQ(read_file(path), "deny");
}

TEST_F(HttpSavePost, PostFileSendsTheFileAndMarksSuccess) {
  TcpPeer peer;
  peer.add({read_until("payload"), send_bytes(response("200 OK", "", "")), read_to_end()});
  peer.start();
  use_url(local_url(peer.port(), "/up"));
  param_.type = DL_HTTP_PUT;
  param_.headers = const_cast<char *>("X-Kind: test\r\n");
  const std::string file = dir_.write("f.txt", "payload");
  EXPECT_EQ(dl_http_post_file(&conn_, &param_, file.c_str(), redirect_, &err_), 0);
  ASSERT_NE(conn_, nullptr);
  EXPECT_EQ(conn_->magic, 0);
  dl_http_close(conn_);  // the mark is harmless to close
  conn_ = nullptr;
  peer.wait();
  const std::string got = peer.received(0);
  EXPECT_EQ(got.rfind("PUT /up HTTP/1.1\r\n", 0), 0u);
  EXPECT_NE(got.find("\r\n\r\npayload"), std::string::npos);
  EXPECT_TRUE(capture_->has(3, 6, "send request\n"));
}

TEST_F(HttpSavePost, PostFileClientErrorFails) {
  TcpPeer peer;
  peer.add({read_until("payload"), send_bytes(response("403 Forbidden", "", "")), read_to_end()});
  peer.start();
  use_url(local_url(peer.port(), "/up"));
  param_.type = DL_HTTP_POST;
  param_.headers = const_cast<char *>("X-Kind: test\r\n");
  const std::string file = dir_.write("f.txt", "payload");
  EXPECT_EQ(dl_http_post_file(&conn_, &param_, file.c_str(), redirect_, &err_), -1);
  EXPECT_EQ(conn_, nullptr);
  EXPECT_EQ(err_.code, 403);
  EXPECT_TRUE(capture_->has(3, 3, "Client error\n"));
}

TEST_F(HttpSavePost, PostFileRefusesGetAndDeleteBeforeConnecting) {
  TcpPeer peer;
  peer.start();
  use_url(local_url(peer.port(), "/up"));
  const std::string file = dir_.write("f.txt", "payload");
  for (int type : {DL_HTTP_GET, DL_HTTP_DELETE}) {
    param_.type = type;
    EXPECT_EQ(dl_http_post_file(&conn_, &param_, file.c_str(), redirect_, &err_), -1);
    EXPECT_EQ(err_.code, DL_ERR_PARAM);
  }
  EXPECT_EQ(peer.connections(), 0u);
  EXPECT_TRUE(capture_->has(3, 3, "http post file with invalid parameter\n"));
}

TEST_F(HttpSavePost, PostFileRefusesMissingArguments) {
  use_url("http://127.0.0.1:1/up");
  param_.type = DL_HTTP_POST;
  EXPECT_EQ(dl_http_post_file(&conn_, &param_, nullptr, redirect_, &err_), -1);
  EXPECT_EQ(err_.code, DL_ERR_PARAM);
  EXPECT_EQ(dl_http_post_file(nullptr, &param_, "f", redirect_, &err_), -1);
  EXPECT_EQ(dl_http_post_file(&conn_, nullptr, "f", redirect_, &err_), -1);
  EXPECT_EQ(dl_http_post_file(&conn_, &param_, "f", nullptr, &err_), -1);
  EXPECT_EQ(dl_http_post_file(&conn_, &param_, "f", redirect_, nullptr), -1);
  EXPECT_EQ(dl_http_post_multi_auth(&conn_, nullptr, nullptr, 0, redirect_, &err_), -1);
  EXPECT_EQ(dl_http_post_multi_auth(&conn_, &param_, nullptr, 0, redirect_, nullptr), -1);
  param_.type = DL_HTTP_PUT;
  EXPECT_EQ(dl_http_post_multi_auth(&conn_, &param_, nullptr, 0, redirect_, &err_), -1);
  EXPECT_EQ(err_.code, DL_ERR_PARAM);
}

TEST_F(HttpSavePost, MultiAuthWithAnEmptyListIsRefused) {
  TcpPeer peer;
  peer.start();
  use_url(local_url(peer.port(), "/up"));
  param_.type = DL_HTTP_POST;
  dl_http_cred creds[1] = {{const_cast<char *>("u"), const_cast<char *>("p")}};
  EXPECT_EQ(dl_http_post_multi_auth(&conn_, &param_, creds, 0, redirect_, &err_), -1);
  EXPECT_EQ(err_.code, DL_ERR_PARAM);
  EXPECT_EQ(conn_, nullptr);
  EXPECT_TRUE(capture_->has(3, 3, "auth info count nonpositive\n"));
  EXPECT_EQ(peer.connections(), 0u);
}

TEST_F(HttpSavePost, MultiAuthAnswersWithTheSecondPair) {
  TcpPeer peer;
  peer.add({read_until("body"),
            send_bytes(response("401 Unauthorized", "WWW-Authenticate: Basic realm=\"r\"\r\n", "")),
            read_until("body"), send_bytes(response("200 OK", "", "yes")), read_to_end()});
  peer.start();
  use_url(local_url(peer.port(), "/up"));
  param_.type = DL_HTTP_POST;
  param_.body = const_cast<char *>("body");
  dl_http_cred creds[2] = {{const_cast<char *>("first"), const_cast<char *>("one")},
                           {const_cast<char *>("user"), const_cast<char *>("pass")}};
  ASSERT_EQ(dl_http_post_multi_auth(&conn_, &param_, creds, 2, redirect_, &err_), 0);
  ASSERT_NE(conn_, nullptr);
  char buf[8];
  EXPECT_EQ(dl_http_read(conn_, buf, sizeof(buf), &err_), 3);
  dl_http_close(conn_);
  conn_ = nullptr;
  peer.wait();
  const std::string got = peer.received(0);
  EXPECT_NE(got.find("Authorization: Basic dXNlcjpwYXNz\r\n"), std::string::npos);
  EXPECT_EQ(got.find("Authorization: Basic Zmlyc3Q6b25l"), std::string::npos);
}

TEST_F(HttpSavePost, MultiAuthFailsOnceThePairsAreUsedUp) {
  const std::string challenge =
      response("401 Unauthorized", "WWW-Authenticate: Basic realm=\"r\"\r\n", "");
  TcpPeer peer;
  peer.add({read_until("body"), send_bytes(challenge), read_until("body"), send_bytes(challenge),
            read_to_end()});
  peer.start();
  use_url(local_url(peer.port(), "/up"));
  param_.type = DL_HTTP_POST;
  param_.body = const_cast<char *>("body");
  dl_http_cred creds[2] = {{const_cast<char *>("first"), const_cast<char *>("one")},
                           {const_cast<char *>("user"), const_cast<char *>("pass")}};
  EXPECT_EQ(dl_http_post_multi_auth(&conn_, &param_, creds, 2, redirect_, &err_), -1);
  EXPECT_EQ(err_.code, DL_ERR_AUTH);
  EXPECT_TRUE(capture_->has(3, 3, "handler response error\n"));
}

TEST_F(HttpSavePost, SaveRefusesMissingArguments) {
  EXPECT_EQ(dl_http_recv_to_file(nullptr, "f", redirect_, &err_), -1);
  EXPECT_EQ(err_.code, DL_ERR_PARAM);
  EXPECT_EQ(dl_http_recv_to_file_ex(nullptr, "f", redirect_, &err_), -1);
  EXPECT_EQ(err_.code, DL_ERR_PARAM);
  dl_http_param_ex ex = {nullptr, DL_EX_NONE};
  EXPECT_EQ(dl_http_recv_to_file_ex(&ex, "f", redirect_, &err_), -1);
  EXPECT_EQ(dl_http_recv_to_file(&param_, "f", redirect_, nullptr), -1);
}

TEST_F(HttpSavePost, WithoutAPathAUrlEndingInASlashNamesNoFile) {
  TcpPeer peer;
  serve(&peer, response("200 OK", "", "data"));
  use_url(local_url(peer.port(), "/dir/"));
  char here[PATH_MAX];
  ASSERT_NE(getcwd(here, sizeof(here)), nullptr);
  ASSERT_EQ(chdir(dir_.path().c_str()), 0);
  const int ret = dl_http_recv_to_file(&param_, nullptr, redirect_, &err_);
  ASSERT_EQ(chdir(here), 0);
  EXPECT_EQ(ret, -1);
  EXPECT_TRUE(capture_->has(3, 3, "Can't open \n"));
}

TEST_F(HttpSavePost, MultiAuthWithoutAListUsesTheUrlCredentials) {
  TcpPeer peer;
  peer.add({read_until("body"),
            send_bytes(response("401 Unauthorized", "WWW-Authenticate: Basic realm=\"r\"\r\n", "")),
            read_until("body"), send_bytes(response("200 OK", "", "")), read_to_end()});
  peer.start();
  use_url(local_url(peer.port(), "/up"));
  param_.type = DL_HTTP_POST;
  param_.body = const_cast<char *>("body");
  param_.user = const_cast<char *>("user");
  param_.password = const_cast<char *>("pass");
  ASSERT_EQ(dl_http_post_multi_auth(&conn_, &param_, nullptr, 0, redirect_, &err_), 0);
  dl_http_close(conn_);
  conn_ = nullptr;
  peer.wait();
  EXPECT_NE(peer.received(0).find("Authorization: Basic dXNlcjpwYXNz\r\n"), std::string::npos);
}

}  // namespace
