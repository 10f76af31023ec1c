// http/: the HTTP client. This header holds the records every part of the
// client shares: the connection handle, the request being built with its
// header list and body, and the de-chunking buffer; plus the few helpers
// the open flow calls that are not named functions of their own.
// The named functions themselves are declared in quarry_internal.h.
#ifndef QUARRY_HTTP_HTTP_CONN_H
#define QUARRY_HTTP_HTTP_CONN_H

#include <stdint.h>
#include <stdio.h>

#include "quarry.h"
#include "quarry_internal.h"

// State of a chunked body. The decoder streams: a chunk's data goes from
// the connection straight to the caller, so memory does not depend on the
// size a server announces; data and capacity stay empty.
struct dl_http_chunk {
  uint8_t *data;
  uint32_t fill;      // data bytes of the current chunk not yet handed out
  uint32_t capacity;  // bytes allocated at data
  int32_t last;       // 1 once the zero-size chunk has been read
};

// Bytes received from the connection and not yet handed out. Every read
// of a connection goes through it, so a line read never loses what
// follows the line, and most reads cost no system call.
constexpr uint32_t kHttpRxSize = 16384;
struct dl_http_rx {
  uint32_t start;  // first byte not handed out
  uint32_t end;    // end of the received bytes
  // 1 from the sending of a request to the first receive of its reply:
  // the reply cannot be there yet, so that receive waits first.
  uint32_t reply_pending;
  uint8_t data[kHttpRxSize];
};

// One open exchange. Zero-filled on allocation; magic marks it live.
// Callers rely on this layout: keep the order and the widths, and add
// fields only at the end.
struct dl_http_conn {
  int32_t magic;
  int32_t sock;  // 0: none
  struct ssl_st *ssl;
  struct ssl_ctx_st *ssl_ctx;
  uint32_t flags;      // DL_HTTP_*
  uint32_t remaining;  // body bytes still expected when not chunked
  dl_http_chunk *chunk;
  char *headers;  // response header block, lines each ended by a NUL
  uint32_t headers_len;
  dl_http_rx *rx;  // allocated on the first read, freed by http_reset
};

// A request header; ownership (DL_HDR_OWN_*) says which text is freed.
struct dl_http_header {
  const char *name;
  const char *value;
  int32_t ownership;
};

// What is sent after the header block: head, then the file, then tail.
struct dl_http_body {
  const char *text;  // borrowed
  const char *path;  // borrowed
  char *head;
  uint32_t head_len;
  char *tail;  // no terminating NUL
  int32_t tail_len;
  FILE *file;
  int32_t total;  // head_len + file size + tail_len: the Content-Length
};

struct dl_http_request {
  const char *method;  // static text
  char *request_line;
  dl_http_header *headers;
  int32_t count;
  int32_t capacity;
  const char *extra;  // borrowed; each line ends in "\r\n"
  dl_http_body *body;
  int32_t mode;               // DL_EX_*
  const dl_http_cred *creds;  // borrowed
  int32_t creds_bytes;
  int32_t creds_count;
  int32_t creds_next;
};

namespace quarry {

// Size the response header block starts at, and the room kept free
// before each line is read into it.
constexpr uint32_t kHeaderBlockStart = 2048;
// The block never grows past this: a server cannot make the head take
// more memory than a phone can spare.
constexpr uint32_t kHeaderBlockMax = 65536;

// http_read_line, also saying in |*complete| whether the line ended with
// its CRLF (false when the stream ended first, or on failure).
int http_read_line_ended(dl_http_conn *conn, int initial_size, int max_size, char *out,
                         int out_room, bool *complete);

// Marks a request as just sent on the plain connection |conn|: its reply
// cannot have arrived yet, so the first receive for it waits first
// instead of finding nothing. Bytes still buffered (a pipelined reply)
// leave the mark off.
void http_expect_reply(dl_http_conn *conn);

// Reads the header block that follows a status line of |status| into the
// handle (freeing the previous block; |*block_size| is the block's size
// and grows as needed, carried over between responses) and sets the
// framing flags and the remaining count. Returns 0 or a negative code.
int http_read_headers(dl_http_conn *conn, int status, uint32_t *block_size);

// Sets the "Host" header for |url|'s host and port: the host alone on the
// scheme's default port, "host:port" otherwise, IPv6 hosts in brackets.
// Returns 0, DL_ERR_NOMEM when the text could not be made, or the code of
// http_set_header.
int http_set_host(dl_http_request *req, const dl_url *url);

// Whether |conn| is a live handle.
inline bool http_conn_live(const dl_http_conn *conn) {
  return conn != nullptr && conn->magic == DL_HTTP_MAGIC;
}

}  // namespace quarry

#endif  // QUARRY_HTTP_HTTP_CONN_H
