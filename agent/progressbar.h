#ifndef TAMREL_AGENT_PROGRESSBAR_H_
#define TAMREL_AGENT_PROGRESSBAR_H_

#include <chrono>
#include <cstdint>
#include <string>

// Shows one artifact's download: a live bar (percent, bytes, rate, ETA) on a
// terminal, otherwise one line per 10 %.
class ProgressBar {
 public:
  void start(std::string const& name, std::uint64_t size, std::uint64_t already);
  void bytes(int count);
  void percent(int value);
  void finish(std::string const& outcome);

 private:
  void draw();

  bool terminal_ = false;
  std::string name_;
  std::uint64_t size_ = 0, done_ = 0, resumedAt_ = 0;
  int percent_ = 0, lastLine_ = 0;
  std::chrono::steady_clock::time_point started_, drawn_;
};

#endif  // TAMREL_AGENT_PROGRESSBAR_H_
