#include "agent/commands/commandholder.h"

#include <poll.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>

#include "agent/commands/installoutcome.h"

namespace {

using Clock = std::chrono::steady_clock;

void closeFd(int& fd) {
  if (fd >= 0) close(fd);
  fd = -1;
}

void send(int& control, CommandHolder::Message const& message) {
  if (control < 0) return;
  if (::send(control, &message, sizeof message, MSG_NOSIGNAL) != sizeof message) closeFd(control);
}

// The lock file names the install that holds it.
void notePid(int lock, pid_t pid) {
  if (lock < 0) return;
  char digits[24];
  int n = 0;
  for (unsigned long value = static_cast<unsigned long>(pid); n == 0 || value > 0; value /= 10)
    digits[n++] = static_cast<char>('0' + value % 10);
  std::reverse(digits, digits + n);
  if (ftruncate(lock, 0) == 0 && pwrite(lock, digits, static_cast<std::size_t>(n), 0) == n) return;
}

}  // namespace

void CommandHolder::run(ProcessGroup& group, Setup const& given) {
  Setup setup = given;
  // The agent's stop signals reach the command through its group; this
  // one stays until the group is gone. SIGCHLD at its default, so that
  // children are waited for.
  for (int signal : {SIGTERM, SIGINT, SIGHUP, SIGPIPE, SIGQUIT}) ::signal(signal, SIG_IGN);
  ::signal(SIGCHLD, SIG_DFL);
  // Whatever the command leaves behind comes back here to be reaped.
  prctl(PR_SET_CHILD_SUBREAPER, 1, 0, 0, 0);
  int const keep[] = {setup.control, setup.in,     setup.heldInput, setup.out[0],
                      setup.out[1],  setup.err[0], setup.err[1],    setup.lock};
  closeDescriptorsBut(keep, sizeof keep / sizeof keep[0]);

  auto const start = Clock::now();
  bool const started = group.start(setup.in, setup.out[1], setup.err[1]);
  closeFd(setup.in);
  closeFd(setup.out[1]);
  closeFd(setup.err[1]);
  if (!started) {
    send(setup.control, {kNotStarted, 0, 0});
    _exit(127);
  }
  pid_t const command = group.pid();
  notePid(setup.lock, command);
  send(setup.control, {kStarted, static_cast<int>(command), 0});

  bool agent = true, exited = false, ending = false;
  int status = 0, flags = 0;
  for (int pause = 1;; pause = std::min(pause * 2, 50)) {
    if (!exited && !ending && setup.deadlineMs > 0 &&
        Clock::now() - start >= std::chrono::milliseconds(setup.deadlineMs)) {
      ending = true;
      if (flags == 0) flags = kTimedOut;
    }
    // What the command left in its group goes with it.
    if (ending || exited) group.end();
    for (;;) {
      int childStatus = 0;
      pid_t const done = waitpid(-1, &childStatus, WNOHANG);
      if (done <= 0) break;
      if (done == command) {
        status = childStatus;
        exited = true;
        send(setup.control, {kExited, status, 0});
      }
    }
    if (exited && !group.alive()) break;
    int timeout = pause;
    if (!exited && !ending && setup.deadlineMs > 0) {
      auto const left = std::chrono::duration_cast<std::chrono::milliseconds>(
          start + std::chrono::milliseconds(setup.deadlineMs) - Clock::now());
      timeout = std::max<int>(0, std::min<std::int64_t>(timeout, left.count()));
    }
    int const step = group.nextStepMs();
    if (step >= 0) timeout = std::min(timeout, step);
    // The agent is gone (its end closed, or a message to it failed). An
    // input it did not finish never ends for the command: its group is
    // killed instead.
    if (agent && setup.control < 0) {
      agent = false;
      if (setup.heldInput >= 0 && !exited) {
        group.kill(SIGKILL);
        flags |= kInputCut;
      }
      closeFd(setup.heldInput);
      continue;
    }
    // While the agent lives it reads the output; after, this one drains it.
    pollfd ready[3];
    nfds_t count = 0;
    if (agent) {
      ready[count++] = {setup.control, POLLIN, 0};
    } else {
      if (setup.out[0] >= 0) ready[count++] = {setup.out[0], POLLIN, 0};
      if (setup.err[0] >= 0) ready[count++] = {setup.err[0], POLLIN, 0};
    }
    if (poll(ready, count, timeout) <= 0) continue;
    for (nfds_t i = 0; i < count; ++i) {
      if (ready[i].revents == 0) continue;
      char buffer[4096];
      ssize_t const n = read(ready[i].fd, buffer, sizeof buffer);
      if (n < 0 && (errno == EINTR || errno == EAGAIN)) continue;
      if (ready[i].fd != setup.control) {
        if (n <= 0) closeFd(ready[i].fd == setup.out[0] ? setup.out[0] : setup.err[0]);
        continue;
      }
      if (n <= 0) {
        closeFd(setup.control);
        continue;
      }
      for (ssize_t k = 0; k < n; ++k) {
        if (buffer[k] == kInputDone) closeFd(setup.heldInput);
        if (buffer[k] == kEnd && !ending) {
          ending = true;
          if (flags == 0 && !exited) flags = kEndedByAgent;
        }
      }
    }
  }
  closeFd(setup.heldInput);
  if (setup.outcome != nullptr && !InstallOutcome::writeNow(*setup.outcome, status))
    flags |= kOutcomeUnwritten;
  closeFd(setup.lock);
  send(setup.control, {kDone, status, flags});
  _exit(0);
}
