#ifndef TAMREL_AGENT_TRANSFER_PROGRESSBAR_H_
#define TAMREL_AGENT_TRANSFER_PROGRESSBAR_H_

#include <chrono>
#include <cstdint>
#include <functional>
#include <mutex>
#include <string>

// Shows one artifact's download: a live bar (percent of the whole artifact,
// bytes, rate, ETA) on a terminal, otherwise one line per 10 %. A resumed
// download starts at the bytes already on disk; percentages are kept within
// 0..100 whatever the server sends. The live bar is the Console's live line,
// so log lines print above it instead of through it. Thread-safe.
class ProgressBar {
 public:
  ProgressBar();
  ProgressBar(ProgressBar const&) = delete;
  ProgressBar& operator=(ProgressBar const&) = delete;

  void start(std::string const& name, std::uint64_t size, std::uint64_t already);
  // Bytes received after start(); the ones already on disk were given there.
  void bytes(int count);
  void percent(int value);
  // Ends the bar's line; later calls until the next start() are ignored.
  void finish(std::string const& outcome);
  // Also told of every change (artifact, bytes so far, size, bytes/s, ended),
  // under the bar's lock; set once before downloads start.
  using Listener =
      std::function<void(std::string const&, std::uint64_t, std::uint64_t, double, bool)>;
  void listen(Listener listener) { listener_ = std::move(listener); }

 private:
  std::string bar() const;  // with lock_ held
  double rate() const;      // with lock_ held
  void tell(bool ended);    // with lock_ held

  bool const terminal_;
  std::mutex lock_;
  bool live_ = false;  // a bar is on screen and not finished
  std::string name_;
  std::uint64_t size_ = 0, done_ = 0, resumedAt_ = 0;
  int percent_ = 0, lastLine_ = 0;
  std::chrono::steady_clock::time_point started_, drawn_;
  Listener listener_;
};

#endif  // TAMREL_AGENT_TRANSFER_PROGRESSBAR_H_
