#include <gtest/gtest.h>

#include <string>

#include "http/http_test_support.h"
#include "tests/support/log_capture.h"

namespace {

using quarry_http_test::PairedHandle;

class ResponseHead : public quarry_http_test::HttpTest {
 protected:
  // Plays |head| and reads status line and header block.
  int read_head(const std::string &head) {
    handle_.say(head);
    int status = http_read_status(handle_.get());
    if (status < 0) return status;
    int ret = quarry::http_read_headers(handle_.get(), status, &block_size_);
    return ret < 0 ? ret : status;
  }
  // The block's lines, each followed by "|".
  std::string block() const {
    std::string out;
    for (const char *line = handle_->headers; line && *line; line += strlen(line) + 1) {
      out += std::string(line) + "|";
    }
    return out;
  }

  PairedHandle handle_;
  uint32_t block_size_ = quarry::kHeaderBlockStart;
};

TEST_F(ResponseHead, StatusOfVersion11SetsTheFlag) {
  handle_.say("HTTP/1.1 200 OK\r\n");
  EXPECT_EQ(http_read_status(handle_.get()), 200);
  EXPECT_TRUE(handle_->flags & DL_HTTP_11);
}

TEST_F(ResponseHead, StatusOfVersion10LeavesTheFlagClear) {
  handle_.say("HTTP/1.0 404 Not Found\r\n");
  EXPECT_EQ(http_read_status(handle_.get()), 404);
  EXPECT_FALSE(handle_->flags & DL_HTTP_11);
}

TEST_F(ResponseHead, StatusOfVersion2IsInvalid) {
  handle_.say("HTTP/2 200\r\n");
  EXPECT_EQ(http_read_status(handle_.get()), DL_ERR_RECV);
  EXPECT_TRUE(capture_->has(3, 3, "status line error: HTTP/2 200\n"));
}

TEST_F(ResponseHead, GarbageStatusIsInvalid) {
  handle_.say("SSH-2.0-OpenSSH_9.2\r\n");
  EXPECT_EQ(http_read_status(handle_.get()), DL_ERR_RECV);
}

TEST_F(ResponseHead, StatusWithoutCodeIsInvalid) {
  handle_.say("HTTP/1.1 OK\r\n");
  EXPECT_EQ(http_read_status(handle_.get()), DL_ERR_RECV);
}

TEST_F(ResponseHead, NegativeStatusIsInvalid) {
  handle_.say("HTTP/1.1 -20 Odd\r\n");
  EXPECT_EQ(http_read_status(handle_.get()), DL_ERR_RECV);
}

TEST_F(ResponseHead, ClosedConnectionIsAnInvalidStatus) {
  handle_.close_peer();
  EXPECT_EQ(http_read_status(handle_.get()), DL_ERR_RECV);
}

TEST_F(ResponseHead, StatusReadsAtMostThreeDigits) {
  handle_.say("HTTP/1.1 2001 Odd\r\n");
  EXPECT_EQ(http_read_status(handle_.get()), 200);
}

TEST_F(ResponseHead, TooLongStatusLineIsAReadError) {
  handle_.say("HTTP/1.1 200 " + std::string(3000, 'O') + "\r\n");
  EXPECT_EQ(http_read_status(handle_.get()), DL_ERR_READ);
  EXPECT_TRUE(capture_->has(3, 3, "Buffer not enough! buffer len 2048\n"));
}

TEST_F(ResponseHead, StatusRefusesADeadHandle) {
  dl_http_conn dead = {};
  EXPECT_EQ(http_read_status(nullptr), DL_ERR_PARAM);
  EXPECT_EQ(http_read_status(&dead), DL_ERR_PARAM);
  EXPECT_EQ(capture_->count(3, 3, "http read status with invalid parameter\n"), 2);
}

TEST_F(ResponseHead, HeaderNamesAreLoweredAndValuesKept) {
  EXPECT_EQ(read_head("HTTP/1.1 200 OK\r\nContent-Type: Text/XML; Charset=UTF-8\r\n"
                      "X-Mixed-CASE:ABC: Def\r\n\r\nbody"),
            200);
  EXPECT_EQ(block(), "content-type: Text/XML; Charset=UTF-8|x-mixed-case:ABC: Def|");
  EXPECT_EQ(handle_->headers_len, strlen("content-type: Text/XML; Charset=UTF-8") + 1 +
                                      strlen("x-mixed-case:ABC: Def") + 1);
  EXPECT_EQ(handle_.unread(), 4u);
  EXPECT_TRUE(capture_->has(3, 5, "response code: 200\n"));
}

TEST_F(ResponseHead, HeaderLineOf2047CharactersWithItsLineEndFails) {
  EXPECT_EQ(read_head("HTTP/1.1 200 OK\r\nx-big: " + std::string(2045 - 7, 'v') + "\r\n\r\n"),
            DL_ERR_READ);
  EXPECT_TRUE(capture_->has(3, 3, "Buffer not enough! buffer len 2048\n"));
}

TEST_F(ResponseHead, HeaderLineOf2046CharactersWithItsLineEndFits) {
  EXPECT_EQ(read_head("HTTP/1.1 200 OK\r\nx-big: " + std::string(2044 - 7, 'v') + "\r\n\r\n"), 200);
  EXPECT_EQ(strlen(handle_->headers), 2044u);
}

TEST_F(ResponseHead, BlockDoublesAndKeepsItsSizeForTheNextResponse) {
  std::string head = "HTTP/1.1 200 OK\r\n";
  for (int i = 0; i < 40; ++i)
    head += "x-h" + std::to_string(i) + ": " + std::string(90, 'a') + "\r\n";
  EXPECT_EQ(read_head(head + "\r\n"), 200);
  EXPECT_EQ(block_size_, 8192u);
  EXPECT_NE(http_find_header(handle_->headers, "x-h39"), nullptr);
  EXPECT_EQ(read_head("HTTP/1.1 204 No Content\r\nA: b\r\n\r\n"), 204);
  EXPECT_EQ(block_size_, 8192u);
  EXPECT_EQ(block(), "a: b|");
}

TEST_F(ResponseHead, ContentLengthSetsTheRemainingBytes) {
  EXPECT_EQ(read_head("HTTP/1.1 200 OK\r\nContent-Length: 1234\r\n\r\n"), 200);
  EXPECT_TRUE(handle_->flags & DL_HTTP_HAS_LENGTH);
  EXPECT_FALSE(handle_->flags & DL_HTTP_CHUNKED);
  EXPECT_EQ(handle_->remaining, 1234u);
  EXPECT_TRUE(capture_->has(3, 3, "Content-Length: 1234\n"));
}

TEST_F(ResponseHead, UnreadableContentLengthCountsAsZero) {
  EXPECT_EQ(read_head("HTTP/1.1 200 OK\r\nContent-Length: many\r\n\r\n"), 200);
  EXPECT_TRUE(handle_->flags & DL_HTTP_HAS_LENGTH);
  EXPECT_EQ(handle_->remaining, 0u);
}

TEST_F(ResponseHead, WithoutLengthTheBodyMayReachTheMaximumSize) {
  set_number(DL_OPT_MAX_FILE_SIZE, 5000);
  EXPECT_EQ(read_head("HTTP/1.0 200 OK\r\n\r\n"), 200);
  EXPECT_FALSE(handle_->flags & DL_HTTP_HAS_LENGTH);
  EXPECT_EQ(handle_->remaining, 5000u);
}

TEST_F(ResponseHead, ChunkedEncodingIsNoticed) {
  EXPECT_EQ(read_head("HTTP/1.1 200 OK\r\nTransfer-Encoding: gzip, chunked\r\n\r\n"), 200);
  EXPECT_TRUE(handle_->flags & DL_HTTP_CHUNKED);
  EXPECT_TRUE(capture_->has(3, 3, "Chunked Encoding\n"));
}

TEST_F(ResponseHead, FramingFlagsAreClearedForEachResponse) {
  EXPECT_EQ(read_head("HTTP/1.1 401 No\r\nTransfer-Encoding: chunked\r\nContent-Length: 1\r\n\r\n"),
            401);
  EXPECT_EQ(read_head("HTTP/1.1 200 OK\r\n\r\n"), 200);
  EXPECT_FALSE(handle_->flags & (DL_HTTP_CHUNKED | DL_HTTP_HAS_LENGTH));
}

TEST_F(ResponseHead, ConnectionCloseInAnyCaseMarksTheEnd) {
  EXPECT_EQ(read_head("HTTP/1.1 200 OK\r\nConnection: Close\r\n\r\n"), 200);
  EXPECT_TRUE(handle_->flags & DL_HTTP_CLOSE);
  EXPECT_TRUE(capture_->has(3, 3, "connection: close\n"));
}

TEST_F(ResponseHead, ConnectionWithoutSpaceIsNotRecognisedAsClose) {
  EXPECT_EQ(read_head("HTTP/1.1 200 OK\r\nConnection:close\r\n\r\n"), 200);
  EXPECT_FALSE(handle_->flags & DL_HTTP_CLOSE);
  EXPECT_FALSE(capture_->mentions("connection: close"));
}

TEST_F(ResponseHead, Http10WithoutConnectionHeaderStaysReusable) {
  EXPECT_EQ(read_head("HTTP/1.0 200 OK\r\nContent-Length: 0\r\n\r\n"), 200);
  EXPECT_FALSE(handle_->flags & DL_HTTP_CLOSE);
}

TEST_F(ResponseHead, Http10WithKeepAliveStaysReusable) {
  EXPECT_EQ(read_head("HTTP/1.0 200 OK\r\nConnection: Keep-Alive\r\n\r\n"), 200);
  EXPECT_FALSE(handle_->flags & DL_HTTP_CLOSE);
}

TEST_F(ResponseHead, Http10WithOtherConnectionValueCloses) {
  EXPECT_EQ(read_head("HTTP/1.0 200 OK\r\nConnection: upgrade\r\n\r\n"), 200);
  EXPECT_TRUE(handle_->flags & DL_HTTP_CLOSE);
  EXPECT_TRUE(capture_->has(3, 3, "connectiong without keep-alive\n"));
}

TEST_F(ResponseHead, EmptyConnectionHeaderIsReadAsAnEmptyValue) {
  EXPECT_EQ(read_head("HTTP/1.0 200 OK\r\nConnection:\r\n\r\n"), 200);
  EXPECT_TRUE(handle_->flags & DL_HTTP_CLOSE);
  EXPECT_TRUE(capture_->has(3, 3, "connectiong without keep-alive\n"));
}

TEST_F(ResponseHead, HeadersOfAClosedStreamEndTheBlock) {
  handle_.say("HTTP/1.1 200 OK\r\nA: 1\r\n");
  handle_.close_peer();
  ASSERT_EQ(http_read_status(handle_.get()), 200);
  EXPECT_EQ(quarry::http_read_headers(handle_.get(), 200, &block_size_), 0);
  EXPECT_EQ(block(), "a: 1|");
}

TEST_F(ResponseHead, TracingLogsTheHeaderLines) {
  set_number(DL_OPT_DATA_TRACE, 2);
  EXPECT_EQ(read_head("HTTP/1.1 200 OK\r\nServer: Lab\r\n\r\n"), 200);
  EXPECT_TRUE(capture_->has(3, 3, "HTTP/1.1 200 OK\n"));
  EXPECT_TRUE(capture_->has(3, 3, "HTTP response header:\n"));
  EXPECT_TRUE(capture_->has(3, 3, "server: Lab\n"));
}

TEST_F(ResponseHead, ReadHeadersRefusesADeadHandle) {
  dl_http_conn dead = {};
  EXPECT_EQ(quarry::http_read_headers(&dead, 200, &block_size_), DL_ERR_PARAM);
  EXPECT_EQ(quarry::http_read_headers(handle_.get(), 200, nullptr), DL_ERR_PARAM);
  EXPECT_EQ(capture_->count(3, 3, "http read headers with invalid parameter\n"), 2);
}

class FindHeader : public ResponseHead {};

TEST_F(FindHeader, FindsTheLineByItsWholeName) {
  ASSERT_EQ(read_head("HTTP/1.1 200 OK\r\nContent-Type-Extra: x\r\nContent-Type: text/plain\r\n"
                      "Location: http://a/\r\n\r\n"),
            200);
  EXPECT_STREQ(http_find_header(handle_->headers, "content-type"), "content-type: text/plain");
  EXPECT_STREQ(http_find_header(handle_->headers, "location"), "location: http://a/");
  EXPECT_EQ(http_find_header(handle_->headers, "content"), nullptr);
  EXPECT_EQ(http_find_header(handle_->headers, "Content-Type"), nullptr);
  EXPECT_EQ(http_find_header(nullptr, "location"), nullptr);
  EXPECT_EQ(http_find_header(handle_->headers, nullptr), nullptr);
}

TEST_F(FindHeader, ByNameTakesAnyCase) {
  ASSERT_EQ(read_head("HTTP/1.1 200 OK\r\nContent-Type: text/plain\r\n\r\n"), 200);
  char *line = dl_http_find_header_by_name(handle_.get(), "Content-Type");
  ASSERT_NE(line, nullptr);
  EXPECT_STREQ(line, "content-type: text/plain");
  EXPECT_EQ(line, handle_->headers);
  EXPECT_EQ(dl_http_find_header_by_name(handle_.get(), "CONTENT-TYPE"), line);
}

TEST_F(FindHeader, ByNameGivesNullForNothingToFind) {
  EXPECT_EQ(dl_http_find_header_by_name(handle_.get(), "content-type"), nullptr);
  ASSERT_EQ(read_head("HTTP/1.1 200 OK\r\nContent-Type: text/plain\r\n\r\n"), 200);
  EXPECT_EQ(dl_http_find_header_by_name(handle_.get(), nullptr), nullptr);
  EXPECT_EQ(dl_http_find_header_by_name(handle_.get(), ""), nullptr);
  EXPECT_EQ(dl_http_find_header_by_name(handle_.get(), "etag"), nullptr);
}

TEST_F(FindHeader, ByNameCutsAVeryLongName) {
  std::string name(127, 'n');
  ASSERT_EQ(read_head("HTTP/1.1 200 OK\r\n" + name + ": v\r\n\r\n"), 200);
  EXPECT_NE(dl_http_find_header_by_name(handle_.get(), (name + "XYZ").c_str()), nullptr);
  EXPECT_EQ(dl_http_find_header_by_name(handle_.get(), name.substr(1).c_str()), nullptr);
}

TEST_F(FindHeader, ByNameRefusesADeadHandle) {
  dl_http_conn dead = {};
  EXPECT_EQ(dl_http_find_header_by_name(nullptr, "a"), nullptr);
  EXPECT_EQ(dl_http_find_header_by_name(&dead, "a"), nullptr);
  EXPECT_EQ(capture_->count(3, 3, "http find header with invalid parameter\n"), 2);
}

}  // namespace
