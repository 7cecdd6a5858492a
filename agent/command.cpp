#include "agent/command.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <deque>

std::string CommandResult::describe() const {
  if (!started) return "could not be started";
  return exitCode >= 0 ? "exit " + std::to_string(exitCode) : "killed by a signal";
}

CommandResult runCommand(std::string const& command, std::vector<std::string> const& args,
                         std::atomic<bool> const* stop) {
  CommandResult result;
  std::vector<std::string> words = {"/bin/sh", "-c", command, "tamrel-install"};
  words.insert(words.end(), args.begin(), args.end());
  std::vector<char*> argv;
  for (auto& word : words) argv.push_back(&word[0]);
  argv.push_back(nullptr);

  int pipeFds[2];
  if (pipe2(pipeFds, O_CLOEXEC) != 0) return result;
  std::fflush(stdout);
  pid_t const child = fork();
  if (child == 0) {
    // The agent blocks its stop signals; the command gets them back.
    sigset_t none;
    sigemptyset(&none);
    sigprocmask(SIG_SETMASK, &none, nullptr);
    if (stop != nullptr) setpgid(0, 0);
    dup2(pipeFds[1], STDERR_FILENO);
    execv(argv[0], argv.data());
    _exit(127);
  }
  close(pipeFds[1]);
  if (child < 0) {
    close(pipeFds[0]);
    return result;
  }
  // Only the last lines are kept, each cut to a bounded length, so a
  // chatty command cannot grow the agent's memory. Reading ends when the
  // command has exited and nothing more is waiting, even if something it
  // started in the background still holds its standard error.
  if (stop != nullptr) setpgid(child, child);  // either side may come first
  // Passes a stop on to the command's group: SIGTERM, later SIGKILL.
  auto const start = std::chrono::steady_clock::now();
  auto signalledAt = start;
  int sent = 0;
  auto const passStop = [&] {
    if (stop == nullptr || !stop->load()) return;
    auto const now = std::chrono::steady_clock::now();
    if (sent == 0 ||
        (sent == SIGTERM && now - signalledAt >= std::chrono::milliseconds(kCommandKillAfterMs))) {
      sent = sent == 0 ? SIGTERM : SIGKILL;
      signalledAt = now;
      kill(-child, sent);
    }
  };
  std::deque<std::string> tail(1);
  char buffer[4096];
  int status = 0;
  bool exited = false;
  for (;;) {
    passStop();
    pollfd ready{pipeFds[0], POLLIN, 0};
    int const events = poll(&ready, 1, exited ? 0 : 100);
    if (events < 0 && errno == EINTR) continue;
    ssize_t const n = events > 0 ? read(pipeFds[0], buffer, sizeof buffer) : 0;
    if (n < 0 && errno == EINTR) continue;
    if (n > 0) {
      for (ssize_t i = 0; i < n; ++i) {
        if (buffer[i] == '\n') {
          tail.emplace_back();
          if (tail.size() > kCommandTailLines + 1) tail.pop_front();
        } else if (tail.back().size() < kCommandLineBytes) {
          tail.back() += buffer[i] == '\r' || buffer[i] == '\t' ? ' ' : buffer[i];
        }
      }
      continue;
    }
    if (events > 0 || exited) break;  // end of the pipe, or drained after the exit
    pid_t const done = waitpid(child, &status, WNOHANG);
    if (done < 0 && errno != EINTR) break;
    exited = done == child;
  }
  close(pipeFds[0]);
  // The pipe usually closes as the command exits: look again soon, then
  // every 50 ms.
  for (int pause = 1; !exited; pause = std::min(pause * 2, 50)) {
    passStop();
    pid_t const done = waitpid(child, &status, WNOHANG);
    if (done < 0 && errno != EINTR) return result;
    exited = done == child;
    if (!exited) poll(nullptr, 0, pause);
  }
  result.started = true;
  result.exitCode = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  if (tail.back().empty()) tail.pop_back();
  while (tail.size() > kCommandTailLines) tail.pop_front();
  result.stderrTail.assign(tail.begin(), tail.end());
  return result;
}
