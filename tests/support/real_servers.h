// Real third-party servers on loopback for tests against real peers:
// nginx, apache2, lighttpd, vsftpd, tftpd-hpa, dnsmasq and openssl s_server,
// started by the scripts in tests/servers on free ports with their own
// configuration in a temporary directory, and stopped (whole process group)
// when the RealServer goes away. A watchdog also stops them when the test
// process dies without cleaning up.
//
// Policy: a test skips only when a server binary is missing (or, on a
// developer's machine, when not run as root); with QUARRY_REQUIRE_SERVERS=1
// in the environment, as in CI, every such case fails instead. A server that
// is there but does not start always fails.
//
//   TEST(HttpRealTest, GetsStaticFile) {
//     QUARRY_USE_SERVER(nginx, "nginx");   // started once per process
//     std::string url = nginx.url("http", "/files/hello.txt");
//     ...
//   }
// Label such tests "real" (quarry_add_test(... LABELS real)).
#ifndef QUARRY_TESTS_SUPPORT_REAL_SERVERS_H
#define QUARRY_TESTS_SUPPORT_REAL_SERVERS_H

#include <stdint.h>
#include <sys/socket.h>
#include <sys/types.h>

#include <map>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include <gtest/gtest.h>

namespace quarry_test {

// Names, port roles and layout (paths relative to dir()):
//   "nginx"    http, https (client cert optional), mtls (client cert
//              required); doc root www (files/hello.txt, files/1M.bin,
//              private/secret.txt behind Basic user1/pass1), uploads
//              (PUT /upload/...) in upload; /r301 /r302 /loop /chunked
//              /chunkedfile/ /slow /headers /whoami (https)
//   "apache"   http: /files/, Digest MD5 qop=auth /digest/ (user1/pass1,
//              realm "phone digest"), Basic /basic/, DAV PUT /dav/ (Digest)
//              into dav, multipart CGI /cgi-bin/upload.cgi and
//              /digest-cgi/upload.cgi storing file parts in uploads
//   "lighttpd" http: /files/, Digest /md5/ /sha256/ /both/, Basic /basic/,
//              multipart CGI /cgi-bin/upload.cgi, /cgi-bin/auth-upload.cgi
//              storing file parts in uploads
//   "vsftpd"   ftp (127.0.0.1), ftp6 (::1), passive ports pasv_min..pasv_max;
//              anonymous reads anon (pub/readme.txt), writes anon/incoming;
//              ftpuser/ftppass in home/ftpuser (mine.txt)
//   "pureftpd" ftp (127.0.0.1 only), passive ports pasv_min..pasv_max;
//              vuser/purepass in home (pure.txt), no anonymous logins
//   "tftpd"    tftp (127.0.0.1), tftp6 (::1); root (hello.txt, 3M.bin),
//              uploads of new files, blksize capped at 1468
//   "dnsmasq"  dns (udp and tcp, 127.0.0.1 and ::1), zone phone.test
//              (see tests/servers/dnsmasq.sh)
//   "tls"      tls1_0, tls1_1, tls1_2, tls1_3: s_server -www, one version
//              each, cipher list "DEFAULT:@SECLEVEL=0"
//   "atftpd"   tftp (127.0.0.1); root (hello.txt, 1M.bin), uploads of new
//              files; a second TFTP implementation
// The https servers present pki("server.crt"), issued by pki("ca.crt").
class RealServer {
 public:
  enum class State { kRunning, kMissing, kNotRoot, kFailed, kStopped };

  // Starts the named server on fresh free ports (retrying with new ports
  // when a start fails). Never null; check ok().
  static std::unique_ptr<RealServer> start(const std::string &name);
  // One instance per name and process, started on first use and stopped at
  // process exit: the way to start a server once per test suite.
  static RealServer &shared(const std::string &name);

  ~RealServer();
  RealServer(const RealServer &) = delete;
  RealServer &operator=(const RealServer &) = delete;

  bool ok() const { return state_ == State::kRunning; }
  State state() const { return state_; }
  // Whether a test may skip on this server instead of failing.
  bool skippable() const;
  // Why the server is not running, with the tail of its start-up log.
  const std::string &error() const { return error_; }

  const std::string &name() const { return name_; }
  // The port of |role| (see the table above), 0 when there is none.
  uint16_t port(const std::string &role) const;
  // "scheme://host:port" + |path| for |role|. The host is [::1] for the
  // roles ending in 6 or when |ipv6| is set, else 127.0.0.1.
  std::string url(const std::string &role, const std::string &path, bool ipv6 = false) const;
  // Whether the servers also listen on ::1.
  bool ipv6() const { return ipv6_; }

  // The server's directory and paths inside it.
  const std::string &dir() const { return dir_; }
  std::string path(const std::string &relative) const { return dir_ + "/" + relative; }
  // Where served files live and where uploads land ("" when none).
  std::string doc_root() const;
  std::string upload_dir() const;
  // A file of the test PKI: ca.crt, server.crt/.key, client.crt/.key,
  // selfsigned.crt/.key, chain.pem, cnonly.crt/.key, expired.crt/.key,
  // client.pem, client_enc.pem, client_eckey.pem, client_otherkey.pem,
  // cadir (see tests/servers/pki.sh).
  static std::string pki(const std::string &file);

  // Pids recorded for the running server processes (group leaders).
  std::map<std::string, pid_t> pids() const;
  // Stops the servers now; also done by the destructor.
  void stop();

 private:
  explicit RealServer(const std::string &name);
  bool attempt();

  std::string name_;
  State state_ = State::kFailed;
  std::string error_;
  std::string dir_;
  std::map<std::string, uint16_t> ports_;
  std::set<uint16_t> tried_ports_;
  bool ipv6_ = false;
  pid_t owner_ = 0;
};

// Fills |out| with 127.0.0.1 (or ::1) and |port|; returns its length.
socklen_t loopback_address(bool v6, uint16_t port, sockaddr_storage *out);

// |count| distinct ports that are free right now for TCP and UDP on
// 127.0.0.1 (and ::1 when present); false if none could be found.
bool pick_free_ports(size_t count, std::vector<uint16_t> *out);

// Whether QUARRY_REQUIRE_SERVERS=1 is set: nothing may be skipped then.
bool servers_required();
bool running_as_root();

// The directory of a test PKI made once per process ("" if it failed).
const std::string &test_pki_dir();

}  // namespace quarry_test

// Declares |var| as the process-wide instance of server |name|, or skips or
// fails the current test (see the policy above). For test bodies and SetUp.
#define QUARRY_USE_SERVER(var, name)                                         \
  ::quarry_test::RealServer &var = ::quarry_test::RealServer::shared(name); \
  QUARRY_REQUIRE_SERVER(var)

// Skips or fails the current test unless |server| is running.
#define QUARRY_REQUIRE_SERVER(server)                                         \
  do {                                                                        \
    const ::quarry_test::RealServer &quarry_required_ = (server);             \
    if (!quarry_required_.ok()) {                                             \
      if (quarry_required_.skippable()) GTEST_SKIP() << quarry_required_.error(); \
      FAIL() << quarry_required_.error();                                     \
    }                                                                         \
  } while (0)

// Skips the current test unless it runs as root; fails instead when
// QUARRY_REQUIRE_SERVERS=1.
#define QUARRY_SKIP_UNLESS_ROOT()                                               \
  do {                                                                          \
    if (!::quarry_test::running_as_root()) {                                    \
      if (::quarry_test::servers_required()) FAIL() << "this test needs root";  \
      GTEST_SKIP() << "this test needs root";                                   \
    }                                                                           \
  } while (0)

// Skips the current test when |server| does not listen on ::1 (a machine
// without IPv6 on loopback); fails instead when QUARRY_REQUIRE_SERVERS=1.
#define QUARRY_REQUIRE_IPV6(server)                                             \
  do {                                                                          \
    if (!(server).ipv6()) {                                                     \
      if (::quarry_test::servers_required()) FAIL() << "no ::1 on loopback";    \
      GTEST_SKIP() << "no ::1 on loopback";                                     \
    }                                                                           \
  } while (0)

#endif  // QUARRY_TESTS_SUPPORT_REAL_SERVERS_H
