// Standard reason phrases of HTTP status codes, for the tool's messages:
// the library reports a failed status as its bare number.
#ifndef QUARRY_TOOLS_HTTP_STATUS_H
#define QUARRY_TOOLS_HTTP_STATUS_H

namespace quarry_cli {

// The reason phrase registered for |status| ("Not Found" for 404), or
// nullptr for a number that has none.
const char *http_reason_phrase(int status);

}  // namespace quarry_cli

#endif  // QUARRY_TOOLS_HTTP_STATUS_H
