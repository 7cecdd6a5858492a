#include "agent/installchild.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstring>

extern char** environ;

InstallChild::InstallChild(Options const& options) {
  std::vector<std::string> words = {"/bin/sh", "-c", options.command, "tamrel-install"};
  words.insert(words.end(), options.args.begin(), options.args.end());
  std::vector<char*> argv;
  for (auto& word : words) argv.push_back(&word[0]);
  argv.push_back(nullptr);
  // The agent's environment, less what is replaced, then the additions.
  std::vector<std::string> env;
  for (char** entry = environ; *entry != nullptr; ++entry) {
    std::string const line = *entry;
    std::string const name = line.substr(0, line.find('=') + 1);
    bool const replaced =
        std::any_of(options.environment.begin(), options.environment.end(),
                    [&](std::string const& add) { return add.rfind(name, 0) == 0; });
    if (!replaced) env.push_back(line);
  }
  env.insert(env.end(), options.environment.begin(), options.environment.end());
  std::vector<char*> envp;
  for (auto& line : env) envp.push_back(&line[0]);
  envp.push_back(nullptr);

  int errors[2];
  if (pipe2(errors, O_CLOEXEC) != 0) return;
  int const devNull = options.stdinFd < 0 ? open("/dev/null", O_RDONLY | O_CLOEXEC) : -1;
  std::fflush(stdout);
  pid_t const child = fork();
  if (child == 0) {
    // The agent blocks its stop signals; the command gets them back.
    sigset_t none;
    sigemptyset(&none);
    sigprocmask(SIG_SETMASK, &none, nullptr);
    setpgid(0, 0);
    dup2(options.stdinFd >= 0 ? options.stdinFd : devNull, STDIN_FILENO);
    dup2(errors[1], STDERR_FILENO);
    // The one descriptor the command inherits besides its standard streams.
    if (options.keepFd >= 0) fcntl(options.keepFd, F_SETFD, 0);
    execve(argv[0], argv.data(), envp.data());
    _exit(127);
  }
  close(errors[1]);
  if (devNull >= 0) close(devNull);
  if (child < 0) {
    close(errors[0]);
    return;
  }
  setpgid(child, child);  // either side may come first
  pid_ = child;
  reader_ = std::thread([this, fd = errors[0]] { readErrors(fd); });
}

InstallChild::~InstallChild() {
  if (started() && !reaped_) wait(nullptr, true);
  if (reader_.joinable()) reader_.join();
}

void InstallChild::readErrors(int fd) {
  // Only the last lines are kept, each cut to a bounded length. Reading
  // ends once the command exited and nothing more waits, even if something
  // it left in the background still holds its standard error.
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
    for (ssize_t i = 0; i < n; ++i) {
      if (buffer[i] == '\n') {
        tail_.emplace_back();
        if (tail_.size() > kCommandTailLines + 1) tail_.pop_front();
      } else if (tail_.back().size() < kCommandLineBytes) {
        unsigned char const c = static_cast<unsigned char>(buffer[i]);
        tail_.back() += c < 0x20 || c == 0x7f ? ' ' : buffer[i];
      }
    }
  }
  close(fd);
}

bool InstallChild::exited() {
  std::lock_guard<std::mutex> guard(lock_);
  if (!exited_ && pid_ > 0) {
    pid_t const done = waitpid(pid_, &status_, WNOHANG);
    exited_ = done == pid_ || (done < 0 && errno == ECHILD);
  }
  return exited_;
}

CommandResult InstallChild::wait(std::atomic<bool> const* stop, bool end) {
  CommandResult result;
  if (!started()) return result;
  auto signalledAt = std::chrono::steady_clock::now();
  int sent = 0;
  for (int pause = 1; !exited(); pause = std::min(pause * 2, 50)) {
    auto const now = std::chrono::steady_clock::now();
    bool const ending = end || (stop != nullptr && stop->load());
    if (ending &&
        (sent == 0 || (sent == SIGTERM &&
                       now - signalledAt >= std::chrono::milliseconds(kCommandKillAfterMs)))) {
      sent = sent == 0 ? SIGTERM : SIGKILL;
      signalledAt = now;
      kill(-pid_, sent);
    }
    poll(nullptr, 0, pause);
  }
  // What it left behind in its group goes with it.
  if (sent != 0) kill(-pid_, SIGKILL);
  reaped_ = true;
  if (reader_.joinable()) reader_.join();
  result.started = true;
  result.exitCode = WIFEXITED(status_) ? WEXITSTATUS(status_) : -1;
  std::lock_guard<std::mutex> guard(tailLock_);
  std::deque<std::string> tail = tail_;
  if (tail.back().empty()) tail.pop_back();
  while (tail.size() > kCommandTailLines) tail.pop_front();
  result.stderrTail.assign(tail.begin(), tail.end());
  return result;
}
