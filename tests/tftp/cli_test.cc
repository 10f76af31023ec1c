// The quarry tool over TFTP: "quarry get tftp://..." and
// "quarry put FILE tftp://..." against scripted peers.
#include <stdio.h>
#include <sys/wait.h>

#include <string>

#include "tests/tftp/tftp_test_env.h"

namespace quarry_test {
namespace {

struct CliRun {
  int status;
  std::string out;
};

// Runs the tool with |args|; standard error is dropped.
CliRun run(const std::string &args) {
  std::string command = std::string(QUARRY_CLI) + " " + args + " 2>/dev/null";
  CliRun result{-1, ""};
  FILE *pipe = popen(command.c_str(), "r");
  if (pipe == nullptr) return result;
  char buf[4096];
  size_t n;
  while ((n = fread(buf, 1, sizeof(buf), pipe)) > 0) result.out.append(buf, n);
  int status = pclose(pipe);
  result.status = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  return result;
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
