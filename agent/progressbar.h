#ifndef TAMREL_AGENT_PROGRESSBAR_H_
#define TAMREL_AGENT_PROGRESSBAR_H_

#include <chrono>
#include <cstdint>
#include <mutex>
#include <string>
#include <thread>

// Shows one artifact's download: a live bar (percent of the whole artifact,
// bytes, rate, ETA) on a terminal, otherwise one line per 10 %. A resumed
// download starts at the bytes already on disk; percentages are kept within
// 0..100 whatever the server sends. Thread-safe.
class ProgressBar {
 public:
  ProgressBar();
  ~ProgressBar();
  ProgressBar(ProgressBar const&) = delete;
  ProgressBar& operator=(ProgressBar const&) = delete;

  // On a terminal, routes standard error (the library's log) through the bar
  // so that log lines print above the live bar instead of through it.
  void captureStderr();

  void start(std::string const& name, std::uint64_t size, std::uint64_t already);
  // Bytes received after start(); the ones already on disk were given there.
  void bytes(int count);
  void percent(int value);
  // Ends the bar's line; later calls until the next start() are ignored.
  void finish(std::string const& outcome);

 private:
  void draw();  // with lock_ held
  void pump();

  bool const terminal_;
  std::mutex lock_;
  bool live_ = false;  // a bar is on screen and not finished
  std::string name_;
  std::uint64_t size_ = 0, done_ = 0, resumedAt_ = 0;
  int percent_ = 0, lastLine_ = 0;
  std::chrono::steady_clock::time_point started_, drawn_;

  int pipeRead_ = -1, realStderr_ = -1;
  std::thread pump_;
};

#endif  // TAMREL_AGENT_PROGRESSBAR_H_
