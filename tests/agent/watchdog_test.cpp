// The watchdog's verdicts. The watched work ends when the watchdog cancels
// it, so each case waits for the verdict itself, not for a time.
#include "agent/watchdog.h"

#include <gtest/gtest.h>

#include <condition_variable>
#include <mutex>

namespace {

using Verdict = Watchdog::Verdict;

// Work that runs until the watchdog cancels it.
struct Work {
  std::mutex lock;
  std::condition_variable changed;
  bool cancelled = false;

  void cancel() {
    std::lock_guard<std::mutex> guard(lock);
    cancelled = true;
    changed.notify_all();
  }
  bool untilCancelled() {
    std::unique_lock<std::mutex> guard(lock);
    changed.wait(guard, [this] { return cancelled; });
    return false;
  }
};

TEST(Watchdog, Verdicts) {
  struct Case {
    char const* what;
    Watchdog::Limits limits;
    bool stopping;
    bool started;
    Verdict want;
  };
  Watchdog::Limits deadline, window, stopped, memory;
  deadline.deadlineMs = 100;
  window.windowMs = 100;
  window.windowBytes = 1000;
  stopped.stopGraceMs = 0;
  memory.memoryBytes = 8 << 20;
  Case const cases[] = {
      {"deadline", deadline, false, false, Verdict::kDeadline},
      {"no bytes within the window", window, false, true, Verdict::kTooSlow},
      {"stopping", stopped, true, false, Verdict::kStopped},
      {"memory", memory, false, false, Verdict::kTooLarge},
  };
  for (Case const& c : cases) {
    Work work;
    std::vector<char> grown;
    Watchdog watchdog(
        c.limits, [&] { return c.stopping; }, [&](Verdict) { work.cancel(); });
    bool const result = watchdog.run([&] {
      if (c.started) watchdog.started();
      if (c.limits.memoryBytes > 0) grown.assign(32 << 20, 'x');  // counted as allocated
      return work.untilCancelled();
    });
    EXPECT_FALSE(result) << c.what;
    EXPECT_EQ(watchdog.verdict(), c.want) << c.what;
  }
}

}  // namespace
