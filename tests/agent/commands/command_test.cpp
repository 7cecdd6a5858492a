// The command runner and the install lock: how a command ended, what of its
// standard error reaches the feedback, a stop or deadline that ends its whole
// process group before the result, and a lock (and the outcome written
// before it goes) that lives as long as anything of the group, also past the
// agent's death. (Its standard output in the log: lifecycle_test.sh.)
#include "agent/commands/command.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <thread>

#include "agent/commands/installlock.h"
#include "agent/commands/installoutcome.h"
#include "agent/commands/runningcommand.h"
#include "tests/support/temp_dir.h"

namespace {

using tamrel::testing::readFile;
using tamrel::testing::TempDir;
using Clock = std::chrono::steady_clock;

long long secondsSince(Clock::time_point start) {
  return std::chrono::duration_cast<std::chrono::seconds>(Clock::now() - start).count();
}

// No such process (the holder reaps what the command leaves).
bool gone(pid_t pid) { return pid > 0 && kill(pid, 0) != 0; }

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
  }
  EXPECT_EQ(runCommand("test \"$2\" = 'b c'", {"a", "b c"}).exitCode, 0);
}

TEST(Command, AStopOrTheDeadlineEndsTheWholeGroupBeforeTheResult) {
  TempDir dir;
  std::string const pidFile = dir.path() + "/child";
  std::string const spawn = "sleep 60 & echo $! > " + pidFile + "; ";
  std::string const deaf = "(trap '' TERM; exec tail -f /dev/null) & echo $! > " + pidFile + "; ";
  struct Case {
    std::string command;
    bool stop;
    char const* described;
    long long seconds;  // at most
  } const cases[] = {
      {spawn + "wait", true, "killed by signal 15, the agent was stopping", 2},
      {spawn + "wait", false, "killed by signal 15, past its deadline", 2},
      // A group that ignores SIGTERM gets SIGKILL, its left-behind child too.
      {"trap '' TERM; " + deaf + "wait; wait", false, "killed by signal 9, past its deadline",
       2 + kCommandKillAfterMs / 1000},
      // What a command leaves in its group when it exits goes with it.
      {spawn + "exit 4", false, "exit 4", 2},
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

TEST(Command, OutputHeldByWhatLeftTheGroupIsNotWaitedFor) {
  TempDir dir;
  std::string const pidFile = dir.path() + "/child";
  for (char const* child : {"setsid sleep 60", "setsid yes >&2"}) {
    auto const start = Clock::now();
    CommandResult const result =
        runCommand(std::string(child) + " & echo $! > " + pidFile + "; exit 4");
    EXPECT_EQ(result.exitCode, 4) << child;
    EXPECT_LE(secondsSince(start), 2) << child;
    kill(pidIn(pidFile), SIGKILL);
  }
}

TEST(InstallLock, HeldUntilNothingOfTheGroupIsLeftTheOutcomeWrittenBefore) {
  TempDir dir;
  std::string const path = dir.path() + "/install.lock", pidFile = dir.path() + "/child";
  std::string const fifo = dir.path() + "/go", outcome = dir.path() + "/outcome";
  ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
  std::atomic<bool> stop{false};
  std::string error;
  InstallLock lock(path), other(path);
  // A stale file from an earlier run does not block.
  tamrel::testing::writeFile(path, "99999\n");
  ASSERT_TRUE(lock.take(stop, 0, error)) << error;
  CommandOptions options;
  options.inherit = lock.fd();
  options.outcomePath = outcome;
  options.outcomeTag = "action 7 chunk 1";
  std::atomic<pid_t> installer{0};
  options.started = [&](pid_t pid) {
    lock.handOver(pid);
    installer = pid;
  };
  // The command exits at once, its child (deaf to SIGTERM) lives on until
  // told or killed; whoever takes the lock next finds the outcome.
  CommandResult result;
  std::thread run([&] {
    result = runCommand("(trap '' TERM; read x < \"$1\") & echo $! > \"$2\"; exit 3",
                        {fifo, pidFile}, options);
  });
  // The holder notes the installer's pid in the lock file as it starts it,
  // which may be before the runner's callback or the child's own file.
  for (auto const until = Clock::now() + std::chrono::seconds(30);
       (installer == 0 || pidIn(pidFile) == 0 || pidIn(path) != installer) && Clock::now() < until;)
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  EXPECT_EQ(pidIn(path), installer.load());
  // The holder ends what the command left 3 s after it exited, which on a
  // loaded machine may come first.
  if (!other.take(stop, 300, error)) {
    EXPECT_NE(error.find("still runs after"), std::string::npos) << error;
  } else {
    EXPECT_TRUE(gone(pidIn(pidFile)));
    other.release();
  }
  error.clear();
  // Whoever gets the lock next finds the outcome.
  std::thread next([&] {
    EXPECT_EQ(
        std::system(("flock " + path + " cat " + outcome + " > " + dir.path() + "/seen").c_str()),
        0);
  });
  // Told to end, unless already ended (then nobody reads the FIFO).
  int const go = open(fifo.c_str(), O_WRONLY | O_NONBLOCK);
  if (go >= 0) {
    EXPECT_EQ(write(go, "go\n", 3), 3);
    close(go);
  }
  run.join();
  next.join();
  EXPECT_EQ(result.describe(), "exit 3");
  EXPECT_TRUE(gone(pidIn(pidFile)));
  EXPECT_EQ(readFile(dir.path() + "/seen"), "action 7 chunk 1\nexit 3\n");
  CommandResult read;
  EXPECT_TRUE(InstallOutcome::read(outcome, "action 7 chunk 1", read));
  EXPECT_EQ(read.exitCode, 3);

  // Held: waited for up to the limit, or until a stop.
  ASSERT_TRUE(lock.take(stop, 0, error)) << error;
  EXPECT_FALSE(other.take(stop, 300, error));
  error.clear();
  stop = true;
  EXPECT_FALSE(other.take(stop, 0, error));
  EXPECT_EQ(error, "");
}

// An agent killed while its command runs: the holder keeps the lock until
// the group is gone and records how it ended; a stream the agent did not
// finish never ends for the command (its group is killed), one it finished
// does; a chatty command is not killed by its first write.
TEST(InstallLock, TheHolderOutlivesTheAgent) {
  struct Case {
    char const* what;
    char const* command;  // $1: a FIFO written once the agent is dead
    bool stream, inputDone;
    char const* outcome;
  } const cases[] = {
      {"stream cut", "cat > /dev/null; echo end > \"$1.end\"", true, false, "signal 9"},
      {"stream whole", "cat > /dev/null; echo end > \"$1.end\"", true, true, "exit 0"},
      {"chatty", "read x < \"$1\"; head -c 300000 /dev/zero; head -c 300000 /dev/zero >&2", false,
       false, "exit 0"},
  };
  for (Case const& c : cases) {
    TempDir dir;
    std::string const lockPath = dir.path() + "/install.lock", fifo = dir.path() + "/go";
    std::string const outcome = dir.path() + "/outcome";
    ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
    pid_t const agent = fork();
    if (agent == 0) {
      std::atomic<bool> stop{false};
      std::string error;
      InstallLock lock(lockPath);
      if (!lock.take(stop, 0, error)) _exit(1);
      int input[2] = {-1, -1};
      if (c.stream && pipe2(input, O_CLOEXEC) != 0) _exit(1);
      RunningCommand::Options options;
      options.command = c.command;
      options.args = {fifo};
      options.stdinFd = input[0];
      options.heldInput = input[1];
      options.lockFd = lock.fd();
      options.outcomePath = outcome;
      options.outcomeTag = "t";
      RunningCommand command(options);
      if (c.stream) {
        close(input[0]);
        if (write(input[1], "part", 4) != 4) _exit(1);
        close(input[1]);
        if (c.inputDone) command.inputDone();
      }
      raise(SIGKILL);
    }
    int status = 0;
    waitpid(agent, &status, 0);
    ASSERT_TRUE(WIFSIGNALED(status)) << c.what;
    if (!c.stream) tamrel::testing::writeFile(fifo, "go\n");
    std::atomic<bool> stop{false};
    std::string error;
    InstallLock after(lockPath);
    ASSERT_TRUE(after.take(stop, 10000, error)) << c.what << ": " << error;
    std::string const recorded = readFile(outcome);
    EXPECT_EQ(recorded, "t\n" + std::string(c.outcome) + "\n") << c.what;
    EXPECT_EQ(readFile(fifo + ".end").empty(), !c.inputDone) << c.what;
  }
}

}  // namespace
