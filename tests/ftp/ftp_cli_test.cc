// The quarry tool over FTP against scripted servers: get through the
// front door, put with --append, --store and --limit-mode.
#include <gtest/gtest.h>
#include <stdio.h>
#include <sys/wait.h>

#include <string>

#include "tests/ftp/ftp_peer.h"
#include "tools/cli_test_support.h"

namespace {

using namespace quarry_test;

using quarry_cli_test::CliRun;
using quarry_cli_test::run;

class FtpCli : public ::testing::Test {
 protected:
  std::string base() const { return "ftp://127.0.0.1:" + std::to_string(control_.port()); }
  // An upload of up.txt into dir/ whose SIZE is answered |size| and whose
  // transfer command is |command|.
  void accept_upload(const std::string &size, const std::string &command) {
    data_.add({read_to_end()});
    data_.start();
    control_.add(anonymous_session(data_.port()) + reply_to("SIZE dir/up.txt", size) +
                 reply_to(command + " dir/up.txt", "150 ok") +
                 Script{send_bytes("226 done\r\n")} + reply_to("QUIT", "221 bye") +
                 Script{read_to_end()});
    control_.start();
  }
  std::string put(const std::string &options) {
    std::string file = dir_.write("up.txt", "payload");
    CliRun r = run("put " + file + " " + base() + "/dir/ " + options);
    status_ = r.status;
    return r.out;
  }

  TcpPeer control_;
  TcpPeer data_;
  TempDir dir_;
  int status_ = -1;
};

TEST_F(FtpCli, GetStreamsTheFile) {
  data_.add({send_bytes("ftp body"), close_conn()});
  data_.start();
  control_.add(anonymous_session(data_.port()) + reply_to("SIZE pub/f.txt", "213 8") +
               reply_to("RETR pub/f.txt", "150 go") + Script{read_to_end()});
  control_.start();
  CliRun r = run("get " + base() + "/pub/f.txt");
  EXPECT_EQ(r.status, 0) << r.out;
  EXPECT_EQ(r.out, "ftp body");
}

TEST_F(FtpCli, PutStoresByDefault) {
  accept_upload("213 3", "STOR");
  std::string out = put("");
  EXPECT_EQ(status_, 0) << out;
  ASSERT_TRUE(data_.wait());
  EXPECT_EQ(data_.received(0), "payload");
}

TEST_F(FtpCli, PutAppendsOnRequest) {
  accept_upload("213 3", "APPE");
  std::string out = put("--append");
  EXPECT_EQ(status_, 0) << out;
}

TEST_F(FtpCli, PutStopsOverTheLimitWithLimitMode2) {
  data_.add({read_to_end()});
  data_.start();
  control_.add(anonymous_session(data_.port()) + reply_to("SIZE dir/up.txt", "213 3") +
               reply_to("QUIT", "221 bye") + Script{read_to_end()});
  control_.start();
  std::string out = put("--append --limit-mode 2 --set max_file_size=5");
  EXPECT_EQ(status_, 1);
  EXPECT_EQ(out, "quarry: failed: -21 Exceed max size\n");
}

}  // namespace
