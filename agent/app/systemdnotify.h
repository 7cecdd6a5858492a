#ifndef TAMREL_AGENT_APP_SYSTEMDNOTIFY_H_
#define TAMREL_AGENT_APP_SYSTEMDNOTIFY_H_

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <mutex>
#include <string>
#include <thread>

// Tells the service manager (systemd, Type=notify) how the agent is doing:
// READY=1 once the start-up checks passed, STOPPING=1 as it stops, and,
// with WatchdogSec= set, WATCHDOG=1 from a thread of its own a few times per
// interval, but only while the update loop's heartbeat is younger than the
// interval. A loop stuck for good thus starves the watchdog and systemd
// restarts the agent; a long download or install, which keeps beating, does
// not. Without NOTIFY_SOCKET every call does nothing.
class SystemdNotify {
 public:
  struct Settings {
    std::string socket;           // NOTIFY_SOCKET: a path, or "@name" (abstract)
    std::int64_t watchdogUs = 0;  // WATCHDOG_USEC; 0: no watchdog
  };
  // Reads NOTIFY_SOCKET, WATCHDOG_USEC and WATCHDOG_PID (a watchdog meant for
  // another process is ignored) and removes them from the environment, so
  // that no command the agent runs speaks for it. Call before any thread.
  static Settings fromEnvironment();

  // `heartbeatAgeMs`: milliseconds since the loop last showed progress.
  SystemdNotify(Settings const& settings, std::function<std::int64_t()> heartbeatAgeMs);
  ~SystemdNotify();
  SystemdNotify(SystemdNotify const&) = delete;
  SystemdNotify& operator=(SystemdNotify const&) = delete;

  bool active() const { return fd_ >= 0; }
  // READY=1, then the watchdog thread starts.
  void ready();
  // STOPPING=1; the watchdog thread ends.
  void stopping();
  // One watchdog round: WATCHDOG=1 when the heartbeat is fresh; true if sent.
  bool feed();

 private:
  bool send(std::string const& message);
  void endThread();

  Settings const settings_;
  std::function<std::int64_t()> const heartbeatAgeMs_;
  int fd_ = -1;
  std::atomic<bool> starving_{false};  // the last round found the heartbeat stale
  std::mutex lock_;
  std::condition_variable wake_;
  bool ending_ = false;
  std::thread thread_;
};

#endif  // TAMREL_AGENT_APP_SYSTEMDNOTIFY_H_
