#ifndef TAMREL_AGENT_BASE_WATCHDOG_H_
#define TAMREL_AGENT_BASE_WATCHDOG_H_

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <mutex>

// Watches one operation of the library from a thread of its own and gives a
// verdict when it must end: the agent stops, a deadline passes, too few bytes
// arrive within a window, or the work takes too much memory (MemoryBudget).
// The library forgets a cancel that comes before a transfer begins and a poll
// makes several transfers, so `cancel` is called again every tick once a
// verdict stands.
class Watchdog {
 public:
  enum class Verdict { kNone, kStopped, kDeadline, kTooSlow, kTooLarge };
  struct Limits {
    std::int64_t deadlineMs = 0;   // for the whole operation; 0: none
    std::int64_t windowMs = 0;     // rate window, counted from started(); 0: none
    std::int64_t windowBytes = 1;  // bytes that must arrive in each window
    std::int64_t memoryBytes = 0;  // heap the work may take; 0: no bound
    std::int64_t stopGraceMs = 0;  // how long a stopping agent waits for the work
  };

  Watchdog(Limits const& limits, std::function<bool()> stopping,
           std::function<void(Verdict)> cancel);
  Watchdog(Watchdog const&) = delete;
  Watchdog& operator=(Watchdog const&) = delete;

  // Runs `work` on the calling thread under watch; returns its result.
  bool run(std::function<bool()> const& work);
  Verdict verdict() const { return verdict_.load(); }

  // Fed from the library's signals on the working thread.
  void started() { started_ = true; }
  void bytes(std::int64_t count) { bytes_ += count; }

 private:
  void watch();
  void decide(Verdict verdict);
  static void overBudget(void* self);

  Limits const limits_;
  std::function<bool()> const stopping_;
  std::function<void(Verdict)> const cancel_;
  std::atomic<Verdict> verdict_{Verdict::kNone};
  std::atomic<bool> started_{false};
  std::atomic<std::int64_t> bytes_{0};
  std::mutex lock_;
  std::condition_variable wake_;
  bool done_ = false;
};

#endif  // TAMREL_AGENT_BASE_WATCHDOG_H_
