#include "agent/base/watchdog.h"

#include <chrono>
#include <optional>
#include <thread>

#include "agent/base/heartbeat.h"
#include "agent/base/memorybudget.h"

namespace {

std::int64_t nowMs() {
  return std::chrono::duration_cast<std::chrono::milliseconds>(
             std::chrono::steady_clock::now().time_since_epoch())
      .count();
}

}  // namespace

Watchdog::Watchdog(Limits const& limits, std::function<bool()> stopping,
                   std::function<void(Verdict)> cancel)
    : limits_(limits), stopping_(std::move(stopping)), cancel_(std::move(cancel)) {}

// The first verdict stands.
void Watchdog::decide(Verdict verdict) {
  Verdict none = Verdict::kNone;
  verdict_.compare_exchange_strong(none, verdict);
}

// Called inside the allocation that passed the budget: the transfer is
// cancelled at once, before the answer grows further.
void Watchdog::overBudget(void* self) {
  auto* const watchdog = static_cast<Watchdog*>(self);
  watchdog->decide(Verdict::kTooLarge);
  watchdog->cancel_(Verdict::kTooLarge);
}

bool Watchdog::run(std::function<bool()> const& work) {
  std::optional<MemoryBudget> budget;
  if (limits_.memoryBytes > 0) budget.emplace(limits_.memoryBytes, &Watchdog::overBudget, this);
  std::thread watcher([this] { watch(); });
  bool const result = work();
  {
    std::lock_guard<std::mutex> guard(lock_);
    done_ = true;
  }
  wake_.notify_one();
  watcher.join();
  return result;
}

void Watchdog::watch() {
  std::int64_t const start = nowMs();
  std::int64_t stopSince = -1, windowStart = -1, windowFrom = 0;
  std::unique_lock<std::mutex> guard(lock_);
  while (!wake_.wait_for(guard, std::chrono::milliseconds(50), [this] { return done_; })) {
    std::int64_t const now = nowMs();
    Verdict verdict = verdict_.load();
    if (verdict == Verdict::kNone) {
      if (stopping_()) {
        if (stopSince < 0) stopSince = now;
        if (now - stopSince >= limits_.stopGraceMs) verdict = Verdict::kStopped;
      } else if (limits_.deadlineMs > 0 && now - start > limits_.deadlineMs) {
        verdict = Verdict::kDeadline;
      } else if (limits_.windowMs > 0 && started_) {
        // Consecutive windows: each must bring its share, so a trickle is
        // caught as surely as silence.
        std::int64_t const received = bytes_.load();
        if (windowStart < 0) {
          windowStart = now;
          windowFrom = received;
        } else if (now - windowStart >= limits_.windowMs) {
          if (received - windowFrom < limits_.windowBytes) verdict = Verdict::kTooSlow;
          windowStart = now;
          windowFrom = received;
        }
      }
      if (verdict != Verdict::kNone) decide(verdict);
      verdict = verdict_.load();
      // Work within its limits is progress; work past them that does not
      // return to its cancel is not.
      if (verdict == Verdict::kNone) Heartbeat::beat();
    }
    if (verdict != Verdict::kNone) {
      guard.unlock();
      cancel_(verdict);
      guard.lock();
    }
  }
}
