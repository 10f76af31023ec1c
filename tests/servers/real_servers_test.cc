// Proves each real server of the test kit starts and answers, with raw
// socket exchanges and OpenSSL handshakes only, and that the fixture's skip,
// fail and clean-up rules hold.
#include <arpa/inet.h>
#include <netinet/in.h>
#include <openssl/err.h>
#include <openssl/evp.h>
#include <openssl/ssl.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <sys/wait.h>
#include <unistd.h>

#include <fstream>
#include <memory>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "tests/support/log_capture.h"
#include "tests/support/real_servers.h"

namespace quarry_test {
namespace {

constexpr int kIoTimeoutSeconds = 10;

class Socket {
 public:
  explicit Socket(int fd = -1) : fd_(fd) {}
  ~Socket() {
    if (fd_ >= 0) close(fd_);
  }
  Socket(const Socket &) = delete;
  Socket &operator=(const Socket &) = delete;
  int get() const { return fd_; }
  bool valid() const { return fd_ >= 0; }

 private:
  int fd_;
};

// A socket of |type| connected to loopback |port|, with I/O timeouts so a
// silent server fails the test instead of hanging it.
int connect_loopback(bool v6, uint16_t port, int type = SOCK_STREAM) {
  int fd = socket(v6 ? AF_INET6 : AF_INET, type | SOCK_CLOEXEC, 0);
  if (fd < 0) return -1;
  timeval timeout{kIoTimeoutSeconds, 0};
  setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &timeout, sizeof timeout);
  setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &timeout, sizeof timeout);
  sockaddr_storage addr{};
  socklen_t len = loopback_address(v6, port, &addr);
  int rc = connect(fd, reinterpret_cast<sockaddr *>(&addr), len);
  if (rc != 0) {
    close(fd);
    return -1;
  }
  return fd;
}

bool send_all(int fd, const std::string &data) {
  size_t done = 0;
  while (done < data.size()) {
    ssize_t n = send(fd, data.data() + done, data.size() - done, MSG_NOSIGNAL);
    if (n <= 0) return false;
    done += static_cast<size_t>(n);
  }
  return true;
}

std::string read_to_end(int fd) {
  std::string out;
  char buf[4096];
  ssize_t n;
  while ((n = recv(fd, buf, sizeof buf, 0)) > 0) out.append(buf, static_cast<size_t>(n));
  return out;
}

// Reads until the bytes received end with |marker| (or the peer stops).
std::string read_until(int fd, const std::string &marker) {
  std::string out;
  char c;
  while (out.size() < marker.size() ||
         out.compare(out.size() - marker.size(), marker.size(), marker) != 0) {
    if (recv(fd, &c, 1, 0) != 1) break;
    out += c;
  }
  return out;
}

// One HTTP exchange on a fresh connection: sends |request| and returns all
// the server sent until it closed.
std::string http_exchange(uint16_t port, const std::string &request, bool v6 = false) {
  Socket s(connect_loopback(v6, port));
  if (!s.valid() || !send_all(s.get(), request)) return "";
  return read_to_end(s.get());
}

std::string get_request(const std::string &path, const std::string &extra = "") {
  return "GET " + path + " HTTP/1.1\r\nHost: 127.0.0.1\r\n" + extra + "Connection: close\r\n\r\n";
}

bool starts_with(const std::string &text, const std::string &prefix) {
  return text.compare(0, prefix.size(), prefix) == 0;
}

bool ends_with(const std::string &text, const std::string &suffix) {
  return text.size() >= suffix.size() &&
         text.compare(text.size() - suffix.size(), suffix.size(), suffix) == 0;
}

// The value of a quoted parameter (|name|="value") in |header|.
std::string quoted_param(const std::string &header, const std::string &name) {
  size_t at = header.find(name + "=\"");
  if (at == std::string::npos) return "";
  at += name.size() + 2;
  size_t end = header.find('"', at);
  return end == std::string::npos ? "" : header.substr(at, end - at);
}

std::string md5_hex(const std::string &data) {
  unsigned char digest[EVP_MAX_MD_SIZE];
  unsigned int len = 0;
  if (EVP_Digest(data.data(), data.size(), digest, &len, EVP_md5(), nullptr) != 1) return "";
  static const char kHex[] = "0123456789abcdef";
  std::string out;
  for (unsigned int i = 0; i < len; ++i) {
    out += kHex[digest[i] >> 4];
    out += kHex[digest[i] & 0xf];
  }
  return out;
}

// ---------------------------------------------------------------- TLS

struct SslCtxFree {
  void operator()(SSL_CTX *ctx) const { SSL_CTX_free(ctx); }
};
struct SslFree {
  void operator()(SSL *ssl) const { SSL_free(ssl); }
};
using SslCtxPtr = std::unique_ptr<SSL_CTX, SslCtxFree>;
using SslPtr = std::unique_ptr<SSL, SslFree>;

struct TlsResult {
  bool handshake = false;
  int version = 0;
  std::string reply;
  std::string error;
};

// Handshakes with loopback |port| at exactly |version| (security level 0,
// as TLS 1.0/1.1 need), verifying the server against the test CA; sends
// |request| if not empty and reads the reply.
TlsResult tls_exchange(uint16_t port, int version, const std::string &request,
                       bool client_cert = false, bool v6 = false) {
  TlsResult result;
  SslCtxPtr ctx(SSL_CTX_new(TLS_client_method()));
  if (!ctx) return result;
  SSL_CTX_set_security_level(ctx.get(), 0);
  SSL_CTX_set_min_proto_version(ctx.get(), version);
  SSL_CTX_set_max_proto_version(ctx.get(), version);
  if (SSL_CTX_set_cipher_list(ctx.get(), "DEFAULT:@SECLEVEL=0") != 1 ||
      SSL_CTX_load_verify_locations(ctx.get(), RealServer::pki("ca.crt").c_str(), nullptr) != 1) {
    result.error = "cannot set up the client context";
    return result;
  }
  SSL_CTX_set_verify(ctx.get(), SSL_VERIFY_PEER, nullptr);
  if (client_cert &&
      (SSL_CTX_use_certificate_file(ctx.get(), RealServer::pki("client.crt").c_str(),
                                    SSL_FILETYPE_PEM) != 1 ||
       SSL_CTX_use_PrivateKey_file(ctx.get(), RealServer::pki("client.key").c_str(),
                                   SSL_FILETYPE_PEM) != 1)) {
    result.error = "cannot load the client certificate";
    return result;
  }
  Socket s(connect_loopback(v6, port));
  SslPtr ssl(SSL_new(ctx.get()));
  if (!s.valid() || !ssl || SSL_set_fd(ssl.get(), s.get()) != 1) {
    result.error = "cannot connect";
    return result;
  }
  SSL_set_tlsext_host_name(ssl.get(), "localhost");
  SSL_set1_host(ssl.get(), "localhost");
  if (SSL_connect(ssl.get()) != 1) {
    result.error = ERR_error_string(ERR_get_error(), nullptr);
    ERR_clear_error();
    return result;
  }
  result.handshake = true;
  result.version = SSL_version(ssl.get());
  if (!request.empty()) {
    if (SSL_write(ssl.get(), request.data(), static_cast<int>(request.size())) > 0) {
      char buf[4096];
      int n;
      while ((n = SSL_read(ssl.get(), buf, sizeof buf)) > 0) {
        result.reply.append(buf, static_cast<size_t>(n));
      }
    }
  }
  SSL_shutdown(ssl.get());
  ERR_clear_error();
  return result;
}

// ---------------------------------------------------------------- nginx

TEST(NginxServerTest, ServesStaticFile) {
  QUARRY_USE_SERVER(nginx, "nginx");
  std::string reply = http_exchange(nginx.port("http"), get_request("/files/hello.txt"));
  EXPECT_TRUE(starts_with(reply, "HTTP/1.1 200 OK\r\n")) << reply;
  EXPECT_TRUE(ends_with(reply, "\r\n\r\nhello world\n")) << reply;
}

TEST(NginxServerTest, ServesOverIpv6) {
  QUARRY_USE_SERVER(nginx, "nginx");
  QUARRY_REQUIRE_IPV6(nginx);
  std::string reply = http_exchange(nginx.port("http"), get_request("/files/hello.txt"), true);
  EXPECT_TRUE(starts_with(reply, "HTTP/1.1 200 OK\r\n")) << reply;
}

TEST(NginxServerTest, ServesFilesWrittenIntoDocRoot) {
  QUARRY_USE_SERVER(nginx, "nginx");
  const std::string content = "written by the test\n";
  {
    std::ofstream out(nginx.doc_root() + "/files/selftest.txt", std::ios::binary);
    out << content;
  }
  std::string reply = http_exchange(nginx.port("http"), get_request("/files/selftest.txt"));
  EXPECT_TRUE(ends_with(reply, "\r\n\r\n" + content)) << reply;
}

TEST(NginxServerTest, RedirectsWith301) {
  QUARRY_USE_SERVER(nginx, "nginx");
  std::string reply = http_exchange(nginx.port("http"), get_request("/r301"));
  EXPECT_TRUE(starts_with(reply, "HTTP/1.1 301 Moved Permanently\r\n")) << reply;
  EXPECT_NE(reply.find("\r\nLocation: http://127.0.0.1:" + std::to_string(nginx.port("http")) +
                       "/files/hello.txt\r\n"),
            std::string::npos)
      << reply;
}

TEST(NginxServerTest, RedirectsWith302) {
  QUARRY_USE_SERVER(nginx, "nginx");
  std::string reply = http_exchange(nginx.port("http"), get_request("/r302"));
  EXPECT_TRUE(starts_with(reply, "HTTP/1.1 302 Moved Temporarily\r\n")) << reply;
}

TEST(NginxServerTest, SendsChunkedBody) {
  QUARRY_USE_SERVER(nginx, "nginx");
  std::string reply = http_exchange(nginx.port("http"), get_request("/chunked"));
  EXPECT_NE(reply.find("\r\nTransfer-Encoding: chunked\r\n"), std::string::npos) << reply;
  EXPECT_NE(reply.find("\r\n\r\n9\r\npart one\n\r\n9\r\npart two\n\r\n0\r\n\r\n"),
            std::string::npos)
      << reply;
}

TEST(NginxServerTest, KeepsConnectionAliveBetweenRequests) {
  QUARRY_USE_SERVER(nginx, "nginx");
  std::string two = "GET /files/hello.txt HTTP/1.1\r\nHost: 127.0.0.1\r\n\r\n" +
                    get_request("/files/hello.txt");
  std::string reply = http_exchange(nginx.port("http"), two);
  size_t first = reply.find("HTTP/1.1 200 OK\r\n");
  ASSERT_NE(first, std::string::npos) << reply;
  EXPECT_NE(reply.find("HTTP/1.1 200 OK\r\n", first + 1), std::string::npos) << reply;
}

TEST(NginxServerTest, BasicAreaNeedsCredentials) {
  QUARRY_USE_SERVER(nginx, "nginx");
  std::string denied = http_exchange(nginx.port("http"), get_request("/private/secret.txt"));
  EXPECT_TRUE(starts_with(denied, "HTTP/1.1 401 ")) << denied;
  // "user1:pass1" in base64.
  std::string allowed = http_exchange(
      nginx.port("http"),
      get_request("/private/secret.txt", "Authorization: Basic dXNlcjE6cGFzczE=\r\n"));
  EXPECT_TRUE(ends_with(allowed, "\r\n\r\nsecret stuff\n")) << allowed;
}

TEST(NginxServerTest, PutStoresBodyInUploadDir) {
  QUARRY_USE_SERVER(nginx, "nginx");
  std::string body("binary\0\r\nbody", 13);
  std::string reply = http_exchange(
      nginx.port("http"), "PUT /upload/self/put.bin HTTP/1.1\r\nHost: 127.0.0.1\r\n"
                          "Content-Length: 13\r\nConnection: close\r\n\r\n" + body);
  EXPECT_TRUE(starts_with(reply, "HTTP/1.1 201 Created\r\n")) << reply;
  EXPECT_EQ(read_file(nginx.upload_dir() + "/self/put.bin"), body);
}

TEST(NginxServerTest, HttpsAcceptsClientCertificate) {
  QUARRY_USE_SERVER(nginx, "nginx");
  TlsResult tls = tls_exchange(nginx.port("https"), TLS1_3_VERSION, get_request("/whoami"), true);
  ASSERT_TRUE(tls.handshake) << tls.error;
  EXPECT_TRUE(ends_with(tls.reply, "verify=SUCCESS dn=CN=phone-client proto=TLSv1.3\n"))
      << tls.reply;
}

TEST(NginxServerTest, HttpsWorksWithoutClientCertificate) {
  QUARRY_USE_SERVER(nginx, "nginx");
  TlsResult tls = tls_exchange(nginx.port("https"), TLS1_2_VERSION, get_request("/whoami"));
  ASSERT_TRUE(tls.handshake) << tls.error;
  EXPECT_TRUE(ends_with(tls.reply, "verify=NONE dn= proto=TLSv1.2\n")) << tls.reply;
}

TEST(NginxServerTest, MutualTlsPortRefusesRequestWithoutCertificate) {
  QUARRY_USE_SERVER(nginx, "nginx");
  TlsResult bare = tls_exchange(nginx.port("mtls"), TLS1_3_VERSION, get_request("/files/hello.txt"));
  ASSERT_TRUE(bare.handshake) << bare.error;
  EXPECT_TRUE(starts_with(bare.reply, "HTTP/1.1 400 Bad Request\r\n")) << bare.reply;
  TlsResult with = tls_exchange(nginx.port("mtls"), TLS1_3_VERSION,
                                get_request("/files/hello.txt"), true);
  EXPECT_TRUE(ends_with(with.reply, "\r\n\r\nhello world\n")) << with.reply;
}

// ---------------------------------------------------------------- apache2

TEST(ApacheServerTest, DigestAreaChallengesWithMd5AndQopAuth) {
  QUARRY_USE_SERVER(apache, "apache");
  std::string reply = http_exchange(apache.port("http"), get_request("/digest/hello.txt"));
  EXPECT_TRUE(starts_with(reply, "HTTP/1.1 401 Unauthorized\r\n")) << reply;
  EXPECT_NE(reply.find("WWW-Authenticate: Digest realm=\"phone digest\""), std::string::npos);
  EXPECT_NE(reply.find("algorithm=MD5"), std::string::npos) << reply;
  EXPECT_NE(reply.find("qop=\"auth\""), std::string::npos) << reply;
}

TEST(ApacheServerTest, DigestAreaAcceptsRightResponse) {
  QUARRY_USE_SERVER(apache, "apache");
  std::string challenge = http_exchange(apache.port("http"), get_request("/digest/hello.txt"));
  std::string nonce = quoted_param(challenge, "nonce");
  ASSERT_FALSE(nonce.empty()) << challenge;
  // RFC 7616 with qop=auth: MD5(HA1:nonce:nc:cnonce:qop:HA2).
  const std::string uri = "/digest/hello.txt", nc = "00000001", cnonce = "0a4f113b";
  std::string ha1 = md5_hex("user1:phone digest:pass1");
  std::string ha2 = md5_hex("GET:" + uri);
  std::string response = md5_hex(ha1 + ":" + nonce + ":" + nc + ":" + cnonce + ":auth:" + ha2);
  std::string authorization = "Authorization: Digest username=\"user1\", realm=\"phone digest\", "
                              "nonce=\"" + nonce + "\", uri=\"" + uri + "\", algorithm=MD5, "
                              "qop=auth, nc=" + nc + ", cnonce=\"" + cnonce + "\", response=\"" +
                              response + "\"\r\n";
  std::string reply = http_exchange(apache.port("http"), get_request(uri, authorization));
  EXPECT_TRUE(starts_with(reply, "HTTP/1.1 200 OK\r\n")) << reply;
  EXPECT_TRUE(ends_with(reply, "\r\n\r\nhello apache\n")) << reply;
}

TEST(ApacheServerTest, UploadCgiStoresEveryFilePart) {
  QUARRY_USE_SERVER(apache, "apache");
  std::string first;
  for (int i = 0; i < 256; ++i) first += static_cast<char>(i);
  first += "\r\n--not-the-boundary\r\n";
  std::string second = "second part\n";
  const std::string boundary = "quarryselftestboundary";
  std::string body =
      "--" + boundary + "\r\n"
      "Content-Disposition: form-data; name=\"file\"; filename=\"first.bin\"\r\n"
      "Content-Type: application/octet-stream\r\n\r\n" + first + "\r\n"
      "--" + boundary + "\r\n"
      "Content-Disposition: form-data; name=\"mac\"\r\n\r\n001122334455\r\n"
      "--" + boundary + "\r\n"
      "Content-Disposition: form-data; name=\"cfg\"; filename=\"second.txt\"\r\n"
      "Content-Type: text/plain\r\n\r\n" + second + "\r\n"
      "--" + boundary + "--\r\n";
  std::string reply = http_exchange(
      apache.port("http"),
      "POST /cgi-bin/upload.cgi HTTP/1.1\r\nHost: 127.0.0.1\r\nConnection: close\r\n"
      "Content-Type: multipart/form-data; boundary=" + boundary + "\r\n"
      "Content-Length: " + std::to_string(body.size()) + "\r\n\r\n" + body);
  EXPECT_TRUE(starts_with(reply, "HTTP/1.1 200 OK\r\n")) << reply;
  EXPECT_NE(reply.find("field mac=001122334455\n"), std::string::npos) << reply;
  EXPECT_EQ(read_file(apache.upload_dir() + "/first.bin"), first);
  EXPECT_EQ(read_file(apache.upload_dir() + "/second.txt"), second);
}

// ---------------------------------------------------------------- lighttpd

TEST(LighttpdServerTest, ServesStaticFile) {
  QUARRY_USE_SERVER(lighttpd, "lighttpd");
  std::string reply = http_exchange(lighttpd.port("http"), get_request("/files/hello.txt"));
  EXPECT_TRUE(starts_with(reply, "HTTP/1.1 200 OK\r\n")) << reply;
  EXPECT_TRUE(ends_with(reply, "\r\n\r\nhello lighttpd\n")) << reply;
}

TEST(LighttpdServerTest, Md5AreaChallengesWithDigestMd5) {
  QUARRY_USE_SERVER(lighttpd, "lighttpd");
  std::string reply = http_exchange(lighttpd.port("http"), get_request("/md5/hello.txt"));
  EXPECT_TRUE(starts_with(reply, "HTTP/1.1 401 Unauthorized\r\n")) << reply;
  EXPECT_NE(reply.find("WWW-Authenticate: Digest realm=\"phone digest\""), std::string::npos);
  EXPECT_NE(reply.find("algorithm=MD5"), std::string::npos) << reply;
}

TEST(LighttpdServerTest, Sha256AreaChallengesWithDigestSha256) {
  QUARRY_USE_SERVER(lighttpd, "lighttpd");
  std::string reply = http_exchange(lighttpd.port("http"), get_request("/sha256/hello.txt"));
  EXPECT_NE(reply.find("algorithm=SHA-256"), std::string::npos) << reply;
}

// ---------------------------------------------------------------- vsftpd

TEST(VsftpdServerTest, GreetsOnIpv4) {
  QUARRY_USE_SERVER(ftp, "vsftpd");
  Socket s(connect_loopback(false, ftp.port("ftp")));
  ASSERT_TRUE(s.valid());
  EXPECT_EQ(read_until(s.get(), "\r\n"), "220 test ftp ready\r\n");
}

TEST(VsftpdServerTest, GreetsOnIpv6) {
  QUARRY_USE_SERVER(ftp, "vsftpd");
  QUARRY_REQUIRE_IPV6(ftp);
  Socket s(connect_loopback(true, ftp.port("ftp6")));
  ASSERT_TRUE(s.valid());
  EXPECT_EQ(read_until(s.get(), "\r\n"), "220 test ftp ready\r\n");
}

TEST(VsftpdServerTest, LocalUserLogsIn) {
  QUARRY_USE_SERVER(ftp, "vsftpd");
  Socket s(connect_loopback(false, ftp.port("ftp")));
  ASSERT_TRUE(s.valid());
  read_until(s.get(), "\r\n");
  ASSERT_TRUE(send_all(s.get(), "USER ftpuser\r\n"));
  EXPECT_TRUE(starts_with(read_until(s.get(), "\r\n"), "331 "));
  ASSERT_TRUE(send_all(s.get(), "PASS ftppass\r\n"));
  EXPECT_EQ(read_until(s.get(), "\r\n"), "230 Login successful.\r\n");
}

TEST(VsftpdServerTest, AnonymousPassivePortIsInRange) {
  QUARRY_USE_SERVER(ftp, "vsftpd");
  Socket s(connect_loopback(false, ftp.port("ftp")));
  ASSERT_TRUE(s.valid());
  read_until(s.get(), "\r\n");
  ASSERT_TRUE(send_all(s.get(), "USER anonymous\r\nPASS guest@\r\n"));
  read_until(s.get(), "\r\n");
  EXPECT_EQ(read_until(s.get(), "\r\n"), "230 Login successful.\r\n");
  ASSERT_TRUE(send_all(s.get(), "PASV\r\n"));
  std::string reply = read_until(s.get(), "\r\n");
  unsigned h[4], p1 = 0, p2 = 0;
  ASSERT_EQ(sscanf(reply.c_str(), "227 Entering Passive Mode (%u,%u,%u,%u,%u,%u)", &h[0], &h[1],
                   &h[2], &h[3], &p1, &p2),
            6)
      << reply;
  unsigned port = p1 * 256 + p2;
  EXPECT_GE(port, ftp.port("pasv_min"));
  EXPECT_LE(port, ftp.port("pasv_max"));
}

// ---------------------------------------------------------------- pure-ftpd

TEST(PureFtpdServerTest, VirtualUserLogsInAfterAMultiLineBanner) {
  QUARRY_USE_SERVER(ftp, "pureftpd");
  Socket s(connect_loopback(false, ftp.port("ftp")));
  ASSERT_TRUE(s.valid());
  EXPECT_TRUE(starts_with(read_until(s.get(), "\r\n"), "220-"));
  ASSERT_TRUE(send_all(s.get(), "USER vuser\r\n"));
  std::string reply;
  while (!starts_with(reply, "331 ")) {
    reply = read_until(s.get(), "\r\n");
    ASSERT_FALSE(reply.empty());
  }
  ASSERT_TRUE(send_all(s.get(), "PASS purepass\r\n"));
  EXPECT_TRUE(starts_with(read_until(s.get(), "\r\n"), "230"));
}

// ---------------------------------------------------------------- tftpd-hpa

// RRQ: opcode 1, file name, mode, then option/value pairs, all NUL-ended.
std::string tftp_rrq(const std::string &file, const std::string &options = "") {
  return std::string("\0\1", 2) + file + std::string("\0octet\0", 7) + options;
}

std::string udp_exchange(bool v6, uint16_t port, const std::string &datagram, sockaddr_storage *from) {
  Socket s(socket(v6 ? AF_INET6 : AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
  if (!s.valid()) return "";
  timeval timeout{kIoTimeoutSeconds, 0};
  setsockopt(s.get(), SOL_SOCKET, SO_RCVTIMEO, &timeout, sizeof timeout);
  sockaddr_storage to{};
  socklen_t to_len = loopback_address(v6, port, &to);
  if (sendto(s.get(), datagram.data(), datagram.size(), 0, reinterpret_cast<sockaddr *>(&to),
             to_len) != static_cast<ssize_t>(datagram.size())) {
    return "";
  }
  char buf[65536];
  socklen_t from_len = sizeof *from;
  ssize_t n = recvfrom(s.get(), buf, sizeof buf, 0, reinterpret_cast<sockaddr *>(from), &from_len);
  if (n <= 0) return "";
  // Ends the transfer at once: ERROR 0 to the transfer port.
  std::string abort_transfer("\0\5\0\0done\0", 10);
  sendto(s.get(), abort_transfer.data(), abort_transfer.size(), 0,
         reinterpret_cast<sockaddr *>(from), from_len);
  return std::string(buf, static_cast<size_t>(n));
}

TEST(TftpdServerTest, ReadRequestGetsFirstDataBlock) {
  QUARRY_USE_SERVER(tftp, "tftpd");
  sockaddr_storage from{};
  std::string reply = udp_exchange(false, tftp.port("tftp"), tftp_rrq("hello.txt"), &from);
  // DATA (opcode 3), block 1, the whole short file.
  EXPECT_EQ(reply, std::string("\0\3\0\1tftp hello\n", 15));
}

TEST(TftpdServerTest, ReadRequestOverIpv6GetsData) {
  QUARRY_USE_SERVER(tftp, "tftpd");
  QUARRY_REQUIRE_IPV6(tftp);
  sockaddr_storage from{};
  std::string reply = udp_exchange(true, tftp.port("tftp6"), tftp_rrq("hello.txt"), &from);
  EXPECT_EQ(reply, std::string("\0\3\0\1tftp hello\n", 15));
}

TEST(TftpdServerTest, CapsRequestedBlockSize) {
  QUARRY_USE_SERVER(tftp, "tftpd");
  sockaddr_storage from{};
  std::string reply = udp_exchange(false, tftp.port("tftp"),
                                   tftp_rrq("hello.txt", std::string("blksize\0" "65464\0", 14)),
                                   &from);
  // OACK (opcode 6) with the server's cap.
  EXPECT_EQ(reply, std::string("\0\6blksize\0" "1468\0", 15));
}

// ---------------------------------------------------------------- dnsmasq

// A recursive-desired query for |name| of |type|, class IN.
std::string dns_query(uint16_t id, const std::string &name, uint16_t type) {
  std::string q;
  q += static_cast<char>(id >> 8);
  q += static_cast<char>(id & 0xff);
  q += std::string("\x01\x00", 2);              // RD
  q += std::string("\0\1\0\0\0\0\0\0", 8);      // QDCOUNT 1
  size_t start = 0;
  while (start < name.size()) {
    size_t dot = name.find('.', start);
    if (dot == std::string::npos) dot = name.size();
    q += static_cast<char>(dot - start);
    q += name.substr(start, dot - start);
    start = dot + 1;
  }
  q += '\0';
  q += static_cast<char>(type >> 8);
  q += static_cast<char>(type & 0xff);
  q += std::string("\0\1", 2);                  // IN
  return q;
}

struct DnsReply {
  bool valid = false;
  int rcode = -1;
  int answers = 0;
  std::string raw;
};

DnsReply dns_ask(bool v6, uint16_t port, const std::string &name, uint16_t type) {
  const uint16_t id = 0x5a17;
  sockaddr_storage from{};
  DnsReply reply;
  reply.raw = udp_exchange(v6, port, dns_query(id, name, type), &from);
  const std::string &r = reply.raw;
  if (r.size() < 12) return reply;
  auto byte = [&r](size_t i) { return static_cast<unsigned char>(r[i]); };
  reply.valid = (byte(0) << 8 | byte(1)) == id && (byte(2) & 0x80) != 0;
  reply.rcode = byte(3) & 0x0f;
  reply.answers = byte(6) << 8 | byte(7);
  return reply;
}

constexpr uint16_t kTypeA = 1, kTypePtr = 12, kTypeAaaa = 28;

TEST(DnsmasqServerTest, AnswersAddressQuery) {
  QUARRY_USE_SERVER(dns, "dnsmasq");
  DnsReply reply = dns_ask(false, dns.port("dns"), "prov.phone.test", kTypeA);
  ASSERT_TRUE(reply.valid);
  EXPECT_EQ(reply.rcode, 0);
  EXPECT_EQ(reply.answers, 1);
  // TYPE A, CLASS IN, TTL 60, RDLENGTH 4, 192.0.2.10
  EXPECT_TRUE(ends_with(reply.raw, std::string("\0\1\0\1\0\0\0\x3c\0\4\xc0\0\2\x0a", 14)));
}

TEST(DnsmasqServerTest, AnswersIpv6AddressQueryOverIpv6) {
  QUARRY_USE_SERVER(dns, "dnsmasq");
  QUARRY_REQUIRE_IPV6(dns);
  DnsReply reply = dns_ask(true, dns.port("dns"), "prov.phone.test", kTypeAaaa);
  ASSERT_TRUE(reply.valid);
  EXPECT_EQ(reply.answers, 1);
  // 2001:db8::10
  EXPECT_TRUE(ends_with(reply.raw, std::string("\x20\x01\x0d\xb8\0\0\0\0\0\0\0\0\0\0\0\x10", 16)));
}

TEST(DnsmasqServerTest, AnswersPointerQuery) {
  QUARRY_USE_SERVER(dns, "dnsmasq");
  DnsReply reply = dns_ask(false, dns.port("dns"), "10.2.0.192.in-addr.arpa", kTypePtr);
  ASSERT_TRUE(reply.valid);
  EXPECT_EQ(reply.answers, 1);
  EXPECT_NE(reply.raw.find(std::string("\4prov\5phone\4test", 16)), std::string::npos);
}

TEST(DnsmasqServerTest, UnknownNameIsNxdomain) {
  QUARRY_USE_SERVER(dns, "dnsmasq");
  DnsReply reply = dns_ask(false, dns.port("dns"), "nope.phone.test", kTypeA);
  ASSERT_TRUE(reply.valid);
  EXPECT_EQ(reply.rcode, 3);
}

// ---------------------------------------------------------------- s_server

struct TlsCase {
  const char *role;
  int version;
};

void PrintTo(const TlsCase &tls_case, std::ostream *out) { *out << tls_case.role; }

std::string tls_case_name(const ::testing::TestParamInfo<TlsCase> &param) {
  return param.param.role;
}

class TlsServerTest : public ::testing::TestWithParam<TlsCase> {};

TEST_P(TlsServerTest, HandshakesAtItsVersion) {
  QUARRY_USE_SERVER(tls, "tls");
  TlsResult result = tls_exchange(tls.port(GetParam().role), GetParam().version, "GET / HTTP/1.0\r\n\r\n");
  ASSERT_TRUE(result.handshake) << result.error;
  EXPECT_EQ(result.version, GetParam().version);
  EXPECT_TRUE(starts_with(result.reply, "HTTP/1.0 200 ok\r\n")) << result.reply;
}

TEST_P(TlsServerTest, RefusesOtherVersions) {
  QUARRY_USE_SERVER(tls, "tls");
  int other = GetParam().version == TLS1_3_VERSION ? TLS1_2_VERSION : TLS1_3_VERSION;
  TlsResult result = tls_exchange(tls.port(GetParam().role), other, "");
  EXPECT_FALSE(result.handshake);
}

INSTANTIATE_TEST_SUITE_P(Versions, TlsServerTest,
                         ::testing::Values(TlsCase{"tls1_0", TLS1_VERSION},
                                           TlsCase{"tls1_1", TLS1_1_VERSION},
                                           TlsCase{"tls1_2", TLS1_2_VERSION},
                                           TlsCase{"tls1_3", TLS1_3_VERSION}),
                         tls_case_name);

}  // namespace
}  // namespace quarry_test
