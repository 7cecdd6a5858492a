#include "agent/commands/installlock.h"
#include "agent/base/heartbeat.h"
#include "agent/base/log.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/file.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstring>

bool InstallLock::take(std::atomic<bool> const& stop, std::int64_t limitMs, std::string& error,
                       bool create) {
  release();
  int const fd =
      open(path_.c_str(), O_RDWR | O_NOFOLLOW | O_CLOEXEC | (create ? O_CREAT : 0), 0600);
  if (fd < 0 && !create && errno == ENOENT) return true;  // no install ever ran here
  if (fd < 0) {
    error = "cannot open the install lock " + path_ + ": " + std::strerror(errno);
    return false;
  }
  auto const start = std::chrono::steady_clock::now();
  bool told = false;
  while (flock(fd, LOCK_EX | LOCK_NB) != 0) {
    if (errno == EINTR) continue;
    if (errno != EWOULDBLOCK) {
      error = "cannot lock " + path_ + ": " + std::strerror(errno);
      close(fd);
      return false;
    }
    if (!told) {
      char pid[32] = {0};
      ssize_t const n = pread(fd, pid, sizeof pid - 1, 0);
      std::string shown = n > 0 ? std::string(pid, static_cast<std::size_t>(n)) : "?";
      if (shown.find_first_not_of("0123456789") != std::string::npos) shown = "?";
      Log::info("an install started earlier is still running (pid %s); waiting", shown.c_str());
      told = true;
    }
    auto const waited = std::chrono::steady_clock::now() - start;
    if (stop.load() || (limitMs > 0 && waited >= std::chrono::milliseconds(limitMs))) {
      if (!stop.load()) {
        error = "an install started earlier still runs after " + std::to_string(limitMs / 1000) +
                " s (install-timeout-s)";
      }
      close(fd);
      return false;
    }
    Heartbeat::beat();  // waiting within install-timeout-s is progress
    poll(nullptr, 0, 100);
  }
  if (told) Log::info("the earlier install has ended");
  fd_ = fd;
  return true;
}

void InstallLock::handOver(pid_t pid) {
  if (fd_ < 0) return;
  std::string const text = std::to_string(pid);
  if (ftruncate(fd_, 0) != 0 ||
      pwrite(fd_, text.data(), text.size(), 0) != static_cast<ssize_t>(text.size())) {
    Log::warning("install lock %s: cannot note pid %d: %s", path_.c_str(), int(pid),
                 std::strerror(errno));
  }
  release();
}

void InstallLock::release() {
  if (fd_ >= 0) close(fd_);
  fd_ = -1;
}
