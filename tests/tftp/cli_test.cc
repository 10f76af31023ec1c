// The quarry tool over TFTP: "quarry get tftp://..." and
// "quarry put FILE tftp://..." against scripted peers.
#include <stdio.h>
#include <sys/wait.h>

#include <string>

#include "tests/tftp/tftp_test_env.h"
#include "tools/cli_test_support.h"

namespace quarry_test {
namespace {

using quarry_cli_test::CliRun;

// Runs the tool with |args|; standard error is dropped.
CliRun run(const std::string &args) {
  return quarry_cli_test::run(args, quarry_cli_test::Stderr::kDropped);
}

TEST(TftpCli, GetStreamsTheFile) {
  TftpPeer peer;
  const std::string file = pattern(1000);
  peer.run([&](TftpPeer &p) {
    p.recv_one();
    p.send(oack_pkt({{"blksize", "1432"}}));
    p.recv_one();
    p.send(data_pkt(1, file));
    p.recv_one();
  });
  CliRun r = run("get tftp://127.0.0.1:" + std::to_string(peer.port()) + "/dir/f.bin");
  EXPECT_EQ(r.status, 0);
  EXPECT_TRUE(r.out == file);
  ASSERT_TRUE(peer.wait());
  EXPECT_EQ(peer.received()[0], rrq("dir/f.bin"));
}

TEST(TftpCli, PutSendsTheFileUnderItsName) {
  TftpPeer peer;
  peer.run([](TftpPeer &p) {
    p.recv_one();
    p.send(ack_pkt(0));
    p.recv_one();
    p.send(ack_pkt(1));
  });
  TempDir dir;
  std::string local = dir.write("phone.cfg", "setting=1\n");
  CliRun r = run("put " + local + " tftp://127.0.0.1:" + std::to_string(peer.port()) + "/cfg/");
  EXPECT_EQ(r.status, 0);
  ASSERT_TRUE(peer.wait());
  ASSERT_EQ(peer.received().size(), 2u);
  EXPECT_EQ(peer.received()[0], wrq("cfg/phone.cfg"));
  EXPECT_EQ(peer.received()[1], data_pkt(1, "setting=1\n"));
}

}  // namespace
}  // namespace quarry_test
