// The front door's TFTP branches against scripted peers: streaming through
// dl_open/dl_read/dl_close, saving, and the upload target rules.
#include <string>

#include "tests/tftp/tftp_test_env.h"

namespace quarry_test {
namespace {

class TftpFrontDoor : public TftpTest {
 protected:
  dl_request request(const std::string &url) {
    url_ = url;
    dl_request req = {};
    req.url = const_cast<char *>(url_.c_str());
    return req;
  }
  // Uploads |local| with |remote_name| to |url_path| on a peer that takes
  // the WRQ; returns the name it asked for.
  std::string upload_name(const std::string &url_path, const std::string &local,
                          const char *remote_name) {
    TftpPeer peer;
    peer.run([](TftpPeer &p) {
      p.recv_one();
      p.send(ack_pkt(0));
      std::string pkt = p.recv_one();
      if (pkt.size() >= 4) p.send(ack_pkt(1));
    });
    dl_request req = request("tftp://127.0.0.1:" + std::to_string(peer.port()) + url_path);
    EXPECT_EQ(dl_upload(&req, local.c_str(), remote_name, nullptr, &err_, nullptr, 0, 0), 0)
        << err_.msg;
    EXPECT_TRUE(peer.wait());
    std::string wrq_pkt = peer.received().empty() ? "" : peer.received()[0];
    return wrq_pkt.size() > 2 ? std::string(wrq_pkt.c_str() + 2) : "";
  }

  std::string url_;
  TempDir dir_;
};

TEST_F(TftpFrontDoor, StreamsThroughOpenReadClose) {
  TftpPeer peer;
  const std::string file = pattern(700);
  peer.run([&](TftpPeer &p) {
    p.recv_one();
    p.send(data_pkt(1, file.substr(0, 512)));
    p.recv_one();
    p.send(data_pkt(2, file.substr(512)));
    p.recv_one();
  });
  dl_request req = request("tftp://127.0.0.1:" + std::to_string(peer.port()) + "/s/f.bin");
  dl_handle *h = nullptr;
  ASSERT_EQ(dl_open(&req, &h, nullptr, &err_), 0) << err_.msg;
  EXPECT_EQ(h->scheme, static_cast<uint32_t>(DL_SCHEME_TFTP));
  std::string got;
  char buf[300];
  int n;
  while ((n = dl_read(h, buf, sizeof(buf), &err_)) > 0) got.append(buf, static_cast<size_t>(n));
  EXPECT_EQ(n, 0);
  dl_close(h);
  EXPECT_EQ(got, file);
  ASSERT_TRUE(peer.wait());
  EXPECT_EQ(peer.received()[0], rrq("s/f.bin"));
}

TEST_F(TftpFrontDoor, FailedOpenLeavesNoHandle) {
  TftpPeer peer;
  peer.run([](TftpPeer &p) {
    p.recv_one();
  });
  dl_request req = request("127.0.0.1:" + std::to_string(peer.port()) + "/f");
  dl_handle *h = reinterpret_cast<dl_handle *>(0x1);
  EXPECT_EQ(dl_open(&req, &h, nullptr, &err_), -1);
  EXPECT_EQ(h, nullptr);
  EXPECT_EQ(err_.code, DL_ERR_NOT_TFTP);
  ASSERT_TRUE(peer.wait());
}

TEST_F(TftpFrontDoor, DownloadWithoutSchemeSavesTheFile) {
  TftpPeer peer;
  peer.run([](TftpPeer &p) {
    p.recv_one();
    p.send(data_pkt(1, "cfg"));
    p.recv_one();
  });
  dl_request req = request("127.0.0.1:" + std::to_string(peer.port()) + "/boot/cfg.txt");
  ASSERT_EQ(dl_download(&req, dir_.file("cfg.txt").c_str(), nullptr, &err_), 0) << err_.msg;
  EXPECT_EQ(read_file(dir_.file("cfg.txt")), "cfg");
  ASSERT_TRUE(peer.wait());
  EXPECT_EQ(peer.received()[0], rrq("boot/cfg.txt"));
}

TEST_F(TftpFrontDoor, UploadTargetFollowsTheUrlPath) {
  std::string local = dir_.write("a.cfg", "x");
  EXPECT_EQ(upload_name("/cfg/x.cfg", local, ""), "cfg/a.cfg");
  EXPECT_EQ(upload_name("/cfg/", local, nullptr), "cfg/a.cfg");
  // No dot and no trailing slash: the name is glued on as it stands.
  EXPECT_EQ(upload_name("/cfg", local, ""), "cfga.cfg");
  EXPECT_EQ(upload_name("/cfg/", local, "new.cfg"), "cfg/new.cfg");
  EXPECT_TRUE(capture_->has(2, 6, "Uplaod path without filename is /cfg/x.cfg \n"));
}

TEST_F(TftpFrontDoor, UploadWithoutSchemeGoesToTheTftpClient) {
  TftpPeer peer;
  peer.run([](TftpPeer &p) {
    p.recv_one();
    p.send(ack_pkt(0));
    p.recv_one();
    p.send(ack_pkt(1));
  });
  std::string local = dir_.write("b.cfg", "payload");
  dl_request req = request("127.0.0.1:" + std::to_string(peer.port()) + "/up/");
  ASSERT_EQ(dl_upload(&req, local.c_str(), nullptr, nullptr, &err_, nullptr, 0, 0), 0)
      << err_.msg;
  ASSERT_TRUE(peer.wait());
  EXPECT_EQ(peer.received()[0], wrq("up/b.cfg"));
  EXPECT_EQ(peer.received()[1], data_pkt(1, "payload"));
  EXPECT_TRUE(logged(5, "send: 7 bytes\n"));
}

}  // namespace
}  // namespace quarry_test
