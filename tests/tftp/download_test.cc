// dl_tftp_recv_to_file against scripted peers: whole files, the size
// limit, and no file left behind by a failure.
#include <sys/stat.h>

#include <algorithm>
#include <string>

#include "tests/tftp/tftp_test_env.h"

namespace quarry_test {
namespace {

class TftpDownload : public TftpTest {
 protected:
  // A peer that negotiates |blksize| and serves |file|, ending with an
  // empty block when the size is an exact multiple.
  void serve(TftpPeer &peer, const std::string &file, int blksize = 1432) {
    peer.run([file, blksize](TftpPeer &p) {
      p.recv_one();
      p.send(oack_pkt({{"blksize", std::to_string(blksize)}}));
      if (p.recv_one().empty()) return;
      size_t size = static_cast<size_t>(blksize);
      uint16_t block = 1;
      for (size_t at = 0;; at += size, ++block) {
        p.send(data_pkt(block, file.substr(std::min(at, file.size()), size)));
        if (p.recv_one(2000).empty()) return;
        if (file.size() < at + size) return;
      }
    });
  }
  int fetch(TftpPeer &peer, const std::string &local) {
    return dl_tftp_recv_to_file("127.0.0.1", peer.port(), "f.bin", local.c_str(), &err_);
  }
};

TEST_F(TftpDownload, SavesTheFile) {
  TftpPeer peer;
  const std::string file = pattern(5000);
  serve(peer, file);
  TempDir dir;
  ASSERT_EQ(fetch(peer, dir.file("f.bin")), 0) << err_.msg;
  EXPECT_EQ(read_file(dir.file("f.bin")), file);
  EXPECT_TRUE(logged(5, "recv: 5000 bytes\n"));
  ASSERT_TRUE(peer.wait());
  // RRQ, ACK 0, then ACKs 1 to 4.
  EXPECT_EQ(peer.received().size(), 6u);
}

TEST_F(TftpDownload, ExactMultipleEndsWithTheEmptyBlock) {
  TftpPeer peer;
  const std::string file = pattern(2 * 1432);
  serve(peer, file);
  TempDir dir;
  ASSERT_EQ(fetch(peer, dir.file("f.bin")), 0) << err_.msg;
  EXPECT_EQ(read_file(dir.file("f.bin")), file);
  ASSERT_TRUE(peer.wait());
  EXPECT_EQ(peer.received().back(), ack_pkt(3));
}

TEST_F(TftpDownload, EmptyFile) {
  TftpPeer peer;
  serve(peer, "");
  TempDir dir;
  ASSERT_EQ(fetch(peer, dir.file("f.bin")), 0) << err_.msg;
  EXPECT_TRUE(file_exists(dir.file("f.bin")));
  EXPECT_EQ(read_file(dir.file("f.bin")), "");
  EXPECT_TRUE(logged(5, "recv: 0 bytes\n"));
  ASSERT_TRUE(peer.wait());
  EXPECT_EQ(peer.received().back(), ack_pkt(1));
}

TEST_F(TftpDownload, SizeEqualToTheLimitIsAllowed) {
  set_option(DL_OPT_MAX_FILE_SIZE, 3000);
  TftpPeer peer;
  const std::string file = pattern(3000);
  serve(peer, file);
  TempDir dir;
  ASSERT_EQ(fetch(peer, dir.file("f.bin")), 0) << err_.msg;
  EXPECT_EQ(read_file(dir.file("f.bin")), file);
  ASSERT_TRUE(peer.wait());
}

TEST_F(TftpDownload, LargerThanTheLimitLeavesNoFile) {
  set_option(DL_OPT_MAX_FILE_SIZE, 2999);
  TftpPeer peer;
  serve(peer, pattern(3000));
  TempDir dir;
  EXPECT_EQ(fetch(peer, dir.file("f.bin")), -1);
  EXPECT_EQ(err_.code, DL_ERR_MAX_SIZE);
  EXPECT_STREQ(err_.msg, "exceed max size 2999");
  EXPECT_TRUE(logged(3, "exceed max size\n"));
  EXPECT_FALSE(file_exists(dir.file("f.bin")));
  peer.wait();
}

TEST_F(TftpDownload, FailedTransferLeavesNoPartialFile) {
  TftpPeer peer;
  peer.run([](TftpPeer &p) {
    p.recv_one();
    p.send(data_pkt(1, pattern(512)));
    p.recv_one();
    // Then silence: the read times out.
  });
  TempDir dir;
  std::string local = dir.write("f.bin", "older content");
  EXPECT_EQ(fetch(peer, local), -1);
  EXPECT_EQ(err_.code, DL_ERR_READ);
  EXPECT_FALSE(file_exists(local));
  ASSERT_TRUE(peer.wait());
}

TEST_F(TftpDownload, UnwritableLocalPathFailsWithoutACode) {
  TftpPeer peer;
  peer.run([](TftpPeer &p) {
    p.recv_one();
    p.send(data_pkt(1, "x"));
  });
  TempDir dir;
  std::string local = dir.file("missing-dir/f.bin");
  EXPECT_EQ(fetch(peer, local), -1);
  EXPECT_EQ(err_.code, 0);
  EXPECT_TRUE(logged(3, "Can't open " + local + "\n"));
  ASSERT_TRUE(peer.wait());
}

TEST_F(TftpDownload, DirectoryInTheWayIsNotRemoved) {
  TftpPeer peer;
  peer.run([](TftpPeer &p) {
    p.recv_one();
    p.send(data_pkt(1, "x"));
  });
  TempDir dir;
  std::string local = dir.file("sub");
  ASSERT_EQ(mkdir(local.c_str(), 0700), 0);
  EXPECT_EQ(fetch(peer, local), -1);
  EXPECT_TRUE(dl_path_is_directory(local.c_str()));
  ASSERT_TRUE(peer.wait());
}

TEST_F(TftpDownload, WithoutLocalPathTheRemoteNameIsUsed) {
  TempDir dir;
  std::string remote = dir.file("named.bin");
  TftpPeer peer;
  serve(peer, "abc");
  ASSERT_EQ(dl_tftp_recv_to_file("127.0.0.1", peer.port(), remote.c_str(), nullptr, &err_), 0);
  EXPECT_EQ(read_file(remote), "abc");
  ASSERT_TRUE(peer.wait());
  // The request carries the name without its leading "/".
  EXPECT_EQ(peer.received()[0], rrq(remote.substr(1)));
}

}  // namespace
}  // namespace quarry_test
