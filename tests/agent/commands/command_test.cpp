// The command runner and the install lock: how a command ended, what of its
// standard error reaches the feedback, a stop or deadline that ends its whole
// process group, output it leaves behind, and a lock that lives exactly as
// long as the command. (Its standard output in the log: lifecycle_test.sh.)
#include "agent/commands/command.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <thread>

#include "agent/commands/installchild.h"
#include "agent/commands/installlock.h"
#include "tests/support/temp_dir.h"

namespace {

using tamrel::testing::readFile;
using tamrel::testing::TempDir;
using Clock = std::chrono::steady_clock;

long long secondsSince(Clock::time_point start) {
  return std::chrono::duration_cast<std::chrono::seconds>(Clock::now() - start).count();
}

// True once process `pid` has ended (checked for up to 5 s); a zombie waiting
// for its new parent to reap it has ended.
bool gone(pid_t pid) {
  for (int i = 0; i < 500; ++i) {
    std::string const stat = readFile("/proc/" + std::to_string(pid) + "/stat");
    std::size_t const end = stat.rfind(')');
    if (end == std::string::npos || stat.compare(end, 3, ") Z") == 0) return true;
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  return false;
}

pid_t pidIn(std::string const& path) {
  std::string const text = readFile(path);
  return text.empty() ? 0 : static_cast<pid_t>(std::stol(text));
}

TEST(Command, HowItEndedAndItsStandardError) {
  struct Case {
    char const* command;
    char const* described;
    std::vector<std::string> tail;
  } const cases[] = {
      {"exit 3", "exit 3", {}},
      {"kill -9 $$", "killed by signal 9", {}},
      // The last five lines, control bytes escaped, each cut at 200 bytes.
      {"for i in 1 2 3 4 5 6; do echo line$i >&2; done; printf 'a\\033[2Jb\\tc\\r' >&2",
       "exit 0",
       {"line3", "line4", "line5", "line6", "a\\x1b[2Jb c\\x0d"}},
      {"head -c 300 /dev/zero | tr '\\0' x >&2", "exit 0", {std::string(kCommandLineBytes, 'x')}},
  };
  for (Case const& c : cases) {
    CommandResult const result = runCommand(c.command);
    EXPECT_EQ(result.describe(), c.described) << c.command;
    EXPECT_EQ(result.stderrTail, c.tail) << c.command;
    // A stream's or url's install command ends as described alike.
    InstallChild::Options options;
    options.command = c.command;
    EXPECT_EQ(InstallChild(options).wait(nullptr, false).describe(), c.described) << c.command;
  }
  EXPECT_EQ(runCommand("test \"$2\" = 'b c'", {"a", "b c"}).exitCode, 0);
}

TEST(Command, AStopOrTheDeadlineEndsTheWholeGroup) {
  TempDir dir;
  std::string const pidFile = dir.path() + "/child";
  std::string const spawn = "sleep 60 & echo $! > " + pidFile + "; ";
  struct Case {
    std::string command;
    bool stop;
    char const* described;
    long long seconds;  // at most
  } const cases[] = {
      {spawn + "wait", true, "killed by signal 15, the agent was stopping", 2},
      {spawn + "wait", false, "killed by signal 15, past its deadline", 2},
      // A command that ignores SIGTERM gets SIGKILL.
      {"trap '' TERM; " + spawn + "wait; wait", true, "killed by signal 9, the agent was stopping",
       2 + kCommandKillAfterMs / 1000},
  };
  for (Case const& c : cases) {
    std::atomic<bool> stop{false};
    CommandOptions options;
    options.stop = &stop;
    options.deadlineMs = c.stop ? 0 : 300;
    std::thread stopper;
    if (c.stop) {
      options.started = [&](pid_t) {
        stopper = std::thread([&] {
          while (readFile(pidFile).empty())
            std::this_thread::sleep_for(std::chrono::milliseconds(5));
          stop = true;
        });
      };
    }
    auto const start = Clock::now();
    CommandResult const result = runCommand(c.command, {}, options);
    if (stopper.joinable()) stopper.join();
    EXPECT_EQ(result.describe(), c.described) << c.command;
    EXPECT_LE(secondsSince(start), c.seconds) << c.command;
    // (Past the deadline it may have ended before it started the child.)
    pid_t const child = pidIn(pidFile);
    EXPECT_TRUE(child == 0 ? !c.stop : gone(child)) << c.command;
    std::remove(pidFile.c_str());
  }
}

TEST(Command, WhatItLeavesRunningIsNotWaitedFor) {
  TempDir dir;
  std::string const pidFile = dir.path() + "/child";
  // A background child holding the pipes, silent or writing without end.
  for (char const* child : {"sleep 60", "yes >&2"}) {
    auto const start = Clock::now();
    CommandResult const result =
        runCommand(std::string(child) + " & echo $! > " + pidFile + "; exit 4");
    EXPECT_EQ(result.exitCode, 4) << child;
    EXPECT_LE(secondsSince(start), 2) << child;
    kill(pidIn(pidFile), SIGKILL);
  }
}

TEST(InstallLock, HeldAsLongAsTheCommandNotItsBackgroundChildren) {
  TempDir dir;
  std::string const path = dir.path() + "/install.lock", pidFile = dir.path() + "/child";
  std::atomic<bool> stop{false};
  std::string error;
  InstallLock lock(path), other(path);
  // A stale file from an earlier run does not block.
  tamrel::testing::writeFile(path, "99999\n");
  ASSERT_TRUE(lock.take(stop, 0, error)) << error;
  CommandOptions options;
  options.inherit = lock.fd();
  pid_t installer = 0;
  options.started = [&](pid_t pid) {
    installer = pid;
    lock.handOver(pid);
  };
  // While it runs, the lock is held, and the file names the install.
  CommandResult const result =
      runCommand("sleep 60 & echo $! > " + pidFile + "; ! flock -n \"$1\" true", {path}, options);
  EXPECT_EQ(result.describe(), "exit 0");
  EXPECT_EQ(pidIn(path), installer);
  // Once it ended the lock is free, its background child still running.
  EXPECT_EQ(kill(pidIn(pidFile), 0), 0);
  EXPECT_TRUE(other.take(stop, 0, error)) << error;
  kill(pidIn(pidFile), SIGKILL);

  // Held: waited for up to the limit, or until a stop.
  EXPECT_FALSE(lock.take(stop, 300, error));
  EXPECT_NE(error.find("still runs after"), std::string::npos) << error;
  error.clear();
  stop = true;
  EXPECT_FALSE(lock.take(stop, 0, error));
  EXPECT_EQ(error, "");
}

}  // namespace
