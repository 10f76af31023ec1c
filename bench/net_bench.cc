// Connections and waits: every transfer starts with dl_connect and reads
// after dl_select; their own cost must stay far below a network's round
// trip.
#include <sys/socket.h>
#include <unistd.h>

#include "bench/bench_support.h"
#include "net/net.h"
#include "quarry.h"
#include "tests/peer/listener.h"

namespace {

// The transfers' default time-out, which picks the non-blocking connect.
constexpr int kTimeoutSeconds = 1;
// A connection dl_connect made is already queued; this only bounds a
// failure.
constexpr int kAcceptWaitMs = 5000;

// One connection per iteration: resolve, connect under the time-out,
// accept on the listener, close both ends. The client end is reset rather
// than closed in order so that no local ports pile up in TIME_WAIT.
void BM_Connect(benchmark::State &state, const char *host) {
  quarry_test::Listener listener;
  if (!listener.ok()) {
    state.SkipWithError("cannot listen on 127.0.0.1");
    return;
  }
  for (auto _ : state) {
    int fd = dl_connect(host, listener.port(), 0, kTimeoutSeconds);
    if (fd <= 0) {
      state.SkipWithError("dl_connect failed");
      break;
    }
    int accepted = listener.accept_within(kAcceptWaitMs);
    quarry_bench::close_with_reset(fd);
    if (accepted < 0) {
      state.SkipWithError("the listener accepted nothing");
      break;
    }
    close(accepted);
  }
  state.SetItemsProcessed(state.iterations());
}
BENCHMARK_CAPTURE(BM_Connect, numeric, "127.0.0.1")
    ->Unit(benchmark::kMicrosecond)
    ->UseRealTime();
BENCHMARK_CAPTURE(BM_Connect, localhost_name, "localhost")
    ->Unit(benchmark::kMicrosecond)
    ->UseRealTime();

// A wait that is satisfied at once: one end of a socket pair with a byte
// to read (readable) or room to write (writable).
void BM_SelectReady(benchmark::State &state, int mode) {
  int pair[2];
  if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, pair) != 0) {
    state.SkipWithError("socketpair failed");
    return;
  }
  const char byte = 'x';
  if (write(pair[1], &byte, 1) != 1) {
    close(pair[0]);
    close(pair[1]);
    state.SkipWithError("cannot make the socket readable");
    return;
  }
  for (auto _ : state) {
    if (dl_select(pair[0], mode, kTimeoutSeconds) != 1) {
      state.SkipWithError("dl_select did not find the socket ready");
      break;
    }
  }
  close(pair[0]);
  close(pair[1]);
}
BENCHMARK_CAPTURE(BM_SelectReady, readable, quarry::kWaitReadable);
BENCHMARK_CAPTURE(BM_SelectReady, writable, quarry::kWaitWritable);

}  // namespace
