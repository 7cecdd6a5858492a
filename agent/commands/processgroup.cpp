#include "agent/commands/processgroup.h"

#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>

#include "agent/commands/command.h"

extern char** environ;

bool ProcessGroup::start(std::string const& command, std::vector<std::string> const& args,
                         std::vector<std::string> const& environment,
                         std::function<void()> const& prepare) {
  std::vector<std::string> words = {"/bin/sh", "-c", command, "tamrel-install"};
  words.insert(words.end(), args.begin(), args.end());
  std::vector<char*> argv;
  for (auto& word : words) argv.push_back(&word[0]);
  argv.push_back(nullptr);
  // The agent's environment, less what is replaced, then the additions.
  std::vector<std::string> env;
  for (char** entry = environ; *entry != nullptr; ++entry) {
    std::string const line = *entry;
    std::string const name = line.substr(0, line.find('=') + 1);
    bool const replaced =
        std::any_of(environment.begin(), environment.end(),
                    [&](std::string const& add) { return add.rfind(name, 0) == 0; });
    if (!replaced) env.push_back(line);
  }
  env.insert(env.end(), environment.begin(), environment.end());
  std::vector<char*> envp;
  for (auto& line : env) envp.push_back(&line[0]);
  envp.push_back(nullptr);

  std::fflush(stdout);
  pid_t const child = fork();
  if (child == 0) {
    // The agent blocks its stop signals; the command gets them back.
    sigset_t none;
    sigemptyset(&none);
    sigprocmask(SIG_SETMASK, &none, nullptr);
    setpgid(0, 0);
    prepare();
    execve(argv[0], argv.data(), envp.data());
    _exit(127);
  }
  if (child < 0) return false;
  setpgid(child, child);  // either side may come first
  pid_ = child;
  return true;
}

void ProcessGroup::end() {
  auto const now = std::chrono::steady_clock::now();
  if (sent_ == 0 ||
      (sent_ == SIGTERM && now - signalledAt_ >= std::chrono::milliseconds(kCommandKillAfterMs))) {
    sent_ = sent_ == 0 ? SIGTERM : SIGKILL;
    signalledAt_ = now;
    kill(-pid_, sent_);
  }
}
