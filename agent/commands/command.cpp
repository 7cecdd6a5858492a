#include "agent/commands/command.h"

#include "agent/base/heartbeat.h"
#include "agent/commands/processgroup.h"
#include "agent/commands/stderrtail.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <initializer_list>

namespace {

using Clock = std::chrono::steady_clock;

// Both ends close on exec: the command gets its copy through dup2 only.
struct Pipe {
  int fds[2] = {-1, -1};
  bool open() { return pipe2(fds, O_CLOEXEC) == 0; }
  ~Pipe() {
    for (int fd : fds) {
      if (fd >= 0) close(fd);
    }
  }
  void closeEnd(int which) {
    if (fds[which] >= 0) close(fds[which]);
    fds[which] = -1;
  }
};

// Standard output goes to the console a line at a time: each write ends at
// a line break, so the console stamps and escapes it as one line of its own.
void printOut(char const* data, std::size_t size) {
  std::size_t start = 0;
  for (std::size_t i = 0; i < size; ++i) {
    if (data[i] != '\n') continue;
    std::fwrite(data + start, 1, i + 1 - start, stdout);
    start = i + 1;
  }
  if (start < size) std::fwrite(data + start, 1, size - start, stdout);
}

// In the forked child: keeps `fd` (close-on-exec, so the command does not
// get it) in a process that waits for the command and ends as it ended.
// Whatever the command leaves running in the background does not hold it.
// Returns in the command's process, which goes on to exec.
void holdWhileRunning(int fd, std::initializer_list<int> pipes) {
  pid_t const command = fork();
  if (command < 0) _exit(127);
  if (command == 0) return;
  for (int end : pipes) close(end);
  close(STDOUT_FILENO);
  close(STDERR_FILENO);
  // The stop reaches the command through the group; this one waits for it.
  signal(SIGTERM, SIG_IGN);
  signal(SIGINT, SIG_IGN);
  signal(SIGHUP, SIG_IGN);
  int status = 0;
  while (waitpid(command, &status, 0) < 0) {
    if (errno != EINTR) _exit(127);
  }
  close(fd);
  if (WIFSIGNALED(status)) {
    signal(WTERMSIG(status), SIG_DFL);
    raise(WTERMSIG(status));
  }
  _exit(WIFEXITED(status) ? WEXITSTATUS(status) : 127);
}

}  // namespace

std::string CommandResult::describe() const {
  if (!started) return "could not be started";
  std::string text = exitCode >= 0 ? "exit " + std::to_string(exitCode)
                                   : "killed by signal " + std::to_string(signal);
  if (timedOut) text += ", past its deadline";
  if (stopped) text += ", the agent was stopping";
  return text;
}

CommandResult runCommand(std::string const& command, std::vector<std::string> const& args,
                         CommandOptions const& options) {
  CommandResult result;
  Pipe out, err;
  if (!out.open() || !err.open()) return result;
  ProcessGroup group;
  bool const forked = group.start(command, args, {}, [&] {
    dup2(out.fds[1], STDOUT_FILENO);
    dup2(err.fds[1], STDERR_FILENO);
    if (options.inherit >= 0)
      holdWhileRunning(options.inherit, {out.fds[0], out.fds[1], err.fds[0], err.fds[1]});
  });
  out.closeEnd(1);
  err.closeEnd(1);
  if (!forked) return result;
  pid_t const child = group.pid();
  if (options.started) options.started(child);

  auto const start = Clock::now();
  // A stop or the deadline ends the command's group.
  auto const passStop = [&] {
    bool const stop = options.stop != nullptr && options.stop->load();
    bool const late = options.deadlineMs > 0 &&
                      Clock::now() - start >= std::chrono::milliseconds(options.deadlineMs);
    if (!stop && !late) {
      Heartbeat::beat();  // a command within its deadline is progress
      return;
    }
    if (group.sent() == 0) {
      result.stopped = stop;
      result.timedOut = !stop;
    }
    group.end();
  };
  StderrTail tail;
  char buffer[4096];
  int status = 0;
  bool exited = false;
  Clock::time_point drainUntil;
  int* const fds[2] = {&out.fds[0], &err.fds[0]};
  for (;;) {
    passStop();
    if (!exited) {
      pid_t const done = waitpid(child, &status, WNOHANG);
      if (done < 0 && errno != EINTR) return result;  // its status is lost: not "done"
      exited = done == child;
      if (exited) drainUntil = Clock::now() + std::chrono::milliseconds(kCommandDrainMs);
    }
    pollfd ready[2];
    nfds_t count = 0;
    for (int* fd : fds) {
      if (*fd >= 0) ready[count++] = {*fd, POLLIN, 0};
    }
    // Output still coming after the exit belongs to something the command
    // left running: read briefly, then leave it.
    if (count == 0 || (exited && Clock::now() >= drainUntil)) break;
    int const events = poll(ready, count, exited ? 20 : 100);
    if (events < 0 && errno != EINTR) break;
    if (events == 0 && exited) break;
    for (nfds_t i = 0; events > 0 && i < count; ++i) {
      if (ready[i].revents == 0) continue;
      ssize_t const n = read(ready[i].fd, buffer, sizeof buffer);
      if (n < 0 && errno == EINTR) continue;
      bool const isOut = ready[i].fd == out.fds[0];
      if (n <= 0) {
        if (isOut)
          out.closeEnd(0);
        else
          err.closeEnd(0);
        continue;
      }
      if (isOut)
        printOut(buffer, static_cast<std::size_t>(n));
      else
        tail.add(buffer, static_cast<std::size_t>(n));
    }
  }
  // The pipes usually close as the command exits: look again soon, then
  // every 50 ms.
  for (int pause = 1; !exited; pause = pause * 2 > 50 ? 50 : pause * 2) {
    passStop();
    pid_t const done = waitpid(child, &status, WNOHANG);
    if (done < 0 && errno != EINTR) return result;
    exited = done == child;
    if (!exited) poll(nullptr, 0, pause);
  }
  result.started = true;
  result.exitCode = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  result.signal = WIFSIGNALED(status) ? WTERMSIG(status) : 0;
  result.stderrTail = tail.lines();
  return result;
}
