#ifndef TAMREL_AGENT_COMMANDS_INSTALLLOCK_H_
#define TAMREL_AGENT_COMMANDS_INSTALLLOCK_H_

#include <sys/types.h>

#include <atomic>
#include <cstdint>
#include <string>

// At most one install at a time on the device, across restarts of the
// agent: an exclusive flock on a file, taken before an install and handed to
// the install command alone, so that it is held exactly as long as the
// install (and whatever it left running) lives. The file holds the pid of
// the install that took it. A file nobody holds a lock on never blocks.
class InstallLock {
 public:
  explicit InstallLock(std::string path) : path_(std::move(path)) {}
  ~InstallLock() { release(); }
  InstallLock(InstallLock const&) = delete;
  InstallLock& operator=(InstallLock const&) = delete;

  // Takes the lock. While an earlier install holds it: says so once and
  // waits, up to `limitMs` (0: none) and until *stop is set. False with
  // `error` when it was not taken (stopped: `error` stays ""). Without
  // `create`, a missing file counts as free and is not made.
  bool take(std::atomic<bool> const& stop, std::int64_t limitMs, std::string& error,
            bool create = true);
  // The locked descriptor, for the install command to inherit; -1 when not
  // held.
  int fd() const { return fd_; }
  // The install `pid` holds the lock now: its pid goes into the file and the
  // agent lets go of its own descriptor.
  void handOver(pid_t pid);
  void release();

 private:
  std::string const path_;
  int fd_ = -1;
};

#endif  // TAMREL_AGENT_COMMANDS_INSTALLLOCK_H_
