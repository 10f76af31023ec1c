// dl_tftp_read against scripted peers: negotiation, DATA and ACK, the
// spill buffer, the block wrap, sequence errors and the retry budget.
#include <sys/socket.h>

#include <atomic>
#include <string>
#include <thread>

#include "tests/tftp/tftp_test_env.h"
#include "tftp/tftp.h"

namespace quarry_test {
namespace {

class TftpRead : public TftpTest {
 protected:
  // Opens a download of |name| from |peer| on 127.0.0.1.
  dl_tftp_conn *open(TftpPeer &peer, const char *name = "f.bin") {
    dl_tftp_conn *conn = nullptr;
    EXPECT_EQ(dl_tftp_open(&conn, "127.0.0.1", peer.port(), name, &err_), 0) << err_.msg;
    return conn;
  }
  // Reads in |chunk|-byte calls until 0 or a failure; |last| gets the
  // final result.
  std::string read_all(dl_tftp_conn *conn, int chunk, int *last = nullptr) {
    std::string out;
    std::string buf(static_cast<size_t>(chunk), '\0');
    int n;
    while ((n = dl_tftp_read(conn, &buf[0], chunk, &err_)) > 0) out.append(buf, 0, static_cast<size_t>(n));
    if (last != nullptr) *last = n;
    return out;
  }
  // Downloads |expected| from |peer| in 4 KiB reads, closes, and returns
  // the packets the peer received (empty when the open failed).
  std::vector<std::string> packets_after_reading(TftpPeer &peer, const std::string &expected) {
    dl_tftp_conn *conn = open(peer);
    if (conn == nullptr) return {};
    EXPECT_EQ(read_all(conn, 4096), expected);
    dl_tftp_close(conn);
    EXPECT_TRUE(peer.wait());
    return peer.received();
  }
};

TEST_F(TftpRead, ServerWithoutOackIsReadWith512ByteBlocks) {
  TftpPeer peer;
  const std::string file = pattern(700);
  peer.run([&](TftpPeer &p) {
    p.recv_one();  // RRQ
    p.send(data_pkt(1, file.substr(0, 512)));
    p.recv_one();  // ACK 1
    p.send(data_pkt(2, file.substr(512)));
    p.recv_one();  // ACK 2
  });
  dl_tftp_conn *conn = open(peer, "/boot/f.bin");
  ASSERT_NE(conn, nullptr);
  int last = -1;
  EXPECT_EQ(read_all(conn, 4096, &last), file);
  EXPECT_EQ(last, 0);
  dl_tftp_close(conn);
  ASSERT_TRUE(peer.wait());
  std::vector<std::string> got = peer.received();
  ASSERT_EQ(got.size(), 3u);
  // Opcode 1, the name without its leading "/", "octet", "blksize", "1432".
  EXPECT_EQ(got[0], std::string("\0\1boot/f.bin\0octet\0blksize\0" "1432\0", 32));
  EXPECT_EQ(got[1], std::string("\0\4\0\1", 4));
  EXPECT_EQ(got[2], std::string("\0\4\0\2", 4));
  EXPECT_TRUE(logged(5, "tftp open begin, host: 127.0.0.1, port:" + std::to_string(peer.port()) +
                            ", remote_name:/boot/f.bin\n"));
  EXPECT_TRUE(logged(6, "Send Request Packet\n"));
  EXPECT_TRUE(logged(5, "tftp open success\n"));
}

TEST_F(TftpRead, OnlyOneLeadingSlashIsDropped) {
  TftpPeer peer;
  peer.run([&](TftpPeer &p) {
    p.recv_one();
    p.send(data_pkt(1, ""));
    p.recv_one();
  });
  dl_tftp_conn *conn = open(peer, "//x");
  ASSERT_NE(conn, nullptr);
  read_all(conn, 16);
  dl_tftp_close(conn);
  ASSERT_TRUE(peer.wait());
  EXPECT_EQ(peer.received()[0], rrq("/x"));
}

TEST_F(TftpRead, OackWithoutBlksizeFallsBackTo512) {
  TftpPeer peer;
  const std::string file = pattern(600);
  peer.run([&](TftpPeer &p) {
    p.recv_one();
    p.send(oack_pkt({{"tsize", "600"}}));
    p.recv_one();  // ACK 0
    p.send(data_pkt(1, file.substr(0, 512)));
    p.recv_one();
    p.send(data_pkt(2, file.substr(512)));
    p.recv_one();
  });
  std::vector<std::string> got = packets_after_reading(peer, file);
  ASSERT_EQ(got.size(), 4u);
  EXPECT_EQ(got[1], ack_pkt(0));
  EXPECT_TRUE(logged(6, "recv OACK\n"));
  EXPECT_TRUE(logged(6, "server only supports blocksize of 512\n"));
}

class TftpBlksize : public TftpRead, public ::testing::WithParamInterface<int> {};

TEST_P(TftpBlksize, AcceptedSizesSetTheBlock) {
  const int size = GetParam();
  TftpPeer peer;
  const std::string file = pattern(static_cast<size_t>(size) + 7);
  peer.run([&](TftpPeer &p) {
    p.recv_one();
    // Upper case name: the option is matched without regard to case.
    p.send(oack_pkt({{"tsize", "0"}, {"BlkSize", std::to_string(size)}}));
    p.recv_one();
    p.send(data_pkt(1, file.substr(0, static_cast<size_t>(size))));
    p.recv_one();
    p.send(data_pkt(2, file.substr(static_cast<size_t>(size))));
    p.recv_one();
  });
  dl_tftp_conn *conn = open(peer);
  ASSERT_NE(conn, nullptr);
  EXPECT_EQ(read_all(conn, 8192), file);
  EXPECT_EQ(conn->blksize, size);
  dl_tftp_close(conn);
  ASSERT_TRUE(peer.wait());
  EXPECT_EQ(peer.received().size(), 4u);
  EXPECT_TRUE(logged(6, "using blksize " + std::to_string(size) + "\n"));
}

INSTANTIATE_TEST_SUITE_P(Bounds, TftpBlksize, ::testing::Values(24, 1432));

class TftpBadBlksize : public TftpRead, public ::testing::WithParamInterface<const char *> {};

TEST_P(TftpBadBlksize, RefusedWithTheOptionError) {
  const std::string value = GetParam();
  TftpPeer peer;
  peer.run([&](TftpPeer &p) {
    p.recv_one();
    p.send(oack_pkt({{"blksize", value}}));
    p.recv_one();  // the ERROR packet
  });
  dl_tftp_conn *conn = open(peer);
  ASSERT_NE(conn, nullptr);
  char buf[64];
  EXPECT_EQ(dl_tftp_read(conn, buf, sizeof(buf), &err_), -1);
  EXPECT_EQ(err_.code, DL_ERR_READ);
  dl_tftp_close(conn);
  ASSERT_TRUE(peer.wait());
  std::vector<std::string> got = peer.received();
  ASSERT_EQ(got.size(), 2u);
  // Opcode 5, error code 8, "err blksize" and its NUL: 16 bytes.
  EXPECT_EQ(got[1], std::string("\0\5\0\10err blksize\0", 16));
  EXPECT_TRUE(logged(3, "bad blocksize '" + value + "'\n"));
  EXPECT_TRUE(logged(3, "err blksize\n"));
}

INSTANTIATE_TEST_SUITE_P(Bounds, TftpBadBlksize,
                         ::testing::Values("23", "1433", "", "x", "99999999999999999999"));

TEST_F(TftpRead, SmallBufferKeepsTheRestForTheNextRead) {
  TftpPeer peer;
  const std::string file = pattern(1432 + 10);
  std::atomic<int> acks{0};
  peer.run([&](TftpPeer &p) {
    p.recv_one();
    p.send(oack_pkt({{"blksize", "1432"}}));
    p.recv_one();
    p.send(data_pkt(1, file.substr(0, 1432)));
    p.recv_one();
    acks = 1;
    p.send(data_pkt(2, file.substr(1432)));
    p.recv_one();
    acks = 2;
  });
  dl_tftp_conn *conn = open(peer);
  ASSERT_NE(conn, nullptr);
  char buf[100];
  ASSERT_EQ(dl_tftp_read(conn, buf, sizeof(buf), &err_), 100);
  EXPECT_EQ(std::string(buf, 100), file.substr(0, 100));
  EXPECT_EQ(conn->spill_len, 1332);
  std::string rest;
  int n;
  while ((n = dl_tftp_read(conn, buf, sizeof(buf), &err_)) > 0) {
    rest.append(buf, static_cast<size_t>(n));
    if (rest.size() < 1332) {
      EXPECT_EQ(n, 100);
    }
  }
  EXPECT_EQ(n, 0);
  EXPECT_EQ(file.substr(100), rest);
  dl_tftp_close(conn);
  ASSERT_TRUE(peer.wait());
  EXPECT_EQ(acks.load(), 2);
  EXPECT_EQ(peer.received().size(), 4u);
}

TEST_F(TftpRead, BlockNumberWrapsFrom65535ToZero) {
  TftpPeer peer;
  const std::string file = pattern(512 * 3 + 5);
  peer.run([&](TftpPeer &p) {
    p.recv_one();
    const uint16_t blocks[] = {65534, 65535, 0, 1};
    for (int i = 0; i < 4; ++i) {
      size_t at = static_cast<size_t>(i) * 512;
      p.send(data_pkt(blocks[i], file.substr(at, 512)));
      p.recv_one();
    }
  });
  dl_tftp_conn *conn = open(peer);
  ASSERT_NE(conn, nullptr);
  // A server that starts numbering near the top: the handle is told so.
  conn->block = 65534;
  EXPECT_EQ(read_all(conn, 4096), file);
  EXPECT_EQ(conn->block, 2);
  dl_tftp_close(conn);
  ASSERT_TRUE(peer.wait());
  std::vector<std::string> got = peer.received();
  ASSERT_EQ(got.size(), 5u);
  EXPECT_EQ(got[2], ack_pkt(65535));
  EXPECT_EQ(got[3], ack_pkt(0));
  EXPECT_EQ(got[4], ack_pkt(1));
}

TEST_F(TftpRead, DuplicateDataIsAcknowledgedAgain) {
  TftpPeer peer;
  const std::string file = pattern(520);
  peer.run([&](TftpPeer &p) {
    p.recv_one();
    p.send(data_pkt(1, file.substr(0, 512)));
    p.recv_one();  // ACK 1
    p.send(data_pkt(1, file.substr(0, 512)));
    p.recv_one();  // ACK 1 again
    p.send(data_pkt(2, file.substr(512)));
    p.recv_one();
  });
  std::vector<std::string> got = packets_after_reading(peer, file);
  ASSERT_EQ(got.size(), 4u);
  EXPECT_EQ(got[1], ack_pkt(1));
  EXPECT_EQ(got[2], ack_pkt(1));
  EXPECT_EQ(got[3], ack_pkt(2));
  EXPECT_TRUE(logged(3, "tftp syn err\n"));
  EXPECT_TRUE(logged(5, "discarded 0 packets\n"));
}

TEST_F(TftpRead, OutOfOrderDataIsDroppedWithWhatFollowsIt) {
  TftpPeer peer;
  const std::string file = pattern(530);
  std::atomic<bool> queued{false};
  peer.run([&](TftpPeer &p) {
    p.recv_one();
    // Block 1, then 5, 6 and 7 out of order, all queued before the read.
    p.send(data_pkt(1, file.substr(0, 512)));
    p.send(data_pkt(5, "x"));
    p.send(data_pkt(6, "y"));
    p.send(data_pkt(7, "z"));
    queued = true;
    p.recv_one();  // ACK 1
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    p.send(data_pkt(2, file.substr(512)));
    p.recv_one();
  });
  dl_tftp_conn *conn = open(peer);
  ASSERT_NE(conn, nullptr);
  while (!queued) std::this_thread::sleep_for(std::chrono::milliseconds(1));
  std::this_thread::sleep_for(std::chrono::milliseconds(20));
  EXPECT_EQ(read_all(conn, 4096), file);
  dl_tftp_close(conn);
  ASSERT_TRUE(peer.wait());
  std::vector<std::string> got = peer.received();
  ASSERT_EQ(got.size(), 3u);
  EXPECT_EQ(got[1], ack_pkt(1));
  EXPECT_EQ(got[2], ack_pkt(2));
  EXPECT_TRUE(logged(5, "discarded 2 packets\n"));
}

TEST_F(TftpRead, TransferPortIsTakenFromEveryPacket) {
  TftpPeer peer;
  const std::string file = pattern(600);
  peer.run([&](TftpPeer &p) {
    p.recv_one();
    p.switch_port();
    p.send(oack_pkt({{"blksize", "512"}}));
    p.recv_one();  // ACK 0, at the new port
    p.send(data_pkt(1, file.substr(0, 512)));
    p.recv_one();
    p.switch_port();
    p.send(data_pkt(2, file.substr(512)));
    p.recv_one();  // ACK 2, at the newest port
  });
  std::vector<std::string> got = packets_after_reading(peer, file);
  ASSERT_EQ(got.size(), 4u);
  EXPECT_EQ(got[3], ack_pkt(2));
}

TEST_F(TftpRead, SixStrayPacketsExhaustTheBudget) {
  TftpPeer peer;
  peer.run([&](TftpPeer &p) {
    p.recv_one();
    p.send(error_pkt(1, "File not found"));
    for (int i = 0; i < 5; ++i) p.send(std::string("\0\x09junk", 6));
  });
  dl_tftp_conn *conn = open(peer);
  ASSERT_NE(conn, nullptr);
  ASSERT_TRUE(peer.wait());
  char buf[64];
  auto start = std::chrono::steady_clock::now();
  EXPECT_EQ(dl_tftp_read(conn, buf, sizeof(buf), &err_), -1);
  EXPECT_LT(seconds_since(start), 0.9);
  EXPECT_EQ(err_.code, DL_ERR_READ);
  dl_tftp_close(conn);
  EXPECT_EQ(peer.received().size(), 1u);
}

TEST_F(TftpRead, FiveStrayPacketsLeaveRoomForTheData) {
  TftpPeer peer;
  peer.run([&](TftpPeer &p) {
    p.recv_one();
    for (int i = 0; i < 5; ++i) p.send(ack_pkt(9));
    p.send(data_pkt(1, "tail"));
    p.recv_one();
  });
  dl_tftp_conn *conn = open(peer);
  ASSERT_NE(conn, nullptr);
  EXPECT_EQ(read_all(conn, 64), "tail");
  dl_tftp_close(conn);
  ASSERT_TRUE(peer.wait());
  EXPECT_EQ(peer.received().back(), ack_pkt(1));
}

TEST_F(TftpRead, ServerErrorThenSilenceEndsAtTheTimeout) {
  TftpPeer peer;
  peer.run([&](TftpPeer &p) {
    p.recv_one();
    p.send(error_pkt(1, "File not found"));
  });
  dl_tftp_conn *conn = open(peer);
  ASSERT_NE(conn, nullptr);
  char buf[64];
  auto start = std::chrono::steady_clock::now();
  EXPECT_EQ(dl_tftp_read(conn, buf, sizeof(buf), &err_), -1);
  EXPECT_GT(seconds_since(start), 0.9);
  EXPECT_EQ(err_.code, DL_ERR_READ);
  EXPECT_TRUE(capture_->mentions("Error Select! errno "));
  dl_tftp_close(conn);
  ASSERT_TRUE(peer.wait());
}

TEST_F(TftpRead, DrainingStopsAfter128Packets) {
  TftpPeer peer;
  std::atomic<bool> enlarged{false};
  std::atomic<bool> flooded{false};
  peer.run([&](TftpPeer &p) {
    p.recv_one();
    p.send(data_pkt(1, pattern(512)));
    while (!enlarged) std::this_thread::sleep_for(std::chrono::milliseconds(1));
    for (int i = 0; i < 200; ++i) p.send(data_pkt(9, ""));
    flooded = true;
  });
  dl_tftp_conn *conn = open(peer);
  ASSERT_NE(conn, nullptr);
  // Room for the whole flood in the client's socket.
  int room = 8 << 20;
  setsockopt(conn->socket, SOL_SOCKET, SO_RCVBUFFORCE, &room, sizeof(room));
  enlarged = true;
  while (!flooded) std::this_thread::sleep_for(std::chrono::milliseconds(1));
  std::this_thread::sleep_for(std::chrono::milliseconds(50));
  char buf[4096];
  EXPECT_EQ(dl_tftp_read(conn, buf, sizeof(buf), &err_), -1);
  EXPECT_EQ(err_.code, DL_ERR_READ);
  EXPECT_TRUE(logged(5, "discarded 128 packets\n"));
  EXPECT_TRUE(logged(5, "discarded 70 packets\n"));
  dl_tftp_close(conn);
  ASSERT_TRUE(peer.wait());
}

TEST_F(TftpRead, ArgumentChecks) {
  TftpPeer peer;
  peer.run([&](TftpPeer &p) {
    p.recv_one();
    p.send(data_pkt(1, "abc"));
  });
  dl_tftp_conn *conn = open(peer);
  ASSERT_NE(conn, nullptr);
  char buf[8];
  EXPECT_EQ(dl_tftp_read(nullptr, buf, 8, &err_), -1);
  EXPECT_EQ(err_.code, DL_ERR_PARAM);
  EXPECT_EQ(dl_tftp_read(conn, nullptr, 8, &err_), -1);
  EXPECT_EQ(dl_tftp_read(conn, buf, 8, nullptr), -1);
  // A negative length is refused rather than copied with.
  EXPECT_EQ(dl_tftp_read(conn, buf, -1, &err_), -1);
  conn->magic = 1;
  EXPECT_EQ(dl_tftp_read(conn, buf, 8, &err_), -1);
  dl_tftp_close(conn);
  EXPECT_TRUE(logged(3, "tftp close with invalid parameter\n"));
  conn->magic = DL_TFTP_MAGIC;
  EXPECT_EQ(count(3, "Tftp read with invalid parameter\n"), 5);
  EXPECT_EQ(dl_tftp_read(conn, buf, 0, &err_), 0);
  EXPECT_EQ(dl_tftp_read(conn, buf, 8, &err_), 3);
  dl_tftp_close(conn);
  dl_tftp_close(nullptr);
  EXPECT_EQ(count(3, "tftp close with invalid parameter\n"), 2);
  ASSERT_TRUE(peer.wait());
}

}  // namespace
}  // namespace quarry_test
