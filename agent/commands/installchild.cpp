#include "agent/commands/installchild.h"

#include "agent/base/heartbeat.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>

InstallChild::InstallChild(Options const& options) {
  int errors[2];
  if (pipe2(errors, O_CLOEXEC) != 0) return;
  int const devNull = options.stdinFd < 0 ? open("/dev/null", O_RDONLY | O_CLOEXEC) : -1;
  bool const forked = group_.start(options.command, options.args, options.environment, [&] {
    dup2(options.stdinFd >= 0 ? options.stdinFd : devNull, STDIN_FILENO);
    dup2(errors[1], STDERR_FILENO);
    // The one descriptor the command inherits besides its standard streams.
    if (options.keepFd >= 0) fcntl(options.keepFd, F_SETFD, 0);
  });
  close(errors[1]);
  if (devNull >= 0) close(devNull);
  if (!forked) {
    close(errors[0]);
    return;
  }
  reader_ = std::thread([this, fd = errors[0]] { readErrors(fd); });
}

InstallChild::~InstallChild() {
  if (started() && !reaped_) wait(nullptr, true);
  if (reader_.joinable()) reader_.join();
}

void InstallChild::readErrors(int fd) {
  // Reading ends once the command exited and nothing more waits, even if
  // something it left in the background still holds its standard error.
  char buffer[4096];
  for (;;) {
    pollfd ready{fd, POLLIN, 0};
    int const events = poll(&ready, 1, reaped_ ? 0 : 100);
    if (events < 0 && errno == EINTR) continue;
    ssize_t const n = events > 0 ? read(fd, buffer, sizeof buffer) : 0;
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) {
      if (events > 0 || reaped_) break;
      continue;
    }
    std::lock_guard<std::mutex> guard(tailLock_);
    tail_.add(buffer, static_cast<std::size_t>(n));
  }
  close(fd);
}

bool InstallChild::exited() {
  std::lock_guard<std::mutex> guard(lock_);
  pid_t const pid = group_.pid();
  if (!exited_ && pid > 0) {
    pid_t const done = waitpid(pid, &status_, WNOHANG);
    exited_ = done == pid || (done < 0 && errno == ECHILD);
  }
  return exited_;
}

CommandResult InstallChild::wait(std::atomic<bool> const* stop, bool end) {
  CommandResult result;
  if (!started()) return result;
  for (int pause = 1; !exited(); pause = std::min(pause * 2, 50)) {
    if (end || (stop != nullptr && stop->load())) group_.end();
    Heartbeat::beat();  // waiting for a running install is progress
    poll(nullptr, 0, pause);
  }
  // What it left behind in its group goes with it.
  if (group_.sent() != 0) kill(-group_.pid(), SIGKILL);
  reaped_ = true;
  if (reader_.joinable()) reader_.join();
  result.started = true;
  result.exitCode = WIFEXITED(status_) ? WEXITSTATUS(status_) : -1;
  std::lock_guard<std::mutex> guard(tailLock_);
  result.stderrTail = tail_.lines();
  return result;
}
