#include "agent/base/heartbeat.h"

#include <atomic>
#include <chrono>

namespace {

std::int64_t nowMs() {
  return std::chrono::duration_cast<std::chrono::milliseconds>(
             std::chrono::steady_clock::now().time_since_epoch())
      .count();
}

std::atomic<std::int64_t> last{nowMs()};

}  // namespace

void Heartbeat::beat() { last.store(nowMs(), std::memory_order_relaxed); }

std::int64_t Heartbeat::ageMs() { return nowMs() - last.load(std::memory_order_relaxed); }
