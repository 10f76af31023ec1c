// Uploads against scripted peers: the WRQ and its answers, blocks and
// their ACKs, six sends per block, and the end of the file.
#include <string>
#include <vector>

#include "tests/tftp/tftp_test_env.h"
#include "tftp/tftp.h"

namespace quarry_test {
namespace {

class TftpUpload : public TftpTest {
 protected:
  // A peer that answers the WRQ with |first| and every DATA with its ACK
  // until a short block; it stores the payloads in |*got|.
  void accept(TftpPeer &peer, const std::string &first, std::string *got, size_t blksize) {
    peer.run([first, got, blksize](TftpPeer &p) {
      if (p.recv_one().empty()) return;
      p.send(first);
      for (;;) {
        std::string pkt = p.recv_one(1500);
        if (pkt.size() < 4) return;
        got->append(pkt.substr(4));
        p.send(pkt.substr(0, 1) + "\4" + pkt.substr(2, 2));
        if (pkt.size() - 4 < blksize) return;
      }
    });
  }
  int send(TftpPeer &peer, const std::string &local, const char *remote = "up.bin") {
    return dl_tftp_send_file("127.0.0.1", peer.port(), remote, local.c_str(), &err_);
  }
  TempDir dir_;
};

TEST_F(TftpUpload, AckZeroKeeps512ByteBlocks) {
  TftpPeer peer;
  std::string got;
  const std::string file = pattern(1300);
  accept(peer, ack_pkt(0), &got, 512);
  ASSERT_EQ(send(peer, dir_.write("a.bin", file), "/cfg/up.bin"), 0) << err_.msg;
  ASSERT_TRUE(peer.wait());
  EXPECT_EQ(got, file);
  std::vector<std::string> pkts = peer.received();
  ASSERT_EQ(pkts.size(), 4u);
  // Opcode 2, the name without its leading "/", "octet", "blksize", "1432".
  EXPECT_EQ(pkts[0], std::string("\0\2cfg/up.bin\0octet\0blksize\0" "1432\0", 32));
  EXPECT_EQ(pkts[1].substr(0, 4), std::string("\0\3\0\1", 4));
  EXPECT_EQ(pkts[1].size(), 516u);
  EXPECT_EQ(pkts[3].size(), 4u + 1300 - 1024);
  EXPECT_TRUE(logged(5, "send: 1300 bytes\n"));
  EXPECT_TRUE(logged(5, "tftp open success\n"));
}

TEST_F(TftpUpload, OackSetsTheBlockSize) {
  TftpPeer peer;
  std::string got;
  const std::string file = pattern(3000);
  accept(peer, oack_pkt({{"blksize", "1432"}}), &got, 1432);
  ASSERT_EQ(send(peer, dir_.write("a.bin", file)), 0) << err_.msg;
  ASSERT_TRUE(peer.wait());
  EXPECT_EQ(got, file);
  EXPECT_EQ(peer.received().size(), 4u);
  EXPECT_EQ(peer.received()[1].size(), 1436u);
  EXPECT_TRUE(logged(6, "using blksize 1432\n"));
}

TEST_F(TftpUpload, ExactMultipleSendsNoEmptyBlock) {
  TftpPeer peer;
  std::string got;
  const std::string file = pattern(1024);
  peer.run([&](TftpPeer &p) {
    p.recv_one();
    p.send(ack_pkt(0));
    for (uint16_t block = 1; block <= 2; ++block) {
      got += p.recv_one().substr(4);
      p.send(ack_pkt(block));
    }
    // Nothing more may come.
    EXPECT_EQ(p.recv_one(300), "");
  });
  dl_tftp_conn *conn = nullptr;
  ASSERT_EQ(dl_tftp_send_open(&conn, "127.0.0.1", peer.port(), "up.bin", &err_), 0);
  EXPECT_EQ(conn->block, 1);
  EXPECT_EQ(dl_tftp_send(conn, dir_.write("a.bin", file).c_str(), &err_), 1024);
  dl_tftp_close(conn);
  ASSERT_TRUE(peer.wait());
  EXPECT_EQ(got, file);
  EXPECT_EQ(peer.received().size(), 3u);
}

TEST_F(TftpUpload, EmptyFileSendsNoData) {
  TftpPeer peer;
  peer.run([](TftpPeer &p) {
    p.recv_one();
    p.send(ack_pkt(0));
    EXPECT_EQ(p.recv_one(300), "");
  });
  ASSERT_EQ(send(peer, dir_.write("empty.bin", "")), 0) << err_.msg;
  ASSERT_TRUE(peer.wait());
  EXPECT_EQ(peer.received().size(), 1u);
  EXPECT_TRUE(logged(5, "send: 0 bytes\n"));
}

TEST_F(TftpUpload, LostAckIsMadeUpByTheResentBlock) {
  TftpPeer peer;
  const std::string file = pattern(700);
  peer.run([&](TftpPeer &p) {
    p.recv_one();
    p.send(ack_pkt(0));
    p.recv_one();  // DATA 1: its ACK is lost, the server says ACK 0 again
    p.send(ack_pkt(0));
    p.recv_one();  // DATA 1 again
    p.send(ack_pkt(1));
    p.recv_one();  // DATA 2
    p.send(ack_pkt(2));
  });
  ASSERT_EQ(send(peer, dir_.write("a.bin", file)), 0) << err_.msg;
  ASSERT_TRUE(peer.wait());
  std::vector<std::string> pkts = peer.received();
  ASSERT_EQ(pkts.size(), 4u);
  EXPECT_EQ(pkts[1], pkts[2]);
  EXPECT_EQ(pkts[3], data_pkt(2, file.substr(512)));
  EXPECT_TRUE(logged(3, "tftp syn err\n"));
}

TEST_F(TftpUpload, BlocksNeverAcknowledgedAreSentSixTimesEach) {
  TftpPeer peer;
  const std::string file = pattern(600);
  peer.run([](TftpPeer &p) {
    p.recv_one();
    p.send(ack_pkt(0));
    // Every DATA is answered, never with its own ACK.
    for (int i = 0; i < 12; ++i) {
      if (p.recv_one(2000).empty()) return;
      p.send(ack_pkt(999));
    }
  });
  ASSERT_EQ(send(peer, dir_.write("a.bin", file)), 0) << err_.msg;
  ASSERT_TRUE(peer.wait());
  std::vector<std::string> pkts = peer.received();
  ASSERT_EQ(pkts.size(), 13u);
  for (int i = 1; i <= 6; ++i) EXPECT_EQ(pkts[i], data_pkt(1, file.substr(0, 512))) << i;
  for (int i = 7; i <= 12; ++i) EXPECT_EQ(pkts[i], data_pkt(2, file.substr(512))) << i;
  EXPECT_TRUE(logged(5, "send: 600 bytes\n"));
}

TEST_F(TftpUpload, SilenceAfterABlockIsATimeout) {
  TftpPeer peer;
  peer.run([](TftpPeer &p) {
    p.recv_one();
    p.send(ack_pkt(0));
    p.recv_one();
  });
  EXPECT_EQ(send(peer, dir_.write("a.bin", "abc")), -1);
  EXPECT_EQ(err_.code, DL_ERR_READ);
  EXPECT_TRUE(capture_->mentions("Error Select! errno "));
  ASSERT_TRUE(peer.wait());
}

TEST_F(TftpUpload, SilenceAfterTheRequestIsATimeout) {
  TftpPeer peer;
  peer.run([](TftpPeer &p) { p.recv_one(); });
  auto start = std::chrono::steady_clock::now();
  EXPECT_EQ(send(peer, dir_.write("a.bin", "abc")), -1);
  EXPECT_LT(seconds_since(start), 2.5);
  EXPECT_EQ(err_.code, DL_ERR_READ);
  ASSERT_TRUE(peer.wait());
  EXPECT_EQ(peer.received().size(), 1u);
}

TEST_F(TftpUpload, RequestIsSentSixTimesAtMost) {
  TftpPeer peer;
  peer.run([](TftpPeer &p) {
    for (int i = 0; i < 6; ++i) {
      if (p.recv_one(2000).empty()) return;
      p.send(i % 2 == 0 ? error_pkt(6, "File already exists") : ack_pkt(3));
    }
  });
  EXPECT_EQ(send(peer, dir_.write("a.bin", "abc")), -1);
  EXPECT_EQ(err_.code, DL_ERR_READ);
  ASSERT_TRUE(peer.wait());
  std::vector<std::string> pkts = peer.received();
  ASSERT_EQ(pkts.size(), 6u);
  for (const std::string &pkt : pkts) EXPECT_EQ(pkt, wrq("up.bin"));
  // ACKs of another block drain the socket first.
  EXPECT_EQ(count(3, "tftp syn err\n"), 3);
}

TEST_F(TftpUpload, BadBlksizeInOackIsRefused) {
  TftpPeer peer;
  peer.run([](TftpPeer &p) {
    p.recv_one();
    p.send(oack_pkt({{"blksize", "8"}}));
    p.recv_one();
  });
  EXPECT_EQ(send(peer, dir_.write("a.bin", "abc")), -1);
  EXPECT_EQ(err_.code, DL_ERR_READ);
  ASSERT_TRUE(peer.wait());
  EXPECT_EQ(peer.received().back(), blksize_error_pkt());
  EXPECT_TRUE(logged(3, "bad blocksize '8'\n"));
}

TEST_F(TftpUpload, TransferPortOfTheServerIsFollowed) {
  TftpPeer peer;
  const std::string file = pattern(100);
  peer.run([&](TftpPeer &p) {
    p.recv_one();
    p.switch_port();
    p.send(ack_pkt(0));
    p.recv_one();  // DATA 1 at the new port
    p.send(ack_pkt(1));
  });
  ASSERT_EQ(send(peer, dir_.write("a.bin", file)), 0) << err_.msg;
  ASSERT_TRUE(peer.wait());
  EXPECT_EQ(peer.received().back(), data_pkt(1, file));
}

TEST_F(TftpUpload, FileLargerThanTheLimitIsRefused) {
  set_option(DL_OPT_MAX_FILE_SIZE, 99);
  TftpPeer peer;
  peer.run([](TftpPeer &p) {
    p.recv_one();
    p.send(ack_pkt(0));
  });
  EXPECT_EQ(send(peer, dir_.write("a.bin", pattern(100))), -1);
  EXPECT_EQ(err_.code, DL_ERR_MAX_SIZE);
  EXPECT_TRUE(logged(3, "Send file size larger than maxsize 99\n"));
  ASSERT_TRUE(peer.wait());
  EXPECT_EQ(peer.received().size(), 1u);
}

TEST_F(TftpUpload, EndlessSourceStopsAtTheLimit) {
  // /dev/zero has a size of 0 and no end.
  set_option(DL_OPT_MAX_FILE_SIZE, 2000);
  TftpPeer peer;
  std::string got;
  accept(peer, ack_pkt(0), &got, 512);
  EXPECT_EQ(send(peer, "/dev/zero"), -1);
  EXPECT_EQ(err_.code, DL_ERR_MAX_SIZE);
  EXPECT_TRUE(logged(3, "Send file size larger than maxsize 2000\n"));
  peer.wait();
  EXPECT_EQ(got.size(), 1536u);
}

TEST_F(TftpUpload, RemoteNameDefaultsToTheLocalFileName) {
  TftpPeer peer;
  std::string got;
  accept(peer, ack_pkt(0), &got, 512);
  ASSERT_EQ(dl_tftp_send_file("127.0.0.1", peer.port(), "", dir_.write("local.cfg", "x").c_str(),
                              &err_),
            0);
  ASSERT_TRUE(peer.wait());
  EXPECT_EQ(peer.received()[0], wrq("local.cfg"));
}

TEST_F(TftpUpload, MissingLocalFileIsRefusedBeforeAnyRequest) {
  TftpPeer peer;
  peer.run([](TftpPeer &p) { p.recv_one(300); });
  EXPECT_EQ(dl_tftp_send_file("127.0.0.1", peer.port(), "x", nullptr, &err_), -1);
  EXPECT_EQ(err_.code, DL_ERR_PARAM);
  EXPECT_TRUE(logged(3, "tftp open with invalid parmeter\n"));
  ASSERT_TRUE(peer.wait());
  EXPECT_TRUE(peer.received().empty());
}

TEST_F(TftpUpload, UnreadableLocalFile) {
  TftpPeer peer;
  peer.run([](TftpPeer &p) {
    p.recv_one();
    p.send(ack_pkt(0));
  });
  std::string missing = dir_.file("missing.bin");
  EXPECT_EQ(send(peer, missing), -1);
  EXPECT_EQ(err_.code, DL_ERR_READ);
  EXPECT_TRUE(logged(3, "Can't open " + missing + "\n"));
  ASSERT_TRUE(peer.wait());
}

TEST_F(TftpUpload, SendChecksItsArguments) {
  dl_tftp_conn fake = {};
  EXPECT_EQ(dl_tftp_send(nullptr, "/etc/hostname", &err_), -1);
  EXPECT_EQ(err_.code, DL_ERR_PARAM);
  EXPECT_EQ(dl_tftp_send(&fake, "/etc/hostname", &err_), -1);
  fake.magic = DL_TFTP_MAGIC;
  EXPECT_EQ(dl_tftp_send(&fake, "/etc/hostname", &err_), -1);  // socket 0
  EXPECT_EQ(dl_tftp_send(&fake, nullptr, &err_), -1);
  EXPECT_EQ(count(3, "Tftp read with invalid parameter\n"), 4);
}

}  // namespace
}  // namespace quarry_test
