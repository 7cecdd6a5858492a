#include "agent/transfer/progressbar.h"

#include <cstdio>

#include "agent/base/console.h"
#include "agent/base/log.h"

namespace {

int clampPercent(long long value) { return value < 0 ? 0 : value > 100 ? 100 : int(value); }

std::string mebibytes(double bytes) {
  char text[32];
  if (bytes < 1048576.0) {
    std::snprintf(text, sizeof text, "%.0f KiB", bytes / 1024.0);
  } else {
    std::snprintf(text, sizeof text, "%.1f MiB", bytes / 1048576.0);
  }
  return text;
}

}  // namespace

ProgressBar::ProgressBar() : terminal_(Console::terminal()) {}

void ProgressBar::start(std::string const& name, std::uint64_t size, std::uint64_t already) {
  std::lock_guard<std::mutex> guard(lock_);
  name_ = name;
  size_ = size;
  done_ = resumedAt_ = already;
  // A resumed download starts at the share already on disk.
  percent_ = lastLine_ = size > 0 ? clampPercent(static_cast<long long>(already * 100 / size)) : 0;
  started_ = drawn_ = std::chrono::steady_clock::now();
  live_ = true;
  tell(false);
  if (terminal_) {
    Console::live(bar());
  } else {
    Log::info("  %s: downloading %s%s", name_.c_str(), mebibytes(size).c_str(),
              already > 0 ? (", resuming at " + mebibytes(already)).c_str() : "");
  }
}

void ProgressBar::bytes(int count) {
  std::lock_guard<std::mutex> guard(lock_);
  if (!live_) return;
  done_ += static_cast<std::uint64_t>(count > 0 ? count : 0);
  tell(false);
  auto const now = std::chrono::steady_clock::now();
  if (terminal_ && now - drawn_ > std::chrono::milliseconds(100)) {
    drawn_ = now;
    Console::live(bar());
  }
}

void ProgressBar::percent(int value) {
  std::lock_guard<std::mutex> guard(lock_);
  if (!live_) return;
  // A body larger than announced would take the bar past its end.
  value = clampPercent(value);
  percent_ = value;
  if (!terminal_ && value / 10 > lastLine_ / 10) {
    lastLine_ = value;
    Log::info("  %s: %d %%", name_.c_str(), value / 10 * 10);
    std::fflush(stdout);
  }
}

double ProgressBar::rate() const {
  double const seconds =
      std::chrono::duration<double>(std::chrono::steady_clock::now() - started_).count();
  return seconds > 0 ? static_cast<double>(done_ - resumedAt_) / seconds : 0;
}

void ProgressBar::tell(bool ended) {
  if (listener_) listener_(name_, done_, size_, rate(), ended);
}

std::string ProgressBar::bar() const {
  double const rate = this->rate();
  double const eta = rate > 0 && size_ > done_ ? static_cast<double>(size_ - done_) / rate : 0;
  int const width = 24;
  int const filled = percent_ >= 100 ? width : percent_ * width / 100;
  char text[160];
  std::snprintf(text, sizeof text, "  %-16.16s [%s%s] %3d %% %10s %9s/s ETA %3.0fs", name_.c_str(),
                std::string(static_cast<std::size_t>(filled), '#').c_str(),
                std::string(static_cast<std::size_t>(width - filled), '.').c_str(), percent_,
                mebibytes(static_cast<double>(done_)).c_str(), mebibytes(rate).c_str(), eta);
  return text;
}

void ProgressBar::finish(std::string const& outcome) {
  std::lock_guard<std::mutex> guard(lock_);
  if (!live_) return;
  live_ = false;
  tell(true);
  if (terminal_) {
    Console::live(std::string());
    Log::info("%s  %s", bar().c_str(), outcome.c_str());
  } else {
    Log::info("  %s: %s", name_.c_str(), outcome.c_str());
  }
  std::fflush(stdout);
}
