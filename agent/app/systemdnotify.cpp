#include "agent/app/systemdnotify.h"

#include <stddef.h>
#include <stdlib.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstring>

#include "agent/base/log.h"

SystemdNotify::Settings SystemdNotify::fromEnvironment() {
  Settings settings;
  if (char const* socket = getenv("NOTIFY_SOCKET")) settings.socket = socket;
  char const* usec = getenv("WATCHDOG_USEC");
  char const* pid = getenv("WATCHDOG_PID");
  if (usec != nullptr && (pid == nullptr || atol(pid) == static_cast<long>(getpid()))) {
    char* end = nullptr;
    long long const value = strtoll(usec, &end, 10);
    if (end != usec && *end == '\0' && value > 0) settings.watchdogUs = value;
  }
  unsetenv("NOTIFY_SOCKET");
  unsetenv("WATCHDOG_USEC");
  unsetenv("WATCHDOG_PID");
  return settings;
}

SystemdNotify::SystemdNotify(Settings const& settings, std::function<std::int64_t()> heartbeatAgeMs)
    : settings_(settings), heartbeatAgeMs_(std::move(heartbeatAgeMs)) {
  std::string const& path = settings_.socket;
  if (path.empty()) return;
  if ((path[0] != '/' && path[0] != '@') || path.size() >= sizeof(sockaddr_un::sun_path)) {
    Log::warning("NOTIFY_SOCKET '%s' is no socket address; systemd is not told how the agent is",
                 path.c_str());
    return;
  }
  fd_ = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  if (fd_ < 0)
    Log::warning("cannot open a socket for systemd's notifications: %s", strerror(errno));
}

SystemdNotify::~SystemdNotify() {
  endThread();
  if (fd_ >= 0) close(fd_);
}

bool SystemdNotify::send(std::string const& message) {
  if (fd_ < 0) return false;
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  std::string const& path = settings_.socket;
  std::memcpy(address.sun_path, path.data(), path.size());
  if (path[0] == '@') address.sun_path[0] = '\0';
  auto const length = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + path.size());
  ssize_t sent;
  do {
    sent = sendto(fd_, message.data(), message.size(), MSG_NOSIGNAL,
                  reinterpret_cast<sockaddr const*>(&address), length);
  } while (sent < 0 && errno == EINTR);
  if (sent < 0)
    Log::debug("systemd notification %s not sent: %s", message.c_str(), strerror(errno));
  return sent == static_cast<ssize_t>(message.size());
}

void SystemdNotify::ready() {
  if (!send("READY=1") || settings_.watchdogUs <= 0 || thread_.joinable()) return;
  // Several rounds per interval: one late wake-up never costs a restart.
  auto const round = std::chrono::microseconds(settings_.watchdogUs / 4);
  thread_ = std::thread([this, round] {
    std::unique_lock<std::mutex> guard(lock_);
    while (!wake_.wait_for(guard, round, [this] { return ending_; })) {
      guard.unlock();
      feed();
      guard.lock();
    }
  });
}

bool SystemdNotify::feed() {
  if (fd_ < 0 || settings_.watchdogUs <= 0) return false;
  std::int64_t const age = heartbeatAgeMs_();
  bool const fresh = age < settings_.watchdogUs / 1000;
  bool const wasStarving = starving_.exchange(!fresh);
  if (!fresh && !wasStarving) {
    Log::error(
        "the update loop has shown no progress for %lld s; the systemd watchdog is no "
        "longer fed and will restart the agent",
        static_cast<long long>(age / 1000));
  } else if (fresh && wasStarving) {
    Log::warning("the update loop goes on again; feeding the systemd watchdog");
  }
  return fresh && send("WATCHDOG=1");
}

void SystemdNotify::stopping() {
  endThread();
  send("STOPPING=1");
}

void SystemdNotify::endThread() {
  {
    std::lock_guard<std::mutex> guard(lock_);
    ending_ = true;
  }
  wake_.notify_one();
  if (thread_.joinable()) thread_.join();
}
