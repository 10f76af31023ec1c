// Result codes and HTTP statuses to the texts callers show and compare.
#include <stdio.h>

#include "core/core.h"

namespace {

struct CodeText {
  int code;
  const char *text;
};

constexpr const char kUnknownError[] = "Unknown Error";

// The misspellings are the texts callers compare against; keep them.
constexpr CodeText kCodeTexts[] = {
    {DL_ERR_SOCKET, "Create Socket Error"},
    {DL_ERR_CONNECT, "Connect Failed"},
    {DL_ERR_SEND, "Send Error"},
    {DL_ERR_RECV, "Recv invalid data"},
    {DL_ERR_PARAM, "Invalid Parameter"},
    {DL_ERR_NOMEM, "Out of memory"},
    {DL_ERR_READ, "Read Error"},
    {DL_ERR_URL, "Wrong URL"},
    {DL_ERR_PORT, "Wrong port"},
    {DL_ERR_AUTH, "Auth Error"},
    {DL_ERR_REDIRECT, "Redirect to many times"},
    {DL_ERR_IPV6_DISABLED, "Ipv6 is disable"},
    {DL_ERR_NO_CONFIG, "Config doesn't init"},
    {DL_ERR_NOT_TFTP, "Host is not a tftp server"},
    {DL_ERR_HOST, "Wrong host"},
    {DL_ERR_MAX_SIZE, "Exceed max size"},
    {200, "200 OK"},
    {201, "Resource create success"},
    {400, "Invaild query"},
    {403, "Forbidden"},
    {408, "request out of time"},
    {500, "Server error"},
    {501, "Server doesn't support method"},
};

const char *text_for(int code) {
  for (const CodeText &entry : kCodeTexts) {
    if (entry.code == code) return entry.text;
  }
  return kUnknownError;
}

}  // namespace

extern "C" DL_EXPORT int dl_get_error_string(int code, char *buf, size_t n) {
  // The texts hold no conversion, so the text is its own format.
  return snprintf(buf, n, "%s", text_for(code));
}

namespace quarry {

void set_error(dl_error *err, int code) {
  if (err == nullptr) return;
  err->code = code;
  dl_get_error_string(code, err->msg, kErrorTextRoom);
}

}  // namespace quarry
