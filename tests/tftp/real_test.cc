// The TFTP client against real servers on loopback: tftpd-hpa over IPv4
// and IPv6, and atftpd as a second implementation. Files are compared
// byte for byte.
#include <unistd.h>

#include <string>
#include <thread>

#include "tests/support/real_servers.h"
#include "tests/tftp/tftp_test_env.h"

namespace quarry_test {
namespace {

constexpr uint32_t kFourMiB = 4u << 20;

class TftpReal : public TftpTest {
 protected:
  void SetUp() override {
    TftpTest::SetUp();
    set_option(DL_OPT_MAX_FILE_SIZE, kFourMiB);
  }
  // Waits until the server has written |size| bytes of |path| (it writes
  // as blocks arrive and may still be busy when the client is done).
  static std::string stored(const std::string &path, size_t size) {
    for (int i = 0; i < 200 && read_file(path).size() < size; ++i) {
      std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    return read_file(path);
  }
  // Downloads |name| from |host|:|port| and compares it with |original|.
  void download_matches(const char *host, uint16_t port, const std::string &name,
                        const std::string &original) {
    TempDir dir;
    ASSERT_EQ(dl_tftp_recv_to_file(host, port, name.c_str(), dir.file("got").c_str(), &err_), 0)
        << err_.msg;
    EXPECT_TRUE(read_file(dir.file("got")) == read_file(original)) << name;
    EXPECT_TRUE(logged(6, "using blksize 1432\n"));
  }
  // Uploads |size| bytes as |name| and compares what the server stored.
  void upload_matches(const char *host, uint16_t port, const std::string &upload_dir,
                      const std::string &name, size_t size) {
    TempDir dir;
    std::string content = pattern(size, static_cast<unsigned>(size));
    std::string local = dir.write("local.bin", content);
    ASSERT_EQ(dl_tftp_send_file(host, port, name.c_str(), local.c_str(), &err_), 0) << err_.msg;
    EXPECT_TRUE(stored(upload_dir + "/" + name, size) == content) << name;
    EXPECT_TRUE(logged(5, "send: " + std::to_string(size) + " bytes\n"));
  }
  // A name no earlier run of this process has uploaded.
  static std::string fresh_name(const std::string &stem) {
    static int counter = 0;
    return stem + "-" + std::to_string(getpid()) + "-" + std::to_string(++counter) + ".bin";
  }
};

TEST_F(TftpReal, TftpdHpaDownloadOverIpv4) {
  QUARRY_USE_SERVER(tftpd, "tftpd");
  download_matches("127.0.0.1", tftpd.port("tftp"), "3M.bin", tftpd.path("root/3M.bin"));
  download_matches("127.0.0.1", tftpd.port("tftp"), "/hello.txt", tftpd.path("root/hello.txt"));
}

TEST_F(TftpReal, TftpdHpaDownloadOverIpv6) {
  QUARRY_USE_SERVER(tftpd, "tftpd");
  QUARRY_REQUIRE_IPV6(tftpd);
  set_option(DL_OPT_IPV6_ENABLE, 1);
  download_matches("::1", tftpd.port("tftp6"), "3M.bin", tftpd.path("root/3M.bin"));
}

TEST_F(TftpReal, TftpdHpaStreamedReadsInOddPieces) {
  QUARRY_USE_SERVER(tftpd, "tftpd");
  dl_tftp_conn *conn = nullptr;
  ASSERT_EQ(dl_tftp_open(&conn, "127.0.0.1", tftpd.port("tftp"), "3M.bin", &err_), 0) << err_.msg;
  std::string got;
  char buf[1000];
  int n;
  while ((n = dl_tftp_read(conn, buf, sizeof(buf), &err_)) > 0) got.append(buf, static_cast<size_t>(n));
  EXPECT_EQ(n, 0) << err_.msg;
  dl_tftp_close(conn);
  EXPECT_TRUE(got == read_file(tftpd.path("root/3M.bin")));
}

TEST_F(TftpReal, TftpdHpaUploadOverIpv4) {
  QUARRY_USE_SERVER(tftpd, "tftpd");
  std::string root = tftpd.path("root");
  upload_matches("127.0.0.1", tftpd.port("tftp"), root, fresh_name("up"), 300000);
  upload_matches("127.0.0.1", tftpd.port("tftp"), root, fresh_name("small"), 10);
  // No empty block ends an exact multiple; the server has the data anyway.
  upload_matches("127.0.0.1", tftpd.port("tftp"), root, fresh_name("exact"), 2 * 1432);
}

TEST_F(TftpReal, TftpdHpaUploadOverIpv6) {
  QUARRY_USE_SERVER(tftpd, "tftpd");
  QUARRY_REQUIRE_IPV6(tftpd);
  set_option(DL_OPT_IPV6_ENABLE, 1);
  upload_matches("::1", tftpd.port("tftp6"), tftpd.path("root"), fresh_name("up6"), 100000);
}

TEST_F(TftpReal, TftpdHpaMissingFileLeavesNoFile) {
  QUARRY_USE_SERVER(tftpd, "tftpd");
  TempDir dir;
  EXPECT_EQ(dl_tftp_recv_to_file("127.0.0.1", tftpd.port("tftp"), "no-such-file",
                                 dir.file("got").c_str(), &err_),
            -1);
  EXPECT_EQ(err_.code, DL_ERR_READ);
  EXPECT_FALSE(file_exists(dir.file("got")));
}

TEST_F(TftpReal, TftpdHpaThroughTheFrontDoor) {
  QUARRY_USE_SERVER(tftpd, "tftpd");
  TempDir dir;
  std::string url = tftpd.url("tftp", "/hello.txt");
  dl_request req = {};
  req.url = const_cast<char *>(url.c_str());
  ASSERT_EQ(dl_download(&req, dir.file("hello.txt").c_str(), nullptr, &err_), 0) << err_.msg;
  EXPECT_EQ(read_file(dir.file("hello.txt")), read_file(tftpd.path("root/hello.txt")));

  // An upload to a URL naming a file keeps its directory and takes the
  // local file's name.
  std::string name = fresh_name("door");
  std::string local = dir.write(name, pattern(5000));
  std::string up_url = tftpd.url("tftp", "/ignored.cfg");
  req.url = const_cast<char *>(up_url.c_str());
  ASSERT_EQ(dl_upload(&req, local.c_str(), nullptr, nullptr, &err_, nullptr, 0, 0), 0) << err_.msg;
  EXPECT_TRUE(stored(tftpd.path("root/" + name), 5000) == pattern(5000));
}

TEST_F(TftpReal, AtftpdDownloadAndUpload) {
  QUARRY_USE_SERVER(atftpd, "atftpd");
  download_matches("127.0.0.1", atftpd.port("tftp"), "1M.bin", atftpd.path("root/1M.bin"));
  upload_matches("127.0.0.1", atftpd.port("tftp"), atftpd.path("root"), fresh_name("aup"),
                 200000);
}

}  // namespace
}  // namespace quarry_test
