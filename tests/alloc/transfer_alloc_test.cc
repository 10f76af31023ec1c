// Allocation failures in a download and an upload over HTTP, FTP and TFTP
// through the front door, each against a fresh scripted peer per run.
#include <gtest/gtest.h>
#include <unistd.h>

#include <memory>
#include <string>

#include "quarry.h"
#include "quarry_internal.h"
#include "tests/alloc/alloc_runs.h"
#include "tests/ftp/ftp_peer.h"
#include "tests/peer/scripted_peer.h"
#include "tests/support/log_capture.h"
#include "tests/tftp/tftp_peer.h"

namespace quarry_test {
namespace {

// A client that will send does so at once on loopback; a peer waiting
// longer only slows down the runs where the client failed before.
constexpr int kPeerWaitMs = 300;
constexpr char kBody[] = "hello, phone";
constexpr char kUpload[] = "local body";

class TransferAlloc : public ::testing::Test {
 protected:
  void SetUp() override {
    dl_config_init();
    uint32_t one = 1;
    dl_set_option(DL_OPT_TIMEOUT, &one);
    uint32_t off = 0;
    dl_set_option(DL_OPT_IPV6_ENABLE, &off);
    capture_ = std::make_unique<LogCapture>();
    alloc_log_text() = [this] { return capture_->text(); };
    alloc_log_clear() = [this] { capture_->clear(); };
    local_ = dir_.write("a.cfg", kUpload);
    target_ = dir_.file("got.bin");
  }
  void TearDown() override {
    alloc_log_text() = nullptr;
    alloc_log_clear() = nullptr;
    capture_.reset();
    dl_exit();
  }
  // Nothing in the directory but the upload's source.
  bool only_source() const { return dir_entries(dir_.path()) == std::set<std::string>{"a.cfg"}; }
  bool downloaded() const { return file_exists(target_) && read_file(target_) == kBody; }
  // A run that went through leaves the file; the next starts without it.
  int download(const std::string &url, long n, bool *fired) {
    unlink(target_.c_str());
    dl_request req = {};
    req.url = const_cast<char *>(url.c_str());
    char redirect[512] = {};
    dl_error err = {};
    return armed(n, fired, [&] { return dl_download(&req, target_.c_str(), redirect, &err); });
  }
  int upload(const std::string &url, long n, bool *fired) {
    dl_request req = {};
    req.url = const_cast<char *>(url.c_str());
    char redirect[512] = {};
    dl_error err = {};
    return armed(n, fired, [&] {
      return dl_upload(&req, local_.c_str(), nullptr, redirect, &err, "", 1, 0);
    });
  }
  void check(const AllocOp &op) {
    AllocRuns runs = run_alloc_failures(op);
    EXPECT_GT(runs.failed + runs.tolerated, 0) << op.name << ": no allocation was counted";
  }

  std::unique_ptr<LogCapture> capture_;
  TempDir dir_;
  std::string local_;
  std::string target_;
};

std::string http_url(const TcpPeer &peer, const std::string &path) {
  return "http://127.0.0.1:" + std::to_string(peer.port()) + path;
}

TEST_F(TransferAlloc, HttpDownload) {
  check({"http download",
         [&](long n, bool *fired) {
           TcpPeer peer;
           peer.add(
               {read_until("\r\n\r\n"),
                send_bytes("HTTP/1.1 200 OK\r\nContent-Length: 12\r\n\r\n" + std::string(kBody)),
                close_conn()});
           peer.start();
           return download(http_url(peer, "/got.bin"), n, fired);
         },
         [&] { return downloaded(); }, [&] { return !file_exists(target_); }});
}

TEST_F(TransferAlloc, HttpUpload) {
  check({"http upload",
         [&](long n, bool *fired) {
           TcpPeer peer;
           peer.add({read_until(kUpload),
                     send_bytes("HTTP/1.1 200 OK\r\nContent-Length: 0\r\n\r\n"), close_conn()});
           peer.start();
           return upload(http_url(peer, "/up.cgi"), n, fired);
         },
         [] { return true; }, [&] { return only_source(); }});
}

TEST_F(TransferAlloc, FtpDownload) {
  check({"ftp download",
         [&](long n, bool *fired) {
           TcpPeer control;
           TcpPeer data;
           data.add({send_bytes(kBody), close_conn()});
           data.start();
           control.add(anonymous_session(data.port()) + reply_to("SIZE got.bin", "213 12") +
                       reply_to("RETR got.bin", "150 go") + Script{read_to_end()});
           control.start();
           return download("ftp://127.0.0.1:" + std::to_string(control.port()) + "/got.bin", n,
                           fired);
         },
         [&] { return downloaded(); }, [&] { return !file_exists(target_); }});
}

TEST_F(TransferAlloc, FtpUpload) {
  check({"ftp upload",
         [&](long n, bool *fired) {
           TcpPeer control;
           TcpPeer data;
           data.add({read_to_end()});
           data.start();
           control.add(anonymous_session(data.port()) + reply_to("SIZE a.cfg", "550 not found") +
                       reply_to("STOR a.cfg", "150 ok") + Script{send_bytes("226 done\r\n")} +
                       reply_to("QUIT", "221 bye") + Script{read_to_end()});
           control.start();
           return upload("ftp://127.0.0.1:" + std::to_string(control.port()) + "/", n, fired);
         },
         [] { return true; }, [&] { return only_source(); }});
}

TEST_F(TransferAlloc, TftpDownload) {
  check({"tftp download",
         [&](long n, bool *fired) {
           TftpPeer peer;
           peer.run([](TftpPeer &p) {
             std::string pkt;
             if (!p.recv(&pkt, kPeerWaitMs)) return;
             p.send(data_pkt(1, kBody));
             p.recv(&pkt, kPeerWaitMs);
           });
           int rc =
               download("tftp://127.0.0.1:" + std::to_string(peer.port()) + "/got.bin", n, fired);
           peer.wait();
           return rc;
         },
         [&] { return downloaded(); }, [&] { return !file_exists(target_); }});
}

TEST_F(TransferAlloc, TftpUpload) {
  check({"tftp upload",
         [&](long n, bool *fired) {
           TftpPeer peer;
           peer.run([](TftpPeer &p) {
             std::string pkt;
             if (!p.recv(&pkt, kPeerWaitMs)) return;
             p.send(ack_pkt(0));
             if (p.recv(&pkt, kPeerWaitMs) && pkt.size() >= 4) p.send(ack_pkt(1));
           });
           int rc = upload("tftp://127.0.0.1:" + std::to_string(peer.port()) + "/", n, fired);
           peer.wait();
           return rc;
         },
         [] { return true; }, [&] { return only_source(); }});
}

}  // namespace
}  // namespace quarry_test
