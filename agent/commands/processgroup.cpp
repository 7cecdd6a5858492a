#include "agent/commands/processgroup.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>

#include "agent/commands/command.h"

extern char** environ;

namespace {

void closeRange(int from, int to) {
  if (from > to) return;
#ifdef SYS_close_range
  if (syscall(SYS_close_range, static_cast<unsigned>(from), static_cast<unsigned>(to), 0u) == 0)
    return;
#endif
  rlimit limit{};
  int last = to;
  if (getrlimit(RLIMIT_NOFILE, &limit) == 0 && limit.rlim_cur != RLIM_INFINITY &&
      limit.rlim_cur < static_cast<rlim_t>(INT_MAX))
    last = std::min(to, static_cast<int>(limit.rlim_cur) - 1);
  for (int fd = from; fd <= last; ++fd) close(fd);
}

}  // namespace

void closeDescriptorsBut(int const* keep, int count) {
  int sorted[16];
  int n = 0;
  for (int i = 0; i < count && n < 16; ++i) {
    if (keep[i] >= 3) sorted[n++] = keep[i];
  }
  std::sort(sorted, sorted + n);
  int from = 3;
  for (int i = 0; i < n; ++i) {
    closeRange(from, sorted[i] - 1);
    from = sorted[i] + 1;
  }
  closeRange(from, INT_MAX);
}

ProcessGroup::ProcessGroup(std::string const& command, std::vector<std::string> const& args,
                           std::vector<std::string> const& environment) {
  words_ = {"/bin/sh", "-c", command, "tamrel-install"};
  words_.insert(words_.end(), args.begin(), args.end());
  for (auto& word : words_) argv_.push_back(&word[0]);
  argv_.push_back(nullptr);
  // The agent's environment, less what is replaced, then the additions.
  for (char** entry = environ; *entry != nullptr; ++entry) {
    std::string const line = *entry;
    std::string const name = line.substr(0, line.find('=') + 1);
    bool const replaced =
        std::any_of(environment.begin(), environment.end(),
                    [&](std::string const& add) { return add.rfind(name, 0) == 0; });
    if (!replaced) env_.push_back(line);
  }
  env_.insert(env_.end(), environment.begin(), environment.end());
  for (auto& line : env_) envp_.push_back(&line[0]);
  envp_.push_back(nullptr);
}

bool ProcessGroup::start(int in, int out, int err) {
  pid_t const child = fork();
  if (child == 0) {
    setpgid(0, 0);
    int const devNull = open("/dev/null", O_RDWR);
    int const streams[3] = {in, out, err};
    // Moved out of the way first: a stream may sit on 0, 1 or 2 already.
    int moved[3];
    for (int i = 0; i < 3; ++i)
      moved[i] = fcntl(streams[i] >= 0 ? streams[i] : devNull, F_DUPFD, 10);
    for (int i = 0; i < 3; ++i) dup2(moved[i], i);
    closeDescriptorsBut(nullptr, 0);
    // The agent blocks and ignores signals of its own; the command gets
    // them back.
    for (int signal : {SIGTERM, SIGINT, SIGHUP, SIGPIPE, SIGQUIT, SIGCHLD})
      ::signal(signal, SIG_DFL);
    sigset_t none;
    sigemptyset(&none);
    sigprocmask(SIG_SETMASK, &none, nullptr);
    execve(argv_[0], argv_.data(), envp_.data());
    _exit(127);
  }
  if (child < 0) return false;
  setpgid(child, child);  // either side may come first
  pid_ = child;
  return true;
}

void ProcessGroup::end() {
  auto const now = std::chrono::steady_clock::now();
  // SIGKILL is sent again while something of the group is left.
  if (sent_ == 0 || now - signalledAt_ >= std::chrono::milliseconds(kCommandKillAfterMs)) {
    sent_ = sent_ == 0 ? SIGTERM : SIGKILL;
    signalledAt_ = now;
    ::kill(-pid_, sent_);
  }
}

void ProcessGroup::kill(int signal) {
  sent_ = signal;
  signalledAt_ = std::chrono::steady_clock::now();
  ::kill(-pid_, signal);
}

bool ProcessGroup::alive() const { return pid_ > 0 && (::kill(-pid_, 0) == 0 || errno == EPERM); }

int ProcessGroup::nextStepMs() const {
  if (sent_ == 0) return -1;
  auto const due = signalledAt_ + std::chrono::milliseconds(kCommandKillAfterMs);
  auto const left =
      std::chrono::duration_cast<std::chrono::milliseconds>(due - std::chrono::steady_clock::now());
  return left.count() < 0 ? 0 : static_cast<int>(left.count());
}
