// The readiness wait every client uses before it reads.
#include <errno.h>
#include <sys/select.h>

#include "net/net.h"

extern "C" {

DL_EXPORT int dl_select(int fd, int mode, int timeout_s) {
  // select cannot watch such a descriptor; answer as it answers a bad one
  // instead of writing outside the set.
  if (fd < 0) {
    errno = EBADF;
    return -1;
  }
  if (fd >= FD_SETSIZE) {
    errno = EINVAL;
    return -1;
  }
  fd_set set;
  FD_ZERO(&set);
  FD_SET(fd, &set);
  timeval tv = {timeout_s, 0};
  // With both bits the one set serves both directions: the wait ends as
  // soon as either is possible.
  fd_set *readable = (mode & quarry::kWaitReadable) != 0 ? &set : nullptr;
  fd_set *writable = (mode & quarry::kWaitWritable) != 0 ? &set : nullptr;
  // A signal does not end the wait; the kernel leaves the time still to
  // go in |tv|.
  int ret;
  do {
    ret = select(fd + 1, readable, writable, nullptr, &tv);
  } while (ret < 0 && errno == EINTR);
  return ret;
}

}  // extern "C"
