#include <gtest/gtest.h>

#include <string>

#include "http/http_test_support.h"
#include "tests/peer/scripted_peer.h"
#include "tests/support/log_capture.h"

namespace {

using quarry_http_test::connect_loopback;
using quarry_http_test::Handle;
using quarry_http_test::PairedHandle;
using quarry_test::close_conn;
using quarry_test::send_bytes;
using quarry_test::sleep_ms;
using quarry_test::TcpPeer;

class LineRead : public quarry_http_test::HttpTest {
 protected:
  int header_line() { return http_read_line(handle_.get(), 256, 2048, out_, sizeof(out_)); }

  PairedHandle handle_;
  char out_[2048] = {};
};

TEST_F(LineRead, TakesTheLineAndLeavesWhatFollowsUnread) {
  handle_.say("HTTP/1.1 200 OK\r\nBODY");
  EXPECT_EQ(header_line(), 15);
  EXPECT_STREQ(out_, "HTTP/1.1 200 OK");
  EXPECT_EQ(handle_.unread(), 4u);
}

TEST_F(LineRead, ConsecutiveLinesComeOneByOne) {
  handle_.say("a: 1\r\nbb: 2\r\n\r\nrest");
  EXPECT_EQ(header_line(), 4);
  EXPECT_STREQ(out_, "a: 1");
  EXPECT_EQ(header_line(), 5);
  EXPECT_STREQ(out_, "bb: 2");
  EXPECT_EQ(header_line(), 0);
  EXPECT_STREQ(out_, "");
  EXPECT_EQ(handle_.unread(), 4u);
}

TEST_F(LineRead, LineArrivingInPiecesIsJoined) {
  TcpPeer peer;
  peer.add({send_bytes("HTTP/1.1 2"), sleep_ms(50), send_bytes("00 OK\r"), sleep_ms(50),
            send_bytes("\nX"), sleep_ms(200), close_conn()});
  peer.start();
  Handle handle;
  handle->sock = connect_loopback(peer.port());
  ASSERT_GT(handle->sock, 0);
  EXPECT_EQ(http_read_line(handle.get(), 256, 2048, out_, sizeof(out_)), 15);
  EXPECT_STREQ(out_, "HTTP/1.1 200 OK");
  char rest[8] = {};
  EXPECT_EQ(http_recv(handle.get(), rest, sizeof(rest)), 1);
  EXPECT_STREQ(rest, "X");
  peer.wait();
}

TEST_F(LineRead, LineLongerThanTheFirstBufferGrowsIt) {
  std::string value(1500, 'v');
  handle_.say("x-long: " + value + "\r\nnext");
  EXPECT_EQ(header_line(), 1508);
  EXPECT_EQ(std::string(out_), "x-long: " + value);
  EXPECT_EQ(handle_.unread(), 4u);
}

TEST_F(LineRead, LineOf2046CharactersWithItsLineEndFits) {
  std::string line(2044, 'h');
  handle_.say(line + "\r\n");
  EXPECT_EQ(header_line(), 2044);
  EXPECT_EQ(std::string(out_), line);
}

TEST_F(LineRead, LineOf2047CharactersWithItsLineEndIsTooLong) {
  handle_.say(std::string(2045, 'h') + "\r\n");
  EXPECT_EQ(header_line(), DL_ERR_READ);
  EXPECT_TRUE(capture_->has(3, 3, "Buffer not enough! buffer len 2048\n"));
}

TEST_F(LineRead, EndlessLineIsTooLong) {
  handle_.say(std::string(5000, 'h'));
  EXPECT_EQ(header_line(), DL_ERR_READ);
  EXPECT_TRUE(capture_->has(3, 3, "Buffer not enough! buffer len 2048\n"));
}

TEST_F(LineRead, ChunkSizeLineBoundsAre128) {
  handle_.say(std::string(124, '1') + "\r\n" + std::string(125, '1') + "\r\n");
  char line[128];
  EXPECT_EQ(http_read_line(handle_.get(), 128, 256, line, sizeof(line)), 124);
  EXPECT_EQ(http_read_line(handle_.get(), 128, 256, line, sizeof(line)), DL_ERR_READ);
  EXPECT_TRUE(capture_->has(3, 3, "Buffer not enough! buffer len 128\n"));
}

TEST_F(LineRead, ClosedBeforeAnyByteGivesZero) {
  handle_.close_peer();
  EXPECT_EQ(header_line(), 0);
}

TEST_F(LineRead, ClosedInsideALineGivesWhatCame) {
  handle_.say("HTTP/1.1 200");
  handle_.close_peer();
  EXPECT_EQ(header_line(), 12);
  EXPECT_STREQ(out_, "HTTP/1.1 200");
}

TEST_F(LineRead, CarriageReturnAloneDoesNotEndALine) {
  handle_.say("a\rb\r\n");
  EXPECT_EQ(header_line(), 3);
  EXPECT_STREQ(out_, "a\rb");
}

TEST_F(LineRead, NulInsideALineDoesNotHideItsEnd) {
  handle_.say(std::string("ab\0c\r\nX", 7));
  EXPECT_EQ(header_line(), 4);
  EXPECT_EQ(std::string(out_, 4), std::string("ab\0c", 4));
  EXPECT_EQ(handle_.unread(), 1u);
}

TEST_F(LineRead, SilentServerTimesOut) {
  EXPECT_EQ(header_line(), DL_ERR_READ);
  EXPECT_TRUE(capture_->mentions("Select error! errno "));
  EXPECT_TRUE(capture_->has(3, 3, "Peek error!\n"));
}

TEST_F(LineRead, TlsWithoutSessionFails) {
  handle_->flags |= DL_HTTP_TLS;
  handle_.say("line\r\n");
  EXPECT_EQ(header_line(), DL_ERR_READ);
  EXPECT_TRUE(capture_->has(3, 3, "context ssl is null\n"));
  EXPECT_TRUE(capture_->has(3, 3, "Peek error!\n"));
}

TEST_F(LineRead, RefusesBadArguments) {
  dl_http_conn dead = {};
  EXPECT_EQ(http_read_line(nullptr, 256, 2048, out_, 2048), DL_ERR_PARAM);
  EXPECT_EQ(http_read_line(&dead, 256, 2048, out_, 2048), DL_ERR_PARAM);
  EXPECT_EQ(http_read_line(handle_.get(), 256, 2048, nullptr, 2048), DL_ERR_PARAM);
  EXPECT_EQ(http_read_line(handle_.get(), 1, 2048, out_, 2048), DL_ERR_PARAM);
  EXPECT_EQ(http_read_line(handle_.get(), 256, 128, out_, 2048), DL_ERR_PARAM);
  EXPECT_EQ(http_read_line(handle_.get(), 256, 2048, out_, 0), DL_ERR_PARAM);
  EXPECT_EQ(capture_->count(3, 3, "http read line with invalid parameter\n"), 6);
}

class Recv : public LineRead {};

TEST_F(Recv, ReadsWhatIsThere) {
  handle_.say("abcdef");
  char buf[16] = {};
  EXPECT_EQ(http_recv(handle_.get(), buf, 4), 4);
  EXPECT_STREQ(buf, "abcd");
}

TEST_F(Recv, EndOfStreamIsZero) {
  handle_.close_peer();
  char buf[4];
  EXPECT_EQ(http_recv(handle_.get(), buf, sizeof(buf)), 0);
}

TEST_F(Recv, SilentServerIsAReadError) {
  char buf[4];
  EXPECT_EQ(http_recv(handle_.get(), buf, sizeof(buf)), DL_ERR_READ);
  EXPECT_TRUE(capture_->mentions("Select error! errno "));
}

TEST_F(Recv, TlsWithoutSessionIsAReadError) {
  handle_->flags |= DL_HTTP_TLS;
  char buf[4];
  EXPECT_EQ(http_recv(handle_.get(), buf, sizeof(buf)), DL_ERR_READ);
  EXPECT_TRUE(capture_->has(3, 3, "context ssl is null\n"));
}

TEST_F(Recv, RefusesBadArguments) {
  char buf[4];
  EXPECT_EQ(http_recv(handle_.get(), nullptr, 4), -1);
  EXPECT_EQ(http_recv(nullptr, buf, 4), -1);
  EXPECT_EQ(http_recv(handle_.get(), buf, -1), -1);
  EXPECT_EQ(capture_->count(3, 3, "http recv with invalid parameter\n"), 3);
}

}  // namespace
