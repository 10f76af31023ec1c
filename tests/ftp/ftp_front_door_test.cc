// The front door's FTP branches against scripted servers: credentials
// from the URL or the request, the masked login line, the remote target
// of uploads, streaming through dl_open/dl_read/dl_close.
#include <gtest/gtest.h>

#include <string>

#include "tests/ftp/ftp_peer.h"

namespace {

using namespace quarry_test;

class FtpFrontDoor : public FtpPeerTest {
 protected:
  std::string url(const std::string &login, const std::string &path) const {
    return "ftp://" + login + "127.0.0.1:" + std::to_string(control_.port()) + path;
  }
  // A login as |user| with |password|, then PASV.
  Script login(const std::string &user, const std::string &password) {
    return Script{send_bytes("220 ready\r\n")} + reply_to("USER " + user, "331 pw") +
           reply_to("PASS " + password, "230 ok") + reply_to("TYPE I", "200 ok") +
           reply_to("PASV", pasv_reply(data_.port()));
  }
  // A server that takes an upload to |remote|.
  void accept_upload(const std::string &remote) {
    data_.add({read_to_end()});
    data_.start();
    control_.add(anonymous_session(data_.port()) + reply_to("SIZE " + remote, "550 no") +
                 reply_to("STOR " + remote, "150 ok") + Script{send_bytes("226 done\r\n")} +
                 reply_to("QUIT", "221 bye") + Script{read_to_end()});
    control_.start();
  }
  int upload(const std::string &path, const char *remote_name) {
    std::string u = url("", path);
    dl_request req = {};
    req.url = const_cast<char *>(u.c_str());
    return dl_upload(&req, local_.c_str(), remote_name, nullptr, &err_, nullptr, 2, 1);
  }
  bool door_logged(int level, const std::string &line) const {
    return capture_->has(2, level, line);
  }

  TcpPeer control_;
  TcpPeer data_;
  std::string local_ = dir_.write("a.cfg", "cfg body");
};

TEST_F(FtpFrontDoor, UrlLoginOverridesTheRequestsAndIsMaskedInTheLog) {
  data_.add({send_bytes("x"), close_conn()});
  data_.start();
  control_.add(login("alice", "urlpw") + reply_to("SIZE f.bin", "213 1") +
               reply_to("RETR f.bin", "150 go") + Script{read_to_end()});
  control_.start();
  std::string u = url("alice:urlpw@", "/f.bin");
  dl_request req = {};
  req.url = const_cast<char *>(u.c_str());
  req.user = const_cast<char *>("bob");
  req.password = const_cast<char *>("reqpw");
  ASSERT_EQ(dl_download(&req, dir_.file("f.bin").c_str(), nullptr, &err_), 0) << err_.msg;
  EXPECT_EQ(read_file(dir_.file("f.bin")), "x");
  EXPECT_TRUE(door_logged(6, "FTP Login Info:uername=alice passwd=******\n"));
  EXPECT_FALSE(capture_->mentions("urlpw"));
}

TEST_F(FtpFrontDoor, RequestCredentialsWhenTheUrlHasNone) {
  data_.add({send_bytes("y"), close_conn()});
  data_.start();
  control_.add(login("bob", "reqpw") + reply_to("SIZE f.bin", "213 1") +
               reply_to("RETR f.bin", "150 go") + Script{read_to_end()});
  control_.start();
  std::string u = url("", "/f.bin");
  dl_request req = {};
  req.url = const_cast<char *>(u.c_str());
  req.user = const_cast<char *>("bob");
  req.password = const_cast<char *>("reqpw");
  ASSERT_EQ(dl_download(&req, dir_.file("f.bin").c_str(), nullptr, &err_), 0) << err_.msg;
  EXPECT_TRUE(door_logged(6, "FTP Login Info:uername=bob passwd=******\n"));
  EXPECT_FALSE(capture_->mentions("reqpw"));
}

TEST_F(FtpFrontDoor, StreamsWithoutTheLoginLine) {
  data_.add({send_bytes("streamed"), close_conn()});
  data_.start();
  control_.add(anonymous_session(data_.port()) + reply_to("SIZE s.bin", "213 8") +
               reply_to("RETR s.bin", "150 go") + Script{read_to_end()});
  control_.start();
  std::string u = url("", "/s.bin");
  dl_request req = {};
  req.url = const_cast<char *>(u.c_str());
  dl_handle *h = nullptr;
  ASSERT_EQ(dl_open(&req, &h, nullptr, &err_), 0) << err_.msg;
  std::string body;
  char buf[3];
  int n;
  while ((n = dl_read(h, buf, sizeof(buf), &err_)) > 0) body.append(buf, static_cast<size_t>(n));
  EXPECT_EQ(n, 0);
  dl_close(h);
  EXPECT_EQ(body, "streamed");
  EXPECT_FALSE(capture_->mentions("FTP Login Info"));
}

TEST_F(FtpFrontDoor, FailedOpenLeavesNoHandle) {
  data_.add({read_to_end()});
  data_.start();
  control_.add(anonymous_session(data_.port()) + reply_to("SIZE gone.bin", "550 gone") +
               Script{read_to_end()});
  control_.start();
  std::string u = url("", "/gone.bin");
  dl_request req = {};
  req.url = const_cast<char *>(u.c_str());
  dl_handle *h = reinterpret_cast<dl_handle *>(0x1);
  EXPECT_EQ(dl_open(&req, &h, nullptr, &err_), -1);
  EXPECT_EQ(h, nullptr);
  EXPECT_EQ(err_.code, DL_ERR_FTP_REPLY);
  EXPECT_STREQ(err_.msg, "550 gone");
}

TEST_F(FtpFrontDoor, UploadToAFileUrlKeepsItsDirectory) {
  accept_upload("cfg/a.cfg");
  ASSERT_EQ(upload("/cfg/x.cfg", ""), 0) << err_.msg;
  ASSERT_TRUE(data_.wait());
  EXPECT_EQ(data_.received(0), "cfg body");
}

TEST_F(FtpFrontDoor, UploadToADirectoryUrl) {
  accept_upload("cfg/a.cfg");
  ASSERT_EQ(upload("/cfg/", nullptr), 0) << err_.msg;
}

TEST_F(FtpFrontDoor, UploadToAPathWithoutSlashOrDotGluesTheName) {
  accept_upload("cfga.cfg");
  ASSERT_EQ(upload("/cfg", ""), 0) << err_.msg;
}

TEST_F(FtpFrontDoor, UploadWithARemoteName) {
  accept_upload("cfg/new.cfg");
  ASSERT_EQ(upload("/cfg/", "new.cfg"), 0) << err_.msg;
  EXPECT_TRUE(door_logged(6, "FTP Login Info:uername=(null) passwd=******\n"));
}

}  // namespace
