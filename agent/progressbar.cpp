#include "agent/progressbar.h"

#include <unistd.h>

#include <cstdio>

namespace {

std::string mebibytes(double bytes) {
  char text[32];
  std::snprintf(text, sizeof text, "%.1f MiB", bytes / 1048576.0);
  return text;
}

}  // namespace

void ProgressBar::start(std::string const& name, std::uint64_t size, std::uint64_t already) {
  terminal_ = isatty(STDOUT_FILENO) != 0;
  name_ = name;
  size_ = size;
  done_ = resumedAt_ = already;
  percent_ = lastLine_ = 0;
  started_ = drawn_ = std::chrono::steady_clock::now();
  if (!terminal_) std::printf("  %s: downloading %s\n", name_.c_str(), mebibytes(size).c_str());
}

void ProgressBar::bytes(int count) {
  done_ += static_cast<std::uint64_t>(count > 0 ? count : 0);
  auto const now = std::chrono::steady_clock::now();
  if (terminal_ && now - drawn_ > std::chrono::milliseconds(100)) {
    drawn_ = now;
    draw();
  }
}

void ProgressBar::percent(int value) {
  percent_ = value;
  if (!terminal_ && value / 10 > lastLine_ / 10) {
    lastLine_ = value;
    std::printf("  %s: %d %%\n", name_.c_str(), value / 10 * 10);
    std::fflush(stdout);
  }
}

void ProgressBar::draw() {
  double const seconds =
      std::chrono::duration<double>(std::chrono::steady_clock::now() - started_).count();
  double const rate = seconds > 0 ? static_cast<double>(done_ - resumedAt_) / seconds : 0;
  double const eta = rate > 0 && size_ > done_ ? static_cast<double>(size_ - done_) / rate : 0;
  int const width = 30;
  int const filled = percent_ >= 100 ? width : percent_ * width / 100;
  std::printf("\r  %-20.20s [%s%s] %3d %% %10s %8s/s ETA %3.0fs", name_.c_str(),
              std::string(static_cast<std::size_t>(filled), '#').c_str(),
              std::string(static_cast<std::size_t>(width - filled), ' ').c_str(), percent_,
              mebibytes(static_cast<double>(done_)).c_str(), mebibytes(rate).c_str(), eta);
  std::fflush(stdout);
}

void ProgressBar::finish(std::string const& outcome) {
  if (terminal_) {
    draw();
    std::printf("  %s\n", outcome.c_str());
  } else {
    std::printf("  %s: %s\n", name_.c_str(), outcome.c_str());
  }
  std::fflush(stdout);
}
