// A small test PKI made with the openssl command line once per process,
// the independent oracle of the certificate suites: subject hashes, dates
// and field values come from the tool, never from the library.
#ifndef QUARRY_TESTS_ACCEPTANCE_CERT_PKI_H
#define QUARRY_TESTS_ACCEPTANCE_CERT_PKI_H

#include <stdio.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>

#include "quarry.h"
#include "tests/support/log_capture.h"

namespace cert_pki {

// Runs |command| through the shell and returns its standard output with
// the last newline removed; "!failed" when it did not exit with 0.
inline std::string run(const std::string &command) {
  FILE *pipe = popen((command + " 2>/dev/null").c_str(), "r");
  if (pipe == nullptr) return "!failed";
  std::string out;
  char buf[512];
  size_t n;
  while ((n = fread(buf, 1, sizeof(buf), pipe)) > 0) out.append(buf, n);
  if (pclose(pipe) != 0) return "!failed";
  if (!out.empty() && out.back() == '\n') out.pop_back();
  return out;
}

// The files of the test PKI, all in one directory kept for the process.
class Pki {
 public:
  static const Pki &get() {
    static Pki pki;
    return pki;
  }
  std::string file(const std::string &name) const { return dir_.file(name); }
  bool ok() const { return ok_; }
  // "openssl x509 -<what>" of a certificate file, with the "name=" part cut.
  static std::string x509(const std::string &path, const std::string &what,
                          const std::string &inform = "PEM") {
    std::string out =
        run("openssl x509 -noout -inform " + inform + " -" + what + " -in '" + path + "'");
    size_t eq = out.find('=');
    return (what == "subject_hash" || eq == std::string::npos) ? out : out.substr(eq + 1);
  }
  static unsigned long hash_of(const std::string &path) {
    return strtoul(x509(path, "subject_hash").c_str(), nullptr, 16);
  }

 private:
  Pki() {
    const std::string d = "'" + dir_.path() + "'";
    dir_.write("ca.cnf",
               "[ca]\ndefault_ca = d\n[d]\ndatabase = " + dir_.file("index.txt") +
                   "\nserial = " + dir_.file("serial") + "\nnew_certs_dir = " + dir_.path() +
                   "\ndefault_md = sha256\npolicy = p\nunique_subject = no\n"
                   "[p]\ncommonName = supplied\norganizationName = optional\n"
                   "organizationalUnitName = optional\n");
    dir_.write("index.txt", "");
    std::string script =
        "set -e; cd " + d +
        "; req() { openssl req -x509 -newkey rsa:2048 -nodes -days 3650 -keyout $1.key -out "
        "$1.pem -subj \"$2\"; }"
        "; req ca '/CN=Acc Root CA/O=Acc Org'"
        "; req same '/CN=Acc Root CA/O=Acc Org'"  // same subject, other key
        "; req other '/CN=Acc Other CA/O=Other Org'"
        "; req ouca '/OU=Unit Only/O=Plain Org'"
        "; sign() { openssl req -newkey rsa:2048 -nodes -keyout $1.key -out $1.csr -subj \"$2\""
        "; echo $3 > serial; openssl ca -batch -notext -config ca.cnf -cert ${6:-ca}.pem"
        " -keyfile ${6:-ca}.key -in $1.csr -out $1.pem -startdate $4 -enddate $5; }"
        "; sign leaf '/CN=leaf.example/O=Leaf Org' 12345678 200101000000Z 451231235959Z"
        "; sign wide '/CN=wide.example' 0102030405 500101000000Z 491231235959Z"
        "; sign expired '/CN=expired.example' 1001 200101000000Z 210101000000Z"
        "; sign future '/CN=future.example' 1002 400101000000Z 450101000000Z"
        "; sign orphan '/CN=orphan.example' 1003 200101000000Z 451231235959Z other"
        "; sign byou '/CN=byou.example' 1004 200101000000Z 451231235959Z ouca"
        "; openssl x509 -in leaf.pem -outform DER -out leaf.der"
        "; cat leaf.pem leaf.key > leaf_pair.pem"
        "; cat leaf.pem other.key > leaf_wrongkey.pem"
        "; cat other.pem other.key > other_pair.pem";
    ok_ = run("sh -c '" + escape(script) + "'") != "!failed";
  }
  static std::string escape(const std::string &text) {
    std::string out;
    for (char c : text) out += c == '\'' ? std::string("'\\''") : std::string(1, c);
    return out;
  }
  quarry_test::TempDir dir_;
  bool ok_ = false;
};

// Settings of one test: a fresh trust directory T (ending in "/") and a
// device file R/server/WebServer.pem, both inside a temporary directory.
class Settings {
 public:
  Settings() {
    dl_config_init();
    trust_ = dir_.path() + "/trust/";
    root_ = dir_.path() + "/root";
    device_ = root_ + "/server/WebServer.pem";
    dl_set_option(DL_OPT_TRUST_CA_DIR, trust_.c_str());
    dl_set_option(DL_OPT_SERVER_CERT_PATH, device_.c_str());
  }
  ~Settings() { dl_exit(); }
  Settings(const Settings &) = delete;
  Settings &operator=(const Settings &) = delete;
  const std::string &trust() const { return trust_; }
  const std::string &root() const { return root_; }
  const std::string &device() const { return device_; }
  const quarry_test::TempDir &dir() const { return dir_; }

 private:
  quarry_test::TempDir dir_;
  std::string trust_, root_, device_;
};

inline std::string hex8(unsigned long hash) {
  char buf[16];
  snprintf(buf, sizeof(buf), "%08lx", hash);
  return buf;
}

inline bool is_link(const std::string &path) {
  struct stat st;
  return lstat(path.c_str(), &st) == 0 && S_ISLNK(st.st_mode);
}

inline bool is_regular(const std::string &path) {
  struct stat st;
  return lstat(path.c_str(), &st) == 0 && S_ISREG(st.st_mode);
}

// Whether the log holds |message| on a line of module 2 at any level
// (for the lines whose level the library chooses).
inline bool logged(const quarry_test::LogCapture &log, const std::string &message) {
  for (int level = 0; level <= 9; ++level)
    if (log.has(2, level, message)) return true;
  return false;
}

}  // namespace cert_pki

#endif  // QUARRY_TESTS_ACCEPTANCE_CERT_PKI_H
