// Servers that try to exhaust a phone's memory or cut a body short: each
// save fails with its code and log line, leaves no file, and (run in a
// child process) keeps the peak resident memory bounded.
#include <gtest/gtest.h>
#include <stdio.h>
#include <string.h>
#include <sys/resource.h>

#include <string>

#include "http/open_test_support.h"
#include "tests/peer/scripted_peer.h"
#include "tests/support/child_process.h"
#include "tests/support/log_capture.h"

namespace {

using quarry_http_test::local_url;
using quarry_http_test::response;
using quarry_test::file_exists;
using quarry_test::read_file;
using quarry_test::read_to_end;
using quarry_test::read_until;
using quarry_test::run_in_child;
using quarry_test::send_bytes;
using quarry_test::TcpPeer;
using quarry_test::TempDir;

constexpr const char *kChunkedHead = "HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n";
// Far below what the unbounded reading took (over 500 MB), far above what
// a save needs.
constexpr long kPeakGrowthBoundKib = 16 * 1024;

long peak_kib() {
  rusage usage;
  getrusage(RUSAGE_SELF, &usage);
  return usage.ru_maxrss;
}

// Sets the process's peak resident size back to its current size, so that
// what the parent reached before the fork does not hide a new peak.
void reset_peak() {
  FILE *f = fopen("/proc/self/clear_refs", "w");
  if (f == nullptr) return;
  fputs("5", f);
  fclose(f);
}

// A header line of exactly |size| bytes, CRLF not counted.
std::string header_line(size_t size, int n) {
  std::string name = "x-fill-" + std::to_string(n) + ": ";
  return name + std::string(size - name.size(), 'v');
}

class Hostile : public quarry_http_test::ExchangeTest {
 protected:
  // What one save in a child process did.
  struct Outcome {
    int ret = 0;
    int code = 0;
    bool logged = false;  // the expected line was logged
    long growth_kib = -1;
  };

  // Saves the URL of |peer| into out.bin in a child process and reports
  // the result, whether |line| was logged at level 3, and how far the
  // peak resident size grew.
  Outcome save_in_child(const TcpPeer &peer, const std::string &line) {
    use_url(local_url(peer.port(), "/f"));
    std::string out = run_in_child([this, &line]() -> std::string {
      reset_peak();
      long before = peak_kib();
      int ret = dl_http_recv_to_file(&param_, path_.c_str(), redirect_, &err_);
      long growth = peak_kib() - before;
      int logged = capture_->has(3, 3, line) ? 1 : 0;
      return std::to_string(ret) + " " + std::to_string(err_.code) + " " +
             std::to_string(logged) + " " + std::to_string(growth);
    });
    Outcome o;
    int logged = 0;
    EXPECT_EQ(sscanf(out.c_str(), "%d %d %d %ld", &o.ret, &o.code, &logged, &o.growth_kib), 4)
        << out;
    o.logged = logged != 0;
    return o;
  }

  void expect_failed_save(const Outcome &o, int code) {
    EXPECT_EQ(o.ret, -1);
    EXPECT_EQ(o.code, code);
    EXPECT_TRUE(o.logged);
    EXPECT_GE(o.growth_kib, 0);
    EXPECT_LT(o.growth_kib, kPeakGrowthBoundKib);
    EXPECT_FALSE(file_exists(path_));
  }

  // A peer that reads the request, sends |reply| and waits for the close.
  static void play(TcpPeer *peer, const std::string &reply) {
    peer->add({read_until(quarry_http_test::kHeaderEnd), send_bytes(reply), read_to_end()});
    peer->start();
  }
  // A peer that reads the request, sends |reply| and closes.
  static void play_and_close(TcpPeer *peer, const std::string &reply) {
    peer->add({read_until(quarry_http_test::kHeaderEnd), send_bytes(reply),
               quarry_test::close_conn()});
    peer->start();
  }

  // The head of a 200 response whose header block, as kept in the handle,
  // takes exactly |block| bytes: each line and its NUL, and the NUL that
  // ends the block.
  static std::string head_of_block(size_t block) {
    std::string head = "HTTP/1.1 200 OK\r\nContent-Length: 2\r\n";
    size_t used = strlen("content-length: 2") + 1 + 1;
    int n = 0;
    while (used < block) {
      size_t left = block - used;
      // Whole lines of 1000 while the rest stays long enough for a name.
      size_t size = left - 1 >= 1020 ? 1000 : left - 1;
      head += header_line(size, n++) + "\r\n";
      used += size + 1;
    }
    return head + "\r\n";
  }

  TempDir dir_;
  std::string path_ = dir_.file("out.bin");
};

TEST_F(Hostile, EndlessHeaderLinesFailAt64KiB) {
  std::string reply = "HTTP/1.1 200 OK\r\n";
  for (int i = 0; i < 2000; ++i) reply += header_line(98, i) + "\r\n";
  TcpPeer peer;
  play(&peer, reply);
  Outcome o = save_in_child(peer, "Buffer not enough! buffer len 65536\n");
  expect_failed_save(o, DL_ERR_READ);
}

TEST_F(Hostile, HeaderBlockOf64KiBLessOneIsRead) {
  TcpPeer peer;
  play(&peer, head_of_block(65535) + "ok");
  use_url(local_url(peer.port(), "/f"));
  EXPECT_EQ(dl_http_recv_to_file(&param_, path_.c_str(), redirect_, &err_), 0);
  EXPECT_EQ(read_file(path_), "ok");
}

TEST_F(Hostile, HeaderBlockOfExactly64KiBIsRead) {
  TcpPeer peer;
  play(&peer, head_of_block(65536) + "ok");
  use_url(local_url(peer.port(), "/f"));
  EXPECT_EQ(dl_http_recv_to_file(&param_, path_.c_str(), redirect_, &err_), 0);
  EXPECT_EQ(read_file(path_), "ok");
}

TEST_F(Hostile, HeaderBlockOf64KiBAndOneFails) {
  TcpPeer peer;
  play(&peer, head_of_block(65537) + "ok");
  use_url(local_url(peer.port(), "/f"));
  EXPECT_EQ(dl_http_recv_to_file(&param_, path_.c_str(), redirect_, &err_), -1);
  EXPECT_EQ(err_.code, DL_ERR_READ);
  EXPECT_STREQ(err_.msg, "Read Error");
  EXPECT_TRUE(capture_->has(3, 3, "Buffer not enough! buffer len 65536\n"));
  EXPECT_TRUE(capture_->has(3, 3, "handler response error, ret = -8\n"));
  EXPECT_FALSE(file_exists(path_));
}

TEST_F(Hostile, OneEndlessHeaderLineFailsAtOnce) {
  TcpPeer peer;
  play(&peer, "HTTP/1.1 200 OK\r\nX-Long: " + std::string(100000, 'a'));
  Outcome o = save_in_child(peer, "Buffer not enough! buffer len 2048\n");
  expect_failed_save(o, DL_ERR_READ);
}

TEST_F(Hostile, HugeChunkCutShortFailsWithoutAllocatingIt) {
  TcpPeer peer;
  play_and_close(&peer, std::string(kChunkedHead) + "10000000\r\n" + std::string(1000, 'c'));
  Outcome o = save_in_child(peer, "read chunked error\n");
  expect_failed_save(o, DL_ERR_RECV);
}

TEST_F(Hostile, ChunkSizesBeyondIntFailAtOnce) {
  for (const char *size : {"ffffffff", "7fffffff"}) {
    TcpPeer peer;
    play(&peer, std::string(kChunkedHead) + size + "\r\nabc");
    Outcome o = save_in_child(peer, std::string("invalid chunk size: ") + size + "\n");
    expect_failed_save(o, DL_ERR_RECV);
  }
}

TEST_F(Hostile, ChunkLargerThanTheMaximumSizeStopsAtTheMaximum) {
  set_number(DL_OPT_MAX_FILE_SIZE, 1 << 20);
  TcpPeer peer;
  play(&peer, std::string(kChunkedHead) + "400000\r\n" + std::string(4 << 20, 'd') +
                  "\r\n0\r\n\r\n");
  Outcome o = save_in_child(peer, "exceed max size\n");
  expect_failed_save(o, DL_ERR_MAX_SIZE);
}

TEST_F(Hostile, RedirectToItselfFailsAfterTheMaximum) {
  set_number(DL_OPT_MAX_REDIRECTS, 2);
  TcpPeer peer;
  for (int i = 0; i < 3; ++i) {
    peer.add({read_until(quarry_http_test::kHeaderEnd),
              send_bytes(response("302 Found", "Location: " + local_url(peer.port(), "/f") + "\r\n",
                                  "")),
              read_to_end()});
  }
  peer.start();
  use_url(local_url(peer.port(), "/f"));
  EXPECT_EQ(dl_http_recv_to_file(&param_, path_.c_str(), redirect_, &err_), -1);
  EXPECT_EQ(err_.code, DL_ERR_REDIRECT);
  EXPECT_EQ(peer.connections(), 3u);
  EXPECT_FALSE(file_exists(path_));
}

TEST_F(Hostile, ManySmallChunksAreSavedWhole) {
  std::string chunks, expected;
  for (int i = 0; i < 5000; ++i) {
    std::string piece(1 + i % 7, static_cast<char>('a' + i % 26));
    char size[16];
    snprintf(size, sizeof(size), "%zx\r\n", piece.size());
    chunks += size + piece + "\r\n";
    expected += piece;
  }
  TcpPeer peer;
  play(&peer, std::string(kChunkedHead) + chunks + "0\r\n\r\n");
  use_url(local_url(peer.port(), "/f"));
  EXPECT_EQ(dl_http_recv_to_file(&param_, path_.c_str(), redirect_, &err_), 0);
  EXPECT_EQ(read_file(path_), expected);
}

TEST_F(Hostile, ChunkSizeLineWithAnExtensionIsSaved) {
  TcpPeer peer;
  play(&peer, std::string(kChunkedHead) + "5;name=\"v\"\r\nhello\r\n0\r\n\r\n");
  use_url(local_url(peer.port(), "/f"));
  EXPECT_EQ(dl_http_recv_to_file(&param_, path_.c_str(), redirect_, &err_), 0);
  EXPECT_EQ(read_file(path_), "hello");
}

TEST_F(Hostile, LengthBodyOneByteShortLeavesNoFile) {
  TcpPeer peer;
  play_and_close(&peer, "HTTP/1.1 200 OK\r\nContent-Length: 2000\r\n\r\n" + std::string(1999, 'b'));
  use_url(local_url(peer.port(), "/f"));
  EXPECT_EQ(dl_http_recv_to_file(&param_, path_.c_str(), redirect_, &err_), -1);
  EXPECT_EQ(err_.code, DL_ERR_RECV);
  EXPECT_STREQ(err_.msg, "Recv invalid data");
  EXPECT_EQ(capture_->count(3, 3, "read error\n"), 1);
  EXPECT_TRUE(capture_->has(3, 5, "recv : 1536 bytes\n"));
  EXPECT_FALSE(file_exists(path_));
}

// A chunked body cut at |chunks|'s end: the save fails and leaves no file.
class ChunkedCutSave : public Hostile {
 protected:
  void expect_cut(const std::string &chunks) {
    TcpPeer peer;
    play_and_close(&peer, kChunkedHead + chunks);
    use_url(local_url(peer.port(), "/f"));
    EXPECT_EQ(dl_http_recv_to_file(&param_, path_.c_str(), redirect_, &err_), -1);
    EXPECT_EQ(err_.code, DL_ERR_RECV);
    EXPECT_EQ(capture_->count(3, 3, "read chunked error\n"), 1);
    EXPECT_FALSE(file_exists(path_));
  }
};

TEST_F(ChunkedCutSave, InsideAChunk) { expect_cut("800\r\n" + std::string(1000, 'x')); }

TEST_F(ChunkedCutSave, InTheCrlfAfterAChunk) { expect_cut("3e8\r\n" + std::string(1000, 'x') + "\r"); }

TEST_F(ChunkedCutSave, BeforeTheZeroChunk) {
  expect_cut("3e8\r\n" + std::string(1000, 'x') + "\r\n");
}

TEST_F(ChunkedCutSave, ThroughTheFrontDoor) {
  TcpPeer peer;
  play_and_close(&peer, std::string(kChunkedHead) + "3e8\r\n" + std::string(1000, 'x') + "\r\n");
  std::string url = local_url(peer.port(), "/f");
  dl_request req = {};
  req.url = &url[0];
  EXPECT_NE(dl_download(&req, path_.c_str(), redirect_, &err_), 0);
  EXPECT_EQ(err_.code, DL_ERR_RECV);
  EXPECT_FALSE(file_exists(path_));
}

}  // namespace
