// The notifications a service manager receives, read from a datagram
// socket standing in for systemd's (a path, then an abstract name). The
// watchdog's rounds are the test's own: its thread's first one is 15 s away.
#include "agent/app/systemdnotify.h"

#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <atomic>
#include <cstdlib>
#include <cstring>
#include <string>
#include <tuple>

namespace {

// The next datagram on `fd`, "" when none waits.
std::string next(int fd) {
  pollfd ready{fd, POLLIN, 0};
  char buffer[64];
  ssize_t const n = poll(&ready, 1, 0) == 1 ? recv(fd, buffer, sizeof buffer, 0) : 0;
  return std::string(buffer, n > 0 ? static_cast<std::size_t>(n) : 0);
}

TEST(SystemdNotify, ReadyWatchdogWhileTheHeartbeatIsFreshStopping) {
  char dir[] = "/tmp/tamrel-notify-XXXXXX";
  ASSERT_NE(mkdtemp(dir), nullptr);
  for (std::string const& name : {std::string(dir) + "/notify", "@" + std::string(dir)}) {
    int const fd = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::memcpy(address.sun_path, name.data(), name.size());
    if (name[0] == '@') address.sun_path[0] = '\0';
    ASSERT_EQ(bind(fd, reinterpret_cast<sockaddr*>(&address),
                   static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + name.size())),
              0);
    std::atomic<std::int64_t> age{120000};  // two minutes without progress
    {
      SystemdNotify notify({name, 60000000}, [&age] { return age.load(); });  // one minute
      notify.ready();
      EXPECT_EQ(next(fd), "READY=1") << name;
      EXPECT_FALSE(notify.feed()) << name;
      age = 59000;
      EXPECT_TRUE(notify.feed()) << name;
      EXPECT_EQ(next(fd), "WATCHDOG=1") << name;
      age = 60000;
      EXPECT_FALSE(notify.feed()) << name;
      notify.stopping();
      EXPECT_EQ(next(fd), "STOPPING=1") << name;
      EXPECT_EQ(next(fd), "") << name;
    }
    close(fd);
  }
  unlink((std::string(dir) + "/notify").c_str());
  rmdir(dir);
}

TEST(SystemdNotify, TakesItsVariablesOutOfTheEnvironment) {
  std::string const self = std::to_string(getpid());
  // WATCHDOG_USEC, WATCHDOG_PID ("" unset), the watchdog taken.
  for (auto const& [usec, pid, taken] :
       {std::make_tuple("30000000", "", true), std::make_tuple("30000000", self.c_str(), true),
        std::make_tuple("30000000", "1", false), std::make_tuple("30s", "", false)}) {
    setenv("NOTIFY_SOCKET", "/run/systemd/notify", 1);
    setenv("WATCHDOG_USEC", usec, 1);
    *pid ? setenv("WATCHDOG_PID", pid, 1) : unsetenv("WATCHDOG_PID");
    SystemdNotify::Settings const settings = SystemdNotify::fromEnvironment();
    EXPECT_EQ(settings.socket, "/run/systemd/notify");
    EXPECT_EQ(settings.watchdogUs, taken ? 30000000 : 0) << usec << " " << pid;
    for (char const* name : {"NOTIFY_SOCKET", "WATCHDOG_USEC", "WATCHDOG_PID"})
      EXPECT_EQ(getenv(name), nullptr) << name;
  }
}

}  // namespace
