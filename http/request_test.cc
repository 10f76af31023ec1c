#include <gtest/gtest.h>

#include <string>

#include "http/http_test_support.h"
#include "tests/support/log_capture.h"

namespace {

using quarry_http_test::Request;

class RequestRecord : public quarry_http_test::HttpTest {};

std::string header_at(const dl_http_request *req, int i) {
  return std::string(req->headers[i].name) + ": " + req->headers[i].value;
}

TEST_F(RequestRecord, StartsWithRoomForEightHeadersAndAnEmptyBody) {
  Request req;
  ASSERT_NE(req.get(), nullptr);
  EXPECT_EQ(req->capacity, 8);
  EXPECT_EQ(req->count, 0);
  ASSERT_NE(req->body, nullptr);
  EXPECT_EQ(req->body->head, nullptr);
  EXPECT_EQ(req->body->file, nullptr);
  EXPECT_EQ(req->body->total, 0);
  EXPECT_EQ(req->request_line, nullptr);
}

TEST_F(RequestRecord, FreeingNullDoesNothing) { http_request_free(nullptr); }

TEST_F(RequestRecord, HeadersKeepInsertionOrder) {
  Request req;
  EXPECT_EQ(http_set_header(req.get(), "Host", "h", DL_HDR_OWN_NONE), 0);
  EXPECT_EQ(http_set_header(req.get(), "Accept", "*/*", DL_HDR_OWN_NONE), 0);
  EXPECT_EQ(http_set_header(req.get(), "X-One", strdup("1"), DL_HDR_OWN_VALUE), 0);
  ASSERT_EQ(req->count, 3);
  EXPECT_EQ(header_at(req.get(), 0), "Host: h");
  EXPECT_EQ(header_at(req.get(), 1), "Accept: */*");
  EXPECT_EQ(header_at(req.get(), 2), "X-One: 1");
}

TEST_F(RequestRecord, SettingAHeaderTwiceKeepsItsFirstPositionWithTheSecondValue) {
  Request req;
  http_set_header(req.get(), "Host", strdup("first"), DL_HDR_OWN_VALUE);
  http_set_header(req.get(), "Accept", "*/*", DL_HDR_OWN_NONE);
  EXPECT_EQ(http_set_header(req.get(), "Host", strdup("second"), DL_HDR_OWN_VALUE), 0);
  ASSERT_EQ(req->count, 2);
  EXPECT_EQ(header_at(req.get(), 0), "Host: second");
  EXPECT_EQ(header_at(req.get(), 1), "Accept: */*");
}

TEST_F(RequestRecord, ReplacingReleasesOwnedNameAndValueOfTheOldEntry) {
  Request req;
  http_set_header(req.get(), strdup("X-Both"), strdup("old"), DL_HDR_OWN_BOTH);
  EXPECT_EQ(http_set_header(req.get(), "X-Both", "new", DL_HDR_OWN_NONE), 0);
  ASSERT_EQ(req->count, 1);
  EXPECT_EQ(header_at(req.get(), 0), "X-Both: new");
}

TEST_F(RequestRecord, HeaderNamesMatchWithCase) {
  Request req;
  http_set_header(req.get(), "Host", "a", DL_HDR_OWN_NONE);
  http_set_header(req.get(), "host", "b", DL_HDR_OWN_NONE);
  ASSERT_EQ(req->count, 2);
  EXPECT_EQ(header_at(req.get(), 0), "Host: a");
  EXPECT_EQ(header_at(req.get(), 1), "host: b");
}

TEST_F(RequestRecord, NullValueSetsNothingAndFreesAnOwnedName) {
  Request req;
  EXPECT_EQ(http_set_header(req.get(), strdup("X-Name"), nullptr, DL_HDR_OWN_BOTH), 0);
  EXPECT_EQ(http_set_header(req.get(), "X-Static", nullptr, DL_HDR_OWN_NONE), 0);
  EXPECT_EQ(req->count, 0);
}

TEST_F(RequestRecord, NinthHeaderDoublesTheRoom) {
  Request req;
  const char *names[] = {"A", "B", "C", "D", "E", "F", "G", "H", "I"};
  for (const char *name : names) {
    EXPECT_EQ(http_set_header(req.get(), name, strdup(name), DL_HDR_OWN_VALUE), 0);
  }
  EXPECT_EQ(req->count, 9);
  EXPECT_EQ(req->capacity, 16);
  EXPECT_EQ(header_at(req.get(), 8), "I: I");
}

TEST_F(RequestRecord, SetHeaderWithoutRequestOrNameFreesOwnedTextsAndRefuses) {
  EXPECT_EQ(http_set_header(nullptr, strdup("N"), strdup("V"), DL_HDR_OWN_BOTH), DL_ERR_PARAM);
  Request req;
  EXPECT_EQ(http_set_header(req.get(), nullptr, strdup("V"), DL_HDR_OWN_VALUE), DL_ERR_PARAM);
  EXPECT_EQ(capture_->count(3, 3, "http set header with invalid parameter\n"), 2);
}

TEST_F(RequestRecord, RequestLineOfEachType) {
  const char *expected[] = {"GET /a?b=1 HTTP/1.1\r\n", "POST /a?b=1 HTTP/1.1\r\n",
                            "PUT /a?b=1 HTTP/1.1\r\n", "DELETE /a?b=1 HTTP/1.1\r\n"};
  const char *methods[] = {"GET", "POST", "PUT", "DELETE"};
  for (int type = 0; type < 4; ++type) {
    Request req;
    EXPECT_EQ(http_set_request_line(req.get(), type, "/a?b=1"), 0);
    EXPECT_STREQ(req->request_line, expected[type]);
    EXPECT_STREQ(req->method, methods[type]);
    EXPECT_TRUE(capture_->has(3, 3, std::string("Request Line: ") + expected[type]));
  }
}

TEST_F(RequestRecord, RequestLineTypeAboveThreeIsAWrongUrl) {
  Request req;
  EXPECT_EQ(http_set_request_line(req.get(), 4, "/"), DL_ERR_URL);
  EXPECT_EQ(http_set_request_line(req.get(), -1, "/"), DL_ERR_URL);
  EXPECT_EQ(req->request_line, nullptr);
}

TEST_F(RequestRecord, RequestLineIsReplaced) {
  Request req;
  http_set_request_line(req.get(), 0, "/old");
  EXPECT_EQ(http_set_request_line(req.get(), 1, "/new"), 0);
  EXPECT_STREQ(req->request_line, "POST /new HTTP/1.1\r\n");
}

TEST_F(RequestRecord, RequestLineWithoutRequestOrPathIsRefused) {
  Request req;
  EXPECT_EQ(http_set_request_line(nullptr, 0, "/"), DL_ERR_PARAM);
  EXPECT_EQ(http_set_request_line(req.get(), 0, nullptr), DL_ERR_PARAM);
  EXPECT_EQ(capture_->count(3, 3, "http set request line with invalid parameter\n"), 2);
}

}  // namespace
