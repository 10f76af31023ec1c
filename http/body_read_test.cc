#include <gtest/gtest.h>

#include <string>

#include "http/http_test_support.h"
#include "tests/peer/scripted_peer.h"
#include "tests/support/log_capture.h"
#include "tests/support/syscall_spy.h"

namespace {

using quarry_http_test::connect_loopback;
using quarry_http_test::Handle;
using quarry_http_test::PairedHandle;
using quarry_test::reset_conn;
using quarry_test::send_bytes;
using quarry_test::sleep_ms;
using quarry_test::TcpPeer;

class BodyRead : public quarry_http_test::HttpTest {
 protected:
  // Plays a whole response on |handle| and reads its head.
  void head(const PairedHandle &handle, const std::string &response) {
    handle.say(response);
    int status = http_read_status(handle.get());
    ASSERT_GT(status, 0);
    ASSERT_EQ(quarry::http_read_headers(handle.get(), status, &block_size_), 0);
  }
  // Connects |handle| to |peer|, which sends |response| and then resets
  // the connection, and reads the head.
  void head_then_reset(TcpPeer *peer, const Handle &handle, const std::string &response) {
    peer->add({send_bytes(response), sleep_ms(100), reset_conn()});
    peer->start();
    handle->sock = connect_loopback(peer->port());
    ASSERT_GT(handle->sock, 0);
    ASSERT_EQ(http_read_status(handle.get()), 200);
    ASSERT_EQ(quarry::http_read_headers(handle.get(), 200, &block_size_), 0);
  }
  // Reads the body in pieces of |piece| until 0 or -1; -1 ends with "!".
  std::string body(dl_http_conn *conn, int piece) {
    std::string out;
    char buf[4096];
    for (;;) {
      int n = dl_http_read(conn, buf, piece, &err_);
      if (n < 0) return out + "!";
      if (n == 0) return out;
      out.append(buf, static_cast<size_t>(n));
    }
  }

  PairedHandle handle_;
  dl_error err_ = {};
  uint32_t block_size_ = quarry::kHeaderBlockStart;
};

TEST_F(BodyRead, LengthBodyEndsAtItsLengthAndLeavesTheRestUnread) {
  head(handle_, "HTTP/1.1 200 OK\r\nContent-Length: 10\r\n\r\n0123456789NEXT");
  char buf[64];
  EXPECT_EQ(dl_http_read(handle_.get(), buf, sizeof(buf), &err_), 10);
  EXPECT_EQ(std::string(buf, 10), "0123456789");
  EXPECT_EQ(handle_->remaining, 0u);
  EXPECT_EQ(dl_http_read(handle_.get(), buf, sizeof(buf), &err_), 0);
  EXPECT_EQ(handle_.unread(), 4u);
}

TEST_F(BodyRead, PipelinedResponsesKeepTheirBoundaries) {
  handle_.say(
      "HTTP/1.1 200 OK\r\nContent-Length: 5\r\n\r\nfirst"
      "HTTP/1.1 201 Created\r\nTransfer-Encoding: chunked\r\n\r\n6\r\nsecond\r\n0\r\n\r\n"
      "HTTP/1.1 202 Accepted\r\nContent-Length: 5\r\n\r\nthird");
  head(handle_, "");
  EXPECT_EQ(body(handle_.get(), 64), "first");
  ASSERT_EQ(http_read_status(handle_.get()), 201);
  ASSERT_EQ(quarry::http_read_headers(handle_.get(), 201, &block_size_), 0);
  EXPECT_EQ(body(handle_.get(), 64), "second");
  http_drain(handle_.get());
  ASSERT_EQ(http_read_status(handle_.get()), 202);
  ASSERT_EQ(quarry::http_read_headers(handle_.get(), 202, &block_size_), 0);
  EXPECT_EQ(body(handle_.get(), 2), "third");
  EXPECT_EQ(handle_.unread(), 0u);
}

TEST_F(BodyRead, WholeResponseAlreadyThereIsReadWithoutWaiting) {
  handle_.say("HTTP/1.1 200 OK\r\nContent-Length: 4\r\nServer: x\r\n\r\nbody");
  quarry_test::SyscallSpy spy;
  head(handle_, "");
  EXPECT_EQ(body(handle_.get(), 64), "body");
  EXPECT_EQ(spy.wait_calls(), 0);
}

TEST_F(BodyRead, ReplyToARequestIsWaitedForBeforeItIsReceived) {
  ASSERT_EQ(http_write(handle_.get(), "GET / HTTP/1.1\r\n\r\n", 18), 0);
  handle_.say("HTTP/1.1 200 OK\r\nContent-Length: 2\r\n\r\nok");
  quarry_test::SyscallSpy spy;
  head(handle_, "");
  EXPECT_EQ(body(handle_.get(), 64), "ok");
  // One wait before the status line's receive; the rest comes from the
  // buffer.
  EXPECT_EQ(spy.wait_calls(), 1);
  EXPECT_EQ(handle_.heard(18), "GET / HTTP/1.1\r\n\r\n");
}

TEST_F(BodyRead, RequestBehindABufferedReplyReadsItWithoutWaiting) {
  handle_.say(
      "HTTP/1.1 200 OK\r\nContent-Length: 5\r\n\r\nfirst"
      "HTTP/1.1 202 Accepted\r\nContent-Length: 6\r\n\r\nsecond");
  head(handle_, "");
  EXPECT_EQ(body(handle_.get(), 64), "first");
  quarry_test::SyscallSpy spy;
  ASSERT_EQ(http_write(handle_.get(), "GET /2 HTTP/1.1\r\n\r\n", 20), 0);
  ASSERT_EQ(http_read_status(handle_.get()), 202);
  ASSERT_EQ(quarry::http_read_headers(handle_.get(), 202, &block_size_), 0);
  EXPECT_EQ(body(handle_.get(), 64), "second");
  EXPECT_EQ(spy.wait_calls(), 0);
}

TEST_F(BodyRead, LengthBodyInSmallPieces) {
  head(handle_, "HTTP/1.1 200 OK\r\nContent-Length: 10\r\n\r\n0123456789");
  EXPECT_EQ(body(handle_.get(), 3), "0123456789");
}

TEST_F(BodyRead, ZeroLengthBodyIsEmptyAtOnce) {
  head(handle_, "HTTP/1.1 204 No Content\r\nContent-Length: 0\r\n\r\n");
  char buf[4];
  EXPECT_EQ(dl_http_read(handle_.get(), buf, sizeof(buf), &err_), 0);
}

TEST_F(BodyRead, BodyWithoutLengthRunsUntilThePeerCloses) {
  head(handle_, "HTTP/1.0 200 OK\r\n\r\nuntil the end");
  handle_.close_peer();
  EXPECT_EQ(body(handle_.get(), 5), "until the end");
}

TEST_F(BodyRead, BodyWithoutLengthStopsAtTheMaximumSize) {
  set_number(DL_OPT_MAX_FILE_SIZE, 8);
  head(handle_, "HTTP/1.0 200 OK\r\n\r\n0123456789abcdef");
  EXPECT_EQ(body(handle_.get(), 64), "01234567");
  EXPECT_EQ(handle_.unread(), 8u);
}

TEST_F(BodyRead, LengthBodyCutShortByTheCloseIsARecvError) {
  head(handle_, "HTTP/1.1 200 OK\r\nContent-Length: 100\r\n\r\nshort");
  handle_.close_peer();
  EXPECT_EQ(body(handle_.get(), 64), "!");
  EXPECT_EQ(err_.code, DL_ERR_RECV);
  EXPECT_STREQ(err_.msg, "Recv invalid data");
  EXPECT_EQ(capture_->count(3, 3, "read error\n"), 1);
}

TEST_F(BodyRead, LengthBodyOneByteShortIsARecvErrorAfterWhatCame) {
  head(handle_, "HTTP/1.1 200 OK\r\nContent-Length: 10\r\n\r\n012345678");
  char buf[4];
  EXPECT_EQ(dl_http_read(handle_.get(), buf, sizeof(buf), &err_), 4);
  EXPECT_EQ(dl_http_read(handle_.get(), buf, sizeof(buf), &err_), 4);
  handle_.close_peer();
  EXPECT_EQ(dl_http_read(handle_.get(), buf, sizeof(buf), &err_), -1);
  EXPECT_EQ(err_.code, DL_ERR_RECV);
  EXPECT_TRUE(capture_->has(3, 3, "read error\n"));
}

TEST_F(BodyRead, ServerResettingMidBodyIsAReadError) {
  TcpPeer peer;
  Handle handle;
  head_then_reset(&peer, handle, "HTTP/1.1 200 OK\r\nContent-Length: 100\r\n\r\npart");
  // The call that meets the reset fails as a whole, with what it had read.
  EXPECT_EQ(body(handle.get(), 64), "!");
  EXPECT_EQ(err_.code, -1);
  EXPECT_STREQ(err_.msg, "Unknown Error");
  EXPECT_TRUE(capture_->has(3, 3, "read error\n"));
  peer.wait();
}

TEST_F(BodyRead, SilentServerIsAReadErrorWithItsCode) {
  head(handle_, "HTTP/1.1 200 OK\r\nContent-Length: 5\r\n\r\n");
  char buf[8];
  EXPECT_EQ(dl_http_read(handle_.get(), buf, sizeof(buf), &err_), -1);
  EXPECT_EQ(err_.code, DL_ERR_READ);
  EXPECT_STREQ(err_.msg, "Read Error");
  EXPECT_TRUE(capture_->has(3, 3, "read error\n"));
}

TEST_F(BodyRead, ChunkSizesInEitherCaseWithExtensionsAreHexadecimal) {
  const std::string a(26, 'a'), b(26, 'b');
  head(handle_,
       "HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n"
       "1a;name=value\r\n" +
           a + "\r\n1A;x\r\n" + b + "\r\n0\r\n\r\n");
  EXPECT_EQ(body(handle_.get(), 4096), a + b);
  EXPECT_EQ(handle_.unread(), 0u);
}

TEST_F(BodyRead, ChunkedBodyInSmallPieces) {
  head(handle_,
       "HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n"
       "5\r\nhello\r\n1\r\n \r\n5\r\nworld\r\n0\r\n\r\n");
  EXPECT_EQ(body(handle_.get(), 3), "hello world");
}

TEST_F(BodyRead, AfterTheLastChunkBufferedBytesComeOutThenZero) {
  head(handle_,
       "HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n"
       "a\r\n0123456789\r\n0\r\n\r\nHTTP/1.1 200 OK\r\n");
  char buf[16] = {};
  EXPECT_EQ(dl_http_read(handle_.get(), buf, 4, &err_), 4);
  EXPECT_EQ(std::string(buf, 4), "0123");
  ASSERT_NE(handle_->chunk, nullptr);
  EXPECT_EQ(dl_http_read(handle_.get(), buf, 4, &err_), 4);
  EXPECT_EQ(std::string(buf, 4), "4567");
  EXPECT_EQ(dl_http_read(handle_.get(), buf, 4, &err_), 2);
  EXPECT_EQ(std::string(buf, 2), "89");
  EXPECT_EQ(dl_http_read(handle_.get(), buf, 4, &err_), 0);
  EXPECT_EQ(dl_http_read(handle_.get(), buf, 4, &err_), 0);
  EXPECT_EQ(handle_.unread(), strlen("HTTP/1.1 200 OK\r\n"));
}

TEST_F(BodyRead, LastChunkWithTheStreamClosedRightAfterEndsTheBody) {
  head(handle_, "HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n3\r\nabc\r\n0\r\n");
  handle_.close_peer();
  EXPECT_EQ(body(handle_.get(), 64), "abc");
}

// Bodies the peer cuts short: each read fails with DL_ERR_RECV once the
// close is met, and what came before it was handed out in full pieces.
class ChunkedCut : public BodyRead {
 protected:
  void expect_cut(const std::string &chunks, const std::string &before) {
    head(handle_, "HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n" + chunks);
    handle_.close_peer();
    EXPECT_EQ(body(handle_.get(), 2), before + "!");
    EXPECT_EQ(err_.code, DL_ERR_RECV);
    EXPECT_STREQ(err_.msg, "Recv invalid data");
    EXPECT_EQ(capture_->count(3, 3, "read chunked error\n"), 1);
  }
};

TEST_F(ChunkedCut, InsideAChunk) { expect_cut("10\r\nabcde", "abcd"); }

TEST_F(ChunkedCut, InTheCrlfAfterAChunk) { expect_cut("4\r\nabcd\r", "ab"); }

TEST_F(ChunkedCut, BeforeTheCrlfAfterAChunk) { expect_cut("4\r\nabcd", "ab"); }

TEST_F(ChunkedCut, BeforeTheZeroChunk) { expect_cut("2\r\nok\r\n", "ok"); }

TEST_F(ChunkedCut, InsideAChunkSizeLine) { expect_cut("2\r\nok\r\n1", "ok"); }

TEST_F(ChunkedCut, BeforeAnyChunk) { expect_cut("", ""); }

TEST_F(BodyRead, ChunkLargerThanTheCallerAsksForStreams) {
  const std::string data(5000, 'z');
  head(handle_, "HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n1388\r\n" + data +
                    "\r\n0\r\n\r\n");
  char buf[512];
  EXPECT_EQ(dl_http_read(handle_.get(), buf, sizeof(buf), &err_), 512);
  // Nothing beyond the caller's piece was taken from the stream.
  EXPECT_EQ(handle_.unread(), 5000u - 512u + strlen("\r\n0\r\n\r\n"));
  EXPECT_EQ(body(handle_.get(), 512), std::string(5000 - 512, 'z'));
}

TEST_F(BodyRead, HugeAnnouncedChunkAllocatesNothingForIt) {
  head(handle_, "HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n7ffffff0\r\nabc");
  char buf[3];
  EXPECT_EQ(dl_http_read(handle_.get(), buf, sizeof(buf), &err_), 3);
  ASSERT_NE(handle_->chunk, nullptr);
  EXPECT_EQ(handle_->chunk->data, nullptr);
  EXPECT_EQ(handle_->chunk->capacity, 0u);
  EXPECT_EQ(handle_->chunk->fill, 0x7ffffff0u - 3u);
}

TEST_F(BodyRead, ManySmallChunksComeOutInFullPieces) {
  std::string chunks, expected;
  for (int i = 0; i < 2000; ++i) {
    chunks += "1\r\n" + std::string(1, static_cast<char>('a' + i % 26)) + "\r\n";
    expected += static_cast<char>('a' + i % 26);
  }
  PairedHandle handle;
  head(handle, "HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n" + chunks + "0\r\n\r\n");
  char buf[512];
  EXPECT_EQ(dl_http_read(handle.get(), buf, sizeof(buf), &err_), 512);
  EXPECT_EQ(std::string(buf, 512), expected.substr(0, 512));
  EXPECT_EQ(body(handle.get(), 512), expected.substr(512));
}

TEST_F(BodyRead, NegativeChunkSizeIsInvalidData) {
  head(handle_, "HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n-5\r\nabc");
  char buf[16];
  EXPECT_EQ(dl_http_read(handle_.get(), buf, sizeof(buf), &err_), -1);
  EXPECT_EQ(err_.code, DL_ERR_RECV);
  EXPECT_STREQ(err_.msg, "Recv invalid data");
  EXPECT_TRUE(capture_->has(3, 3, "invalid chunk size: -5\n"));
  EXPECT_TRUE(capture_->has(3, 3, "read chunked error\n"));
}

TEST_F(BodyRead, HugeChunkSizeIsInvalidData) {
  for (const char *size : {"FFFFFFFF", "7FFFFFFE", "FFFFFFFFFFFFFFFFFFFF"}) {
    PairedHandle handle;
    head(handle,
         std::string("HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n") + size + "\r\nabc");
    char buf[16];
    EXPECT_EQ(dl_http_read(handle.get(), buf, sizeof(buf), &err_), -1) << size;
    EXPECT_EQ(err_.code, DL_ERR_RECV) << size;
  }
}

TEST_F(BodyRead, OverlongChunkSizeLineIsAReadError) {
  head(handle_, "HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n" + std::string(200, '0') +
                    "1\r\nx\r\n");
  char buf[16];
  EXPECT_EQ(dl_http_read(handle_.get(), buf, sizeof(buf), &err_), -1);
  EXPECT_EQ(err_.code, DL_ERR_READ);
  EXPECT_TRUE(capture_->has(3, 3, "Buffer not enough! buffer len 128\n"));
  EXPECT_TRUE(capture_->has(3, 3, "read chunked len error\n"));
  EXPECT_TRUE(capture_->has(3, 3, "read chunked error\n"));
}

TEST_F(BodyRead, SilentServerAfterTheLastChunkIsAnError) {
  head(handle_, "HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n0\r\n");
  char buf[16];
  EXPECT_EQ(dl_http_read(handle_.get(), buf, sizeof(buf), &err_), -1);
  EXPECT_EQ(err_.code, DL_ERR_READ);
  EXPECT_TRUE(capture_->has(3, 3, "read last EOL error\n"));
  EXPECT_TRUE(capture_->has(3, 3, "read chunked error\n"));
}

TEST_F(BodyRead, ServerResettingMidChunkIsAReadError) {
  TcpPeer peer;
  Handle handle;
  head_then_reset(&peer, handle,
                  "HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n100\r\npart");
  char buf[64];
  EXPECT_EQ(dl_http_read(handle.get(), buf, sizeof(buf), &err_), -1);
  EXPECT_EQ(err_.code, -1);
  EXPECT_STREQ(err_.msg, "Unknown Error");
  EXPECT_EQ(capture_->count(3, 3, "read chunked error\n"), 1);
  peer.wait();
}

TEST_F(BodyRead, TracingLogsTheBody) {
  set_number(DL_OPT_DATA_TRACE, 2);
  head(handle_, "HTTP/1.1 200 OK\r\nContent-Length: 7\r\n\r\npayload");
  EXPECT_EQ(body(handle_.get(), 64), "payload");
  EXPECT_TRUE(capture_->has(3, 3, "payload\n"));
}

TEST_F(BodyRead, RefusesBadArguments) {
  char buf[4];
  dl_http_conn dead = {};
  Handle unconnected;
  EXPECT_EQ(dl_http_read(nullptr, buf, 4, &err_), -1);
  EXPECT_EQ(err_.code, DL_ERR_PARAM);
  EXPECT_STREQ(err_.msg, "Invalid Parameter");
  err_ = {};
  EXPECT_EQ(dl_http_read(handle_.get(), nullptr, 4, &err_), -1);
  EXPECT_EQ(err_.code, DL_ERR_PARAM);
  EXPECT_EQ(dl_http_read(handle_.get(), buf, 4, nullptr), -1);
  err_ = {};
  EXPECT_EQ(dl_http_read(&dead, buf, 4, &err_), -1);
  EXPECT_EQ(err_.code, DL_ERR_PARAM);
  err_ = {};
  EXPECT_EQ(dl_http_read(unconnected.get(), buf, 4, &err_), -1);
  EXPECT_EQ(err_.code, DL_ERR_PARAM);
  err_ = {};
  EXPECT_EQ(dl_http_read(handle_.get(), buf, -1, &err_), -1);
  EXPECT_EQ(err_.code, DL_ERR_PARAM);
  EXPECT_EQ(capture_->count(3, 3, "http read with invalid parameter\n"), 6);
}

class Drain : public BodyRead {};

TEST_F(Drain, DiscardsTheRestOfALengthBody) {
  head(handle_, "HTTP/1.1 401 No\r\nContent-Length: 6\r\n\r\nsecretHTTP/1.1 200 OK\r\n");
  http_drain(handle_.get());
  EXPECT_EQ(handle_.unread(), strlen("HTTP/1.1 200 OK\r\n"));
}

TEST_F(Drain, DiscardsAChunkedBodyAndFreesTheBuffer) {
  head(handle_,
       "HTTP/1.1 401 No\r\nTransfer-Encoding: chunked\r\n\r\n"
       "3\r\nabc\r\n0\r\n\r\nNEXT");
  http_drain(handle_.get());
  EXPECT_EQ(handle_->chunk, nullptr);
  EXPECT_EQ(handle_.unread(), 4u);
}

TEST_F(Drain, TracedBodyReachesTheLog) {
  set_number(DL_OPT_DATA_TRACE, 2);
  head(handle_, "HTTP/1.1 500 Err\r\nContent-Length: 9\r\n\r\nwhy: oops");
  http_drain(handle_.get());
  EXPECT_TRUE(capture_->has(3, 3, "why: oops\n"));
}

TEST_F(Drain, IgnoresADeadHandle) {
  dl_http_conn dead = {};
  http_drain(nullptr);
  http_drain(&dead);
  EXPECT_EQ(capture_->count(3, 3, "http drain with invalid parameter\n"), 2);
}

}  // namespace
