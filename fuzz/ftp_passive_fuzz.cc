// libFuzzer target for the passive-mode reply parsers: the input is a
// 227 or 229 reply line, cut to its parenthesised text and read both as
// PASV's six numbers and as EPSV's port.
#include <stddef.h>
#include <stdint.h>
#include <string.h>

#include <string>

#include "ftp/ftp_conn.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  // The reply reader hands over zero-terminated text.
  std::string reply(reinterpret_cast<const char *>(data), size);
  char text[512];
  if (!quarry::ftp_passive_text(reply.c_str(), text, sizeof(text))) return 0;
  char host[512];
  int port = 0;
  if (quarry::ftp_parse_pasv(text, host, sizeof(host), &port)) {
    // The address text is what the connect is handed.
    if (strnlen(host, sizeof(host)) >= sizeof(host)) __builtin_trap();
  }
  quarry::ftp_parse_epsv(text, &port);
  return 0;
}
