// The watchdog's verdicts. The watched work ends when the watchdog cancels
// it, so each case waits for the verdict itself, not for a time.
#include "agent/base/watchdog.h"

#include <cjson/cJSON.h>
#include <gtest/gtest.h>

#include <condition_variable>
#include <memory>
#include <mutex>
#include <string>

#include "agent/base/memorybudget.h"

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
    std::unique_ptr<cJSON, decltype(&cJSON_Delete)> grown(nullptr, cJSON_Delete);
    Watchdog watchdog(
        c.limits, [&] { return c.stopping; }, [&](Verdict) { work.cancel(); });
    bool const result = watchdog.run([&] {
      if (c.started) watchdog.started();
      // A parse's memory, which is counted under valgrind too (it replaces
      // the agent's operator new with its own).
      if (c.limits.memoryBytes > 0) {
        MemoryBudget::install();
        grown.reset(cJSON_CreateString(std::string(32 << 20, 'x').c_str()));
      }
      return work.untilCancelled();
    });
    EXPECT_FALSE(result) << c.what;
    EXPECT_EQ(watchdog.verdict(), c.want) << c.what;
  }
}

}  // namespace
