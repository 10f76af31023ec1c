#include "tests/support/real_servers.h"

#include <arpa/inet.h>
#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <signal.h>
#include <spawn.h>
#include <stdlib.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <random>
#include <set>
#include <system_error>
#include <vector>

#include "tests/support/log_capture.h"

extern char **environ;

namespace quarry_test {

namespace {

// Exit codes of the start scripts (tests/servers/common.sh).
constexpr int kExitMissing = 4;
constexpr int kExitNotRoot = 5;

constexpr int kStartAttempts = 3;
// Passive FTP ports come as one contiguous block, picked below the kernel's
// ephemeral range so that bind(0) elsewhere rarely lands in it.
constexpr int kPasvBlock = 10;
constexpr int kPasvLow = 20000;
constexpr int kPasvHigh = 32000;
constexpr int kPasvTries = 50;
constexpr size_t kLogTail = 2000;

constexpr size_t kMaxRoles = 4;

// Plain constant data: it must outlive the shared servers, which are
// stopped by static destructors at exit.
struct ServerRecipe {
  const char *name;
  const char *script;
  // Port roles in the order the script takes them (nullptr-padded).
  const char *roles[kMaxRoles];
  // Passive port range appended after the roles (vsftpd).
  bool pasv_range;
  bool uses_pki;
  const char *doc_root;
  const char *upload_dir;

  size_t role_count() const {
    size_t n = 0;
    while (n < kMaxRoles && roles[n] != nullptr) ++n;
    return n;
  }
};

constexpr ServerRecipe kRecipes[] = {
    {"nginx", "nginx.sh", {"http", "https", "mtls"}, false, true, "www", "upload"},
    {"apache", "apache.sh", {"http"}, false, false, "htdocs", "uploads"},
    {"lighttpd", "lighttpd.sh", {"http"}, false, false, "www", "uploads"},
    {"vsftpd", "vsftpd.sh", {"ftp", "ftp6"}, true, false, "anon", "anon/incoming"},
    {"tftpd", "tftpd.sh", {"tftp", "tftp6"}, false, false, "root", "root"},
    {"pureftpd", "pureftpd.sh", {"ftp"}, true, false, "home", "home"},
    {"dnsmasq", "dnsmasq.sh", {"dns"}, false, false, "", ""},
    {"tls", "tls.sh", {"tls1_0", "tls1_1", "tls1_2", "tls1_3"}, false, true, "", ""},
    {"atftpd", "atftpd.sh", {"tftp"}, false, false, "root", "root"},
};

const ServerRecipe *find_recipe(const std::string &name) {
  for (const ServerRecipe &recipe : kRecipes) {
    if (name == recipe.name) return &recipe;
  }
  return nullptr;
}

std::string scripts_dir() {
  const char *over = getenv("QUARRY_SERVERS_DIR");
  if (over != nullptr && *over != '\0') return over;
  return std::string(QUARRY_SOURCE_DIR) + "/tests/servers";
}

bool loopback6_present() {
  std::string table = read_file("/proc/net/if_inet6");
  return table.find("00000000000000000000000000000001") != std::string::npos;
}

class Fd {
 public:
  explicit Fd(int fd) : fd_(fd) {}
  ~Fd() {
    if (fd_ >= 0) close(fd_);
  }
  Fd(Fd &&other) noexcept : fd_(other.fd_) { other.fd_ = -1; }
  Fd(const Fd &) = delete;
  Fd &operator=(const Fd &) = delete;
  int get() const { return fd_; }

 private:
  int fd_;
};

// Binds a socket of |type| to loopback port |port| (0: any); returns it
// open, or -1.
int bind_loopback(bool v6, int type, uint16_t port) {
  int fd = socket(v6 ? AF_INET6 : AF_INET, type | SOCK_CLOEXEC, 0);
  if (fd < 0) return -1;
  sockaddr_storage addr{};
  socklen_t len = loopback_address(v6, port, &addr);
  int rc = bind(fd, reinterpret_cast<sockaddr *>(&addr), len);
  if (rc != 0) {
    close(fd);
    return -1;
  }
  return fd;
}

uint16_t bound_port(int fd) {
  sockaddr_storage addr{};
  socklen_t len = sizeof addr;
  if (getsockname(fd, reinterpret_cast<sockaddr *>(&addr), &len) != 0) return 0;
  if (addr.ss_family == AF_INET6) return ntohs(reinterpret_cast<sockaddr_in6 *>(&addr)->sin6_port);
  return ntohs(reinterpret_cast<sockaddr_in *>(&addr)->sin_port);
}

// Holds |port| for TCP and UDP on both loopbacks; false if any is taken.
bool hold_port(uint16_t port, bool v6, std::vector<Fd> *held) {
  for (int family = 0; family < (v6 ? 2 : 1); ++family) {
    for (int type : {SOCK_STREAM, SOCK_DGRAM}) {
      int fd = bind_loopback(family == 1, type, port);
      if (fd < 0) return false;
      held->emplace_back(fd);
    }
  }
  return true;
}

// |count| distinct ports that are free for TCP and UDP on 127.0.0.1 (and
// ::1), none of them in |avoid|. They are held while picking so that none
// comes twice.
bool pick_ports(size_t count, bool v6, const std::set<uint16_t> &avoid,
                std::vector<uint16_t> *out) {
  std::vector<Fd> held;
  constexpr int kTriesPerPort = 20;
  for (size_t i = 0; i < count; ++i) {
    bool found = false;
    for (int t = 0; t < kTriesPerPort && !found; ++t) {
      Fd probe(bind_loopback(false, SOCK_STREAM, 0));
      if (probe.get() < 0) return false;
      uint16_t port = bound_port(probe.get());
      if (avoid.count(port) != 0) continue;
      // The probe already holds TCP on 127.0.0.1; the rest must be free too.
      Fd udp4(bind_loopback(false, SOCK_DGRAM, port));
      if (port == 0 || udp4.get() < 0) continue;
      if (v6) {
        Fd tcp6(bind_loopback(true, SOCK_STREAM, port));
        Fd udp6(bind_loopback(true, SOCK_DGRAM, port));
        if (tcp6.get() < 0 || udp6.get() < 0) continue;
        held.push_back(std::move(tcp6));
        held.push_back(std::move(udp6));
      }
      held.push_back(std::move(probe));
      held.push_back(std::move(udp4));
      out->push_back(port);
      found = true;
    }
    if (!found) return false;
  }
  return true;
}

bool pick_block(bool v6, uint16_t *first) {
  std::mt19937 random(static_cast<unsigned>(getpid()) ^ std::random_device{}());
  std::uniform_int_distribution<int> base(kPasvLow, kPasvHigh - kPasvBlock);
  for (int t = 0; t < kPasvTries; ++t) {
    uint16_t start = static_cast<uint16_t>(base(random));
    std::vector<Fd> held;
    bool free = true;
    for (int i = 0; i < kPasvBlock && free; ++i) {
      free = hold_port(static_cast<uint16_t>(start + i), v6, &held);
    }
    if (free) {
      *first = start;
      return true;
    }
  }
  return false;
}

std::string make_dir(const char *prefix) {
  std::string name = std::string("/tmp/") + prefix + "-XXXXXX";
  std::vector<char> buf(name.begin(), name.end());
  buf.push_back('\0');
  if (mkdtemp(buf.data()) == nullptr) return "";
  // The servers drop to nobody and must reach everything inside.
  if (chmod(buf.data(), 0755) != 0) return "";
  return buf.data();
}

void remove_tree(const std::string &dir) {
  if (dir.empty()) return;
  std::error_code ignored;
  std::filesystem::remove_all(dir, ignored);
}

std::string tail(const std::string &text) {
  return text.size() > kLogTail ? "..." + text.substr(text.size() - kLogTail) : text;
}

// Runs "bash SCRIPT ARGS..." with its output in |log|, |extra_env| added to
// the environment and no other descriptor of ours inherited. Returns the
// exit code, or -1 if it could not run or was killed.
int run_script(const std::string &script, const std::vector<std::string> &args,
               const std::string &log, const std::vector<std::string> &extra_env) {
  std::vector<std::string> argv_text = {"/bin/bash", script};
  argv_text.insert(argv_text.end(), args.begin(), args.end());
  std::vector<char *> argv;
  for (std::string &arg : argv_text) argv.push_back(&arg[0]);
  argv.push_back(nullptr);

  std::vector<std::string> env_text(extra_env);
  for (char **e = environ; *e != nullptr; ++e) {
    std::string entry(*e);
    bool replaced = false;
    for (const std::string &mine : extra_env) {
      if (entry.compare(0, mine.find('=') + 1, mine, 0, mine.find('=') + 1) == 0) replaced = true;
    }
    if (!replaced) env_text.push_back(entry);
  }
  std::vector<char *> envp;
  for (std::string &entry : env_text) envp.push_back(&entry[0]);
  envp.push_back(nullptr);

  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_addopen(&actions, 0, "/dev/null", O_RDONLY, 0);
  posix_spawn_file_actions_addopen(&actions, 1, log.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0644);
  posix_spawn_file_actions_adddup2(&actions, 1, 2);
  // Servers must not keep the test's sockets and pipes open.
  posix_spawn_file_actions_addclosefrom_np(&actions, 3);
  pid_t child = -1;
  int rc = posix_spawn(&child, argv[0], &actions, nullptr, argv.data(), envp.data());
  posix_spawn_file_actions_destroy(&actions);
  if (rc != 0) return -1;
  int status = 0;
  while (waitpid(child, &status, 0) < 0) {
    if (errno != EINTR) return -1;
  }
  return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

// Removes the shared servers and the PKI at process exit.
struct SharedServers {
  std::map<std::string, std::unique_ptr<RealServer>> servers;
};

struct PkiHolder {
  std::string dir;
  pid_t owner = 0;
  ~PkiHolder() {
    if (owner == getpid()) remove_tree(dir);
  }
};

}  // namespace

socklen_t loopback_address(bool v6, uint16_t port, sockaddr_storage *out) {
  *out = sockaddr_storage{};
  if (v6) {
    auto *addr = reinterpret_cast<sockaddr_in6 *>(out);
    addr->sin6_family = AF_INET6;
    addr->sin6_addr = in6addr_loopback;
    addr->sin6_port = htons(port);
    return sizeof *addr;
  }
  auto *addr = reinterpret_cast<sockaddr_in *>(out);
  addr->sin_family = AF_INET;
  addr->sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  addr->sin_port = htons(port);
  return sizeof *addr;
}

bool pick_free_ports(size_t count, std::vector<uint16_t> *out) {
  return pick_ports(count, loopback6_present(), {}, out);
}

bool servers_required() {
  const char *value = getenv("QUARRY_REQUIRE_SERVERS");
  return value != nullptr && std::string(value) == "1";
}

bool running_as_root() { return geteuid() == 0; }

const std::string &test_pki_dir() {
  static PkiHolder holder;
  if (holder.owner == 0) {
    holder.owner = getpid();
    std::string dir = make_dir("quarry-pki");
    if (!dir.empty() &&
        run_script(scripts_dir() + "/pki.sh", {dir}, "/dev/null", {}) == 0) {
      holder.dir = dir;
    } else {
      remove_tree(dir);
    }
  }
  return holder.dir;
}

std::unique_ptr<RealServer> RealServer::start(const std::string &name) {
  std::unique_ptr<RealServer> server(new RealServer(name));
  const ServerRecipe *recipe = find_recipe(name);
  if (recipe == nullptr) {
    server->error_ = "no real server named \"" + name + "\"";
    return server;
  }
  std::string errors;
  for (int attempt = 0; attempt < kStartAttempts; ++attempt) {
    if (server->attempt()) return server;
    errors += server->error_ + "\n";
    // A missing binary or account stays missing; ports may be free next time.
    if (server->state_ != State::kFailed) return server;
  }
  server->error_ = errors;
  return server;
}

RealServer &RealServer::shared(const std::string &name) {
  static SharedServers shared_servers;
  std::unique_ptr<RealServer> &slot = shared_servers.servers[name];
  if (!slot) slot = start(name);
  return *slot;
}

RealServer::RealServer(const std::string &name) : name_(name), owner_(getpid()) {}

RealServer::~RealServer() { stop(); }

bool RealServer::attempt() {
  const ServerRecipe *recipe = find_recipe(name_);
  state_ = State::kFailed;
  ports_.clear();
  dir_ = make_dir(("quarry-" + name_).c_str());
  if (dir_.empty()) {
    error_ = "cannot make a directory for " + name_;
    return false;
  }
  ipv6_ = loopback6_present();

  std::vector<std::string> env = {"QUARRY_SERVER_OWNER=" + std::to_string(getpid()),
                                  "QUARRY_SERVER_REMOVE_DIR=" + dir_};
  if (recipe->uses_pki) {
    const std::string &pki_dir = test_pki_dir();
    if (pki_dir.empty()) {
      error_ = "cannot make the test PKI (tests/servers/pki.sh)";
      return false;
    }
    env.push_back("PKI_DIR=" + pki_dir);
  }

  std::vector<uint16_t> ports;
  if (!pick_ports(recipe->role_count(), ipv6_, tried_ports_, &ports)) {
    error_ = "no free ports for " + name_;
    return false;
  }
  std::vector<std::string> args = {"start", dir_ + "/server"};
  for (size_t i = 0; i < ports.size(); ++i) {
    ports_[recipe->roles[i]] = ports[i];
    // A retry after a failed start must not run into the same ports.
    tried_ports_.insert(ports[i]);
    args.push_back(std::to_string(ports[i]));
  }
  if (recipe->pasv_range) {
    uint16_t first = 0;
    if (!pick_block(ipv6_, &first)) {
      error_ = "no free passive port range for " + name_;
      return false;
    }
    ports_["pasv_min"] = first;
    ports_["pasv_max"] = static_cast<uint16_t>(first + kPasvBlock - 1);
    args.push_back(std::to_string(first));
    args.push_back(std::to_string(first + kPasvBlock - 1));
  }
  // The scripts own everything below dir_/server; the start log sits beside it.
  std::string script = scripts_dir() + "/" + recipe->script;
  std::string log = dir_ + "/start.log";
  int rc = run_script(script, args, log, env);
  dir_ += "/server";
  if (rc == 0) {
    state_ = State::kRunning;
    error_.clear();
    ipv6_ = read_file(path("ipv6")) == "yes\n";
    return true;
  }
  error_ = name_ + " did not start (" + script + " exit " + std::to_string(rc) +
           "): " + tail(read_file(log));
  stop();
  state_ = rc == kExitMissing ? State::kMissing
           : rc == kExitNotRoot ? State::kNotRoot
                                : State::kFailed;
  return false;
}

bool RealServer::skippable() const {
  if (ok() || servers_required()) return false;
  return state_ == State::kMissing || state_ == State::kNotRoot;
}

uint16_t RealServer::port(const std::string &role) const {
  auto it = ports_.find(role);
  return it == ports_.end() ? 0 : it->second;
}

std::string RealServer::url(const std::string &role, const std::string &path,
                            bool ipv6) const {
  static const std::map<std::string, std::string> kSchemes = {
      {"http", "http"},     {"https", "https"},   {"mtls", "https"},
      {"ftp", "ftp"},       {"ftp6", "ftp"},      {"tftp", "tftp"},
      {"tftp6", "tftp"},    {"tls1_0", "https"},  {"tls1_1", "https"},
      {"tls1_2", "https"},  {"tls1_3", "https"},  {"dns", "dns"}};
  auto scheme = kSchemes.find(role);
  bool v6 = ipv6 || (!role.empty() && role.back() == '6');
  return (scheme == kSchemes.end() ? role : scheme->second) + "://" +
         (v6 ? "[::1]" : "127.0.0.1") + ":" + std::to_string(port(role)) + path;
}

std::string RealServer::doc_root() const {
  const ServerRecipe *recipe = find_recipe(name_);
  return recipe == nullptr || *recipe->doc_root == '\0' ? "" : path(recipe->doc_root);
}

std::string RealServer::upload_dir() const {
  const ServerRecipe *recipe = find_recipe(name_);
  return recipe == nullptr || *recipe->upload_dir == '\0' ? "" : path(recipe->upload_dir);
}

std::string RealServer::pki(const std::string &file) {
  const std::string &dir = test_pki_dir();
  return dir.empty() ? "" : dir + "/" + file;
}

std::map<std::string, pid_t> RealServer::pids() const {
  std::map<std::string, pid_t> found;
  std::string run = path("run");
  DIR *listing = opendir(run.c_str());
  if (listing == nullptr) return found;
  while (dirent *entry = readdir(listing)) {
    std::string file = entry->d_name;
    const std::string suffix = ".pid";
    if (file.size() <= suffix.size() ||
        file.compare(file.size() - suffix.size(), suffix.size(), suffix) != 0) {
      continue;
    }
    long pid = strtol(read_file(run + "/" + file).c_str(), nullptr, 10);
    if (pid > 1) found[file.substr(0, file.size() - suffix.size())] = static_cast<pid_t>(pid);
  }
  closedir(listing);
  return found;
}

void RealServer::stop() {
  // A forked child (a death test) must leave its parent's servers alone.
  if (dir_.empty() || owner_ != getpid()) return;
  const ServerRecipe *recipe = find_recipe(name_);
  if (recipe != nullptr) {
    std::string base = dir_.substr(0, dir_.rfind('/'));
    run_script(scripts_dir() + "/" + recipe->script, {"stop", dir_}, base + "/stop.log", {});
  }
  // Whatever the script could not stop goes with its whole process group.
  for (const auto &entry : pids()) kill(-entry.second, SIGKILL);
  std::string base = dir_.substr(0, dir_.rfind('/'));
  remove_tree(base);
  dir_.clear();
  ports_.clear();
  if (state_ == State::kRunning) state_ = State::kStopped;
}

}  // namespace quarry_test
