#include "agent/commands/runningcommand.h"

#include "agent/base/heartbeat.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstring>

#include "agent/base/log.h"
#include "agent/commands/processgroup.h"

namespace {

using Clock = std::chrono::steady_clock;

// Both ends close on exec; the holder hands the command its copies.
struct Pipe {
  int fds[2] = {-1, -1};
  bool open() { return pipe2(fds, O_CLOEXEC) == 0; }
  ~Pipe() {
    for (int fd : fds) {
      if (fd >= 0) close(fd);
    }
  }
};

// Standard output goes to the console a whole line a write, so that the
// console stamps and escapes it as one line of its own and no other line is
// glued to an unfinished one; a line without end is cut at this length.
std::size_t const kLineLimit = 4096;

void printLine(std::string& line) {
  if (line.empty() || line.back() != '\n') line += '\n';
  std::fwrite(line.data(), 1, line.size(), stdout);
  line.clear();
}

}  // namespace

RunningCommand::RunningCommand(Options options) : options_(std::move(options)) {
  Pipe out, err;
  int control[2];
  if (!out.open() || !err.open() ||
      socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, control) != 0) {
    Log::error("cannot start a command: %s", std::strerror(errno));
    return;
  }
  ProcessGroup group(options_.command, options_.args, options_.environment);
  // Made here: the holder must not allocate.
  InstallOutcome::Prepared const outcome =
      InstallOutcome::prepare(options_.outcomePath, options_.outcomeTag);
  std::fflush(stdout);
  pid_t const holder = fork();
  if (holder == 0) {
    CommandHolder::Setup setup;
    setup.control = control[1];
    setup.in = options_.stdinFd;
    setup.heldInput = options_.heldInput;
    setup.out[0] = out.fds[0];
    setup.out[1] = out.fds[1];
    setup.err[0] = err.fds[0];
    setup.err[1] = err.fds[1];
    setup.lock = options_.lockFd;
    setup.deadlineMs = options_.deadlineMs;
    if (!options_.outcomePath.empty()) setup.outcome = &outcome;
    CommandHolder::run(group, setup);
  }
  close(control[1]);
  if (holder < 0) {
    close(control[0]);
    Log::error("cannot start a command: %s", std::strerror(errno));
    return;
  }
  holder_ = holder;
  control_ = control[0];
  {
    std::lock_guard<std::mutex> guard(lock_);
    while (pid_ <= 0 && receive(-1)) {
    }
  }
  if (pid_ <= 0) {
    wait(nullptr);
    return;
  }
  int const outFd = fcntl(out.fds[0], F_DUPFD_CLOEXEC, 0);
  int const errFd = fcntl(err.fds[0], F_DUPFD_CLOEXEC, 0);
  reader_ = std::thread([this, outFd, errFd] { readOutput(outFd, errFd); });
}

RunningCommand::~RunningCommand() {
  if (holder_ > 0) wait(nullptr, true);
  if (reader_.joinable()) reader_.join();
}

bool RunningCommand::receive(int timeoutMs) {
  if (holderGone_) return false;
  pollfd ready{control_, POLLIN, 0};
  int const events = poll(&ready, 1, timeoutMs);
  if (events <= 0) return events == 0 || errno == EINTR;
  CommandHolder::Message message{};
  ssize_t const n = recv(control_, &message, sizeof message, MSG_WAITALL);
  if (n < 0 && errno == EINTR) return true;
  if (n != static_cast<ssize_t>(sizeof message)) {
    holderGone_ = true;
    return false;
  }
  switch (message.kind) {
    case CommandHolder::kStarted:
      pid_ = message.value;
      break;
    case CommandHolder::kExited:
      exited_ = true;
      status_ = message.value;
      break;
    case CommandHolder::kDone:
      exited_ = done_ = true;
      status_ = message.value;
      flags_ = message.flags;
      break;
    default:
      holderGone_ = true;
      return false;
  }
  return true;
}

void RunningCommand::tell(char request) {
  if (control_ >= 0) send(control_, &request, 1, MSG_NOSIGNAL);
}

bool RunningCommand::exited() {
  std::lock_guard<std::mutex> guard(lock_);
  if (holder_ <= 0) return true;
  while (!exited_ && !holderGone_) {
    pollfd ready{control_, POLLIN, 0};
    if (poll(&ready, 1, 0) <= 0 || !receive(0)) break;
  }
  return exited_ || holderGone_;
}

void RunningCommand::inputDone() { tell(CommandHolder::kInputDone); }

CommandResult RunningCommand::wait(std::atomic<bool> const* stop, bool end) {
  CommandResult result;
  if (holder_ <= 0) return result;
  {
    std::lock_guard<std::mutex> guard(lock_);
    while (!done_ && !holderGone_) {
      bool const stopping = stop != nullptr && stop->load();
      if ((end || stopping) && !askedToEnd_) {
        askedToEnd_ = true;
        endedForStop_ = stopping;
        tell(CommandHolder::kEnd);
      }
      // The holder ends the command at its deadline: waiting is progress.
      Heartbeat::beat();
      receive(50);
    }
  }
  int holderStatus = 0;
  while (waitpid(holder_, &holderStatus, 0) < 0 && errno == EINTR) {
  }
  holder_ = -1;
  close(control_);
  control_ = -1;
  finished_ = true;
  if (reader_.joinable()) reader_.join();
  if (pid_ <= 0) return result;
  result.started = true;
  if (exited_) {
    result.exitCode = WIFEXITED(status_) ? WEXITSTATUS(status_) : -1;
    result.signal = WIFSIGNALED(status_) ? WTERMSIG(status_) : 0;
  }
  if (!done_) Log::error("the process watching command %d ended before it", int(pid_));
  if (flags_ & CommandHolder::kOutcomeUnwritten)
    Log::error("cannot write how the install ended to %s", options_.outcomePath.c_str());
  result.timedOut = (flags_ & CommandHolder::kTimedOut) != 0;
  result.stopped = (flags_ & CommandHolder::kEndedByAgent) != 0 && endedForStop_;
  std::lock_guard<std::mutex> guard(tailLock_);
  result.stderrTail = tail_.lines();
  result.output = std::move(output_);
  result.outputCut = outputCut_;
  return result;
}

void RunningCommand::readOutput(int out, int err) {
  // Output still coming after the group ended belongs to something that left
  // it: read briefly, then leave it.
  std::string line;
  int fds[2] = {out, err};
  Clock::time_point drainUntil = Clock::time_point::max();
  char buffer[4096];
  while (fds[0] >= 0 || fds[1] >= 0) {
    if (finished_ && drainUntil == Clock::time_point::max())
      drainUntil = Clock::now() + std::chrono::milliseconds(kCommandDrainMs);
    if (Clock::now() >= drainUntil) break;
    pollfd ready[2];
    nfds_t count = 0;
    for (int fd : fds) {
      if (fd >= 0) ready[count++] = {fd, POLLIN, 0};
    }
    int const events = poll(ready, count, finished_ ? 20 : 100);
    if (events < 0 && errno != EINTR) break;
    for (nfds_t i = 0; events > 0 && i < count; ++i) {
      if (ready[i].revents == 0) continue;
      ssize_t const n = read(ready[i].fd, buffer, sizeof buffer);
      if (n < 0 && errno == EINTR) continue;
      int& fd = ready[i].fd == fds[0] ? fds[0] : fds[1];
      bool const isOut = &fd == &fds[0];
      if (n <= 0) {
        close(fd);
        fd = -1;
        continue;
      }
      if (!isOut) {
        std::lock_guard<std::mutex> guard(tailLock_);
        tail_.add(buffer, static_cast<std::size_t>(n));
        continue;
      }
      if (options_.captureBytes > 0) {
        // Past the bound it is still read, so the command never blocks on it.
        std::lock_guard<std::mutex> guard(tailLock_);
        std::size_t const room = options_.captureBytes - output_.size();
        std::size_t const taken = std::min(room, static_cast<std::size_t>(n));
        output_.append(buffer, taken);
        outputCut_ = outputCut_ || taken < static_cast<std::size_t>(n);
        continue;
      }
      for (ssize_t k = 0; k < n; ++k) {
        line += buffer[k];
        if (buffer[k] == '\n' || line.size() >= kLineLimit) printLine(line);
      }
    }
  }
  if (!line.empty()) printLine(line);
  for (int fd : fds) {
    if (fd >= 0) close(fd);
  }
}
