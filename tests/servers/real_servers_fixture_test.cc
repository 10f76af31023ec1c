// The real-server fixture's own rules: when a test may skip, when it must
// fail, retries on a failed start, and that no server process outlives its
// RealServer or its test process.
#include <signal.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "tests/support/log_capture.h"
#include "tests/support/real_servers.h"

namespace quarry_test {
namespace {

constexpr int kWatchdogWaitSeconds = 20;

// Sets (or, with nullptr, removes) an environment variable for one scope.
class ScopedEnv {
 public:
  ScopedEnv(const char *name, const char *value) : name_(name) {
    const char *old = getenv(name);
    had_ = old != nullptr;
    if (had_) old_ = old;
    if (value != nullptr) {
      setenv(name, value, 1);
    } else {
      unsetenv(name);
    }
  }
  ~ScopedEnv() {
    if (had_) {
      setenv(name_.c_str(), old_.c_str(), 1);
    } else {
      unsetenv(name_.c_str());
    }
  }
  ScopedEnv(const ScopedEnv &) = delete;
  ScopedEnv &operator=(const ScopedEnv &) = delete;

 private:
  std::string name_;
  std::string old_;
  bool had_ = false;
};

// A scripts directory whose dnsmasq.sh only exits with |code|, after
// appending its arguments to calls.log.
class FakeScripts {
 public:
  explicit FakeScripts(int code) {
    std::string script = dir_.write(
        "dnsmasq.sh", "echo \"$*\" >> \"$(dirname \"$0\")/calls.log\"\n"
                  "echo 'fake start-up message' >&2\n"
                  "[ \"$1\" = start ] && exit " + std::to_string(code) + "\nexit 0\n");
    chmod(script.c_str(), 0755);
  }
  const std::string &path() const { return dir_.path(); }
  std::vector<std::string> start_calls() const {
    std::vector<std::string> calls;
    std::istringstream in(read_file(dir_.file("calls.log")));
    for (std::string line; std::getline(in, line);) {
      if (line.compare(0, 6, "start ") == 0) calls.push_back(line);
    }
    return calls;
  }

 private:
  TempDir dir_;
};

// Whether |pid| has ended (gone, or a zombie waiting for its reaper).
bool process_ended(pid_t pid) {
  std::string stat = read_file("/proc/" + std::to_string(pid) + "/stat");
  if (stat.empty()) return true;
  size_t paren = stat.rfind(')');
  return paren != std::string::npos && paren + 2 < stat.size() && stat[paren + 2] == 'Z';
}

TEST(RealServerFixtureTest, UnknownNameFailsAndIsNotSkippable) {
  std::unique_ptr<RealServer> server = RealServer::start("no-such-server");
  EXPECT_FALSE(server->ok());
  EXPECT_EQ(server->state(), RealServer::State::kFailed);
  EXPECT_FALSE(server->skippable());
  EXPECT_EQ(server->error(), "no real server named \"no-such-server\"");
}

TEST(RealServerFixtureTest, MissingBinaryIsSkippableByDefault) {
  FakeScripts fake(4);
  ScopedEnv dir("QUARRY_SERVERS_DIR", fake.path().c_str());
  ScopedEnv required("QUARRY_REQUIRE_SERVERS", nullptr);
  std::unique_ptr<RealServer> server = RealServer::start("dnsmasq");
  EXPECT_EQ(server->state(), RealServer::State::kMissing);
  EXPECT_TRUE(server->skippable());
  EXPECT_NE(server->error().find("fake start-up message"), std::string::npos) << server->error();
}

TEST(RealServerFixtureTest, MissingBinaryIsNotSkippableWhenServersAreRequired) {
  FakeScripts fake(4);
  ScopedEnv dir("QUARRY_SERVERS_DIR", fake.path().c_str());
  ScopedEnv required("QUARRY_REQUIRE_SERVERS", "1");
  std::unique_ptr<RealServer> server = RealServer::start("dnsmasq");
  EXPECT_EQ(server->state(), RealServer::State::kMissing);
  EXPECT_FALSE(server->skippable());
}

TEST(RealServerFixtureTest, MissingBinaryIsNotRetried) {
  FakeScripts fake(4);
  ScopedEnv dir("QUARRY_SERVERS_DIR", fake.path().c_str());
  std::unique_ptr<RealServer> server = RealServer::start("dnsmasq");
  EXPECT_EQ(fake.start_calls().size(), 1u);
}

TEST(RealServerFixtureTest, NotRootIsSkippableUnlessServersAreRequired) {
  FakeScripts fake(5);
  ScopedEnv dir("QUARRY_SERVERS_DIR", fake.path().c_str());
  {
    ScopedEnv required("QUARRY_REQUIRE_SERVERS", nullptr);
    EXPECT_TRUE(RealServer::start("dnsmasq")->skippable());
  }
  ScopedEnv required("QUARRY_REQUIRE_SERVERS", "1");
  std::unique_ptr<RealServer> server = RealServer::start("dnsmasq");
  EXPECT_EQ(server->state(), RealServer::State::kNotRoot);
  EXPECT_FALSE(server->skippable());
}

TEST(RealServerFixtureTest, FailedStartIsNeverSkippable) {
  FakeScripts fake(1);
  ScopedEnv dir("QUARRY_SERVERS_DIR", fake.path().c_str());
  ScopedEnv required("QUARRY_REQUIRE_SERVERS", nullptr);
  std::unique_ptr<RealServer> server = RealServer::start("dnsmasq");
  EXPECT_EQ(server->state(), RealServer::State::kFailed);
  EXPECT_FALSE(server->skippable());
}

TEST(RealServerFixtureTest, FailedStartIsRetriedOnFreshPortsAndDirectories) {
  FakeScripts fake(1);
  ScopedEnv dir("QUARRY_SERVERS_DIR", fake.path().c_str());
  std::unique_ptr<RealServer> server = RealServer::start("dnsmasq");
  std::vector<std::string> calls = fake.start_calls();
  ASSERT_EQ(calls.size(), 3u);
  // Each call is "start DIR PORT".
  std::vector<std::string> dirs, ports;
  for (const std::string &call : calls) {
    std::istringstream words(call);
    std::string command, where, port;
    words >> command >> where >> port;
    dirs.push_back(where);
    ports.push_back(port);
  }
  EXPECT_NE(dirs[0], dirs[1]);
  EXPECT_NE(dirs[1], dirs[2]);
  EXPECT_NE(dirs[0], dirs[2]);
  EXPECT_NE(ports[0], ports[1]);
  EXPECT_NE(ports[1], ports[2]);
  EXPECT_NE(ports[0], ports[2]);
}

TEST(RealServerFixtureTest, FreePortsAreDistinct) {
  std::vector<uint16_t> ports;
  ASSERT_TRUE(pick_free_ports(4, &ports));
  ASSERT_EQ(ports.size(), 4u);
  for (size_t i = 0; i < ports.size(); ++i) {
    EXPECT_NE(ports[i], 0);
    for (size_t j = i + 1; j < ports.size(); ++j) EXPECT_NE(ports[i], ports[j]);
  }
}

TEST(RealServerFixtureTest, StopEndsEveryServerProcessAndRemovesItsDirectory) {
  std::unique_ptr<RealServer> server = RealServer::start("tftpd");
  QUARRY_REQUIRE_SERVER(*server);
  std::map<std::string, pid_t> pids = server->pids();
  ASSERT_FALSE(pids.empty());
  std::string dir = server->dir();
  server->stop();
  for (const auto &entry : pids) EXPECT_TRUE(process_ended(entry.second)) << entry.first;
  EXPECT_FALSE(file_exists(dir));
  EXPECT_EQ(server->state(), RealServer::State::kStopped);
}

TEST(RealServerFixtureTest, WatchdogStopsServersWhenTheirOwnerDies) {
  QUARRY_SKIP_UNLESS_ROOT();
  std::vector<uint16_t> ports;
  ASSERT_TRUE(pick_free_ports(2, &ports));
  // A stand-in for a test process that dies without stopping its servers.
  pid_t owner = fork();
  ASSERT_GE(owner, 0);
  if (owner == 0) {
    pause();
    _exit(0);
  }
  TempDir base;
  std::string dir = base.file("server");
  std::string script = std::string(QUARRY_SOURCE_DIR) + "/tests/servers/tftpd.sh";
  std::string command = "QUARRY_SERVER_OWNER=" + std::to_string(owner) + " " + script +
                        " start " + dir + " " + std::to_string(ports[0]) + " " +
                        std::to_string(ports[1]) + " > " + base.file("start.log") + " 2>&1";
  int rc = system(command.c_str());
  kill(owner, SIGKILL);
  waitpid(owner, nullptr, 0);
  if (rc != 0) {
    EXPECT_EQ(system((script + " stop " + dir).c_str()), 0);
    FAIL() << read_file(base.file("start.log"));
  }
  pid_t server = static_cast<pid_t>(strtol(read_file(dir + "/run/tftpd.pid").c_str(), nullptr, 10));
  ASSERT_GT(server, 1);
  bool ended = false;
  for (int i = 0; i < kWatchdogWaitSeconds * 10 && !ended; ++i) {
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    ended = process_ended(server);
  }
  EXPECT_TRUE(ended);
  EXPECT_EQ(system((script + " stop " + dir).c_str()), 0);
}

}  // namespace
}  // namespace quarry_test
