// The notifications a service manager receives, read from a datagram
// socket standing in for systemd's. Each wait is for a datagram, bounded
// only so that a fault fails the test instead of hanging it.
#include "agent/app/systemdnotify.h"

#include <gtest/gtest.h>
#include <poll.h>
#include <stdlib.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <atomic>
#include <cstdint>
#include <cstring>
#include <string>

namespace {

// A bound AF_UNIX datagram socket in a directory of its own, or under an
// abstract name.
class Listener {
 public:
  explicit Listener(bool abstract) {
    fd_ = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    char dir[] = "/tmp/tamrel-notify-XXXXXX";
    EXPECT_NE(mkdtemp(dir), nullptr);
    dir_ = dir;
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    if (abstract) {
      name_ = "@" + dir_;
      std::memcpy(address.sun_path + 1, dir_.data(), dir_.size());
    } else {
      name_ = dir_ + "/notify";
      std::memcpy(address.sun_path, name_.data(), name_.size());
    }
    socklen_t const length = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + name_.size());
    EXPECT_EQ(bind(fd_, reinterpret_cast<sockaddr*>(&address), length), 0) << strerror(errno);
  }
  ~Listener() {
    close(fd_);
    if (name_[0] == '/') unlink(name_.c_str());
    rmdir(dir_.c_str());
  }
  std::string const& name() const { return name_; }
  // The next datagram, "" when none arrives within `waitMs`.
  std::string next(int waitMs = 5000) {
    pollfd ready{fd_, POLLIN, 0};
    if (poll(&ready, 1, waitMs) != 1) return "";
    char buffer[256];
    ssize_t const n = recv(fd_, buffer, sizeof buffer, 0);
    return n > 0 ? std::string(buffer, static_cast<std::size_t>(n)) : "";
  }

 private:
  int fd_ = -1;
  std::string dir_, name_;
};

TEST(SystemdNotify, FromEnvironmentTakesTheVariablesAway) {
  struct Row {
    char const *what, *usec, *pid;
    std::int64_t watchdogUs;
  } const rows[] = {
      {"no watchdog", nullptr, nullptr, 0},
      {"a watchdog", "30000000", nullptr, 30000000},
      {"a watchdog for this process", "30000000", "self", 30000000},
      {"a watchdog for another process", "30000000", "1", 0},
      {"a malformed interval", "30s", nullptr, 0},
  };
  for (Row const& row : rows) {
    setenv("NOTIFY_SOCKET", "/run/systemd/notify", 1);
    row.usec ? setenv("WATCHDOG_USEC", row.usec, 1) : unsetenv("WATCHDOG_USEC");
    std::string const pid = std::string(row.pid ? row.pid : "") == "self"
                                ? std::to_string(getpid())
                                : (row.pid ? row.pid : "");
    row.pid ? setenv("WATCHDOG_PID", pid.c_str(), 1) : unsetenv("WATCHDOG_PID");
    SystemdNotify::Settings const settings = SystemdNotify::fromEnvironment();
    EXPECT_EQ(settings.socket, "/run/systemd/notify") << row.what;
    EXPECT_EQ(settings.watchdogUs, row.watchdogUs) << row.what;
    EXPECT_EQ(getenv("NOTIFY_SOCKET"), nullptr) << row.what;
    EXPECT_EQ(getenv("WATCHDOG_USEC"), nullptr) << row.what;
    EXPECT_EQ(getenv("WATCHDOG_PID"), nullptr) << row.what;
  }
}

TEST(SystemdNotify, WithoutASocketNothingIsSent) {
  SystemdNotify notify({"", 1000}, [] { return std::int64_t{0}; });
  EXPECT_FALSE(notify.active());
  notify.ready();
  EXPECT_FALSE(notify.feed());
  notify.stopping();
}

TEST(SystemdNotify, ReadyThenWatchdogFromItsThreadThenStopping) {
  for (bool const abstract : {false, true}) {
    Listener manager(abstract);
    // Rounds every 10 ms, with a heartbeat always fresh.
    SystemdNotify notify({manager.name(), 40000}, [] { return std::int64_t{0}; });
    ASSERT_TRUE(notify.active()) << manager.name();
    notify.ready();
    EXPECT_EQ(manager.next(), "READY=1") << manager.name();
    EXPECT_EQ(manager.next(), "WATCHDOG=1") << manager.name();
    EXPECT_EQ(manager.next(), "WATCHDOG=1") << manager.name();
    notify.stopping();
    std::string last;
    for (std::string got = manager.next(); !got.empty(); got = manager.next(0)) last = got;
    EXPECT_EQ(last, "STOPPING=1") << manager.name();
  }
}

TEST(SystemdNotify, AStaleHeartbeatStarvesTheWatchdog) {
  Listener manager(false);
  std::atomic<std::int64_t> age{120000};  // two minutes without progress
  // A one-minute watchdog: the thread's first round comes after 15 s; the
  // rounds here are the test's own.
  SystemdNotify notify({manager.name(), 60000000}, [&age] { return age.load(); });
  notify.ready();
  EXPECT_EQ(manager.next(), "READY=1");
  EXPECT_FALSE(notify.feed());
  age = 59000;
  EXPECT_TRUE(notify.feed());
  EXPECT_EQ(manager.next(), "WATCHDOG=1");
  age = 60000;
  EXPECT_FALSE(notify.feed());
  notify.stopping();
  EXPECT_EQ(manager.next(), "STOPPING=1");
}

}  // namespace
