#ifndef TAMREL_AGENT_TRANSFER_ARTIFACTFETCHER_H_
#define TAMREL_AGENT_TRANSFER_ARTIFACTFETCHER_H_

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "agent/base/agentconfig.h"
#include "agent/base/watchdog.h"
#include "agent/transfer/followinghasher.h"
#include "agent/transfer/progressbar.h"
#include "plugin/libtamrelcore.h"

// Brings one artifact onto the disk through the library: downloads with
// retries under a stall watchdog and a size bound, resumes what may be
// resumed, then verifies (the library's digest and, when listed, the
// SHA-256, which is taken while the file is written).
// `stop` is the agent's stop flag; the agent cancels the library's transfer
// and verification itself when it sets it.
class ArtifactFetcher {
 public:
  using artifact_t = hawkbit_query_t::deployment_t::chunk_t::artifact_t;

  ArtifactFetcher(libtamrelcore& client, AgentConfig const& config, std::atomic<bool> const& stop);
  ArtifactFetcher(ArtifactFetcher const&) = delete;
  ArtifactFetcher& operator=(ArtifactFetcher const&) = delete;

  // Fetches `artifact` (its destination set, subdirectory empty) for the
  // chunk `label`; a complete file already on disk that verifies is kept.
  // `detail` says what happened. False when it is not there verified.
  bool fetch(std::string const& label, artifact_t& artifact, std::string const& sha256,
             std::string& detail);
  ProgressBar& progress() { return bar_; }

  // Where the library stores an artifact whose subdirectory is empty.
  static std::string filePath(artifact_t const& artifact);

 private:
  // The library's verification (skipped for a file the library has just
  // downloaded with a matching digest: its length is checked instead) and
  // the SHA-256 when the server lists one: for a file found on disk both
  // read it at the same time, for a downloaded one `hasher_` followed it.
  bool verify(artifact_t const& artifact, std::string const& sha256, std::string& detail,
              bool justDownloaded);
  // Runs `work` with a watchdog beside it that passes a stop request on to
  // the library (which forgets a cancel that comes before the work begins)
  // and, for a transfer, cancels it once fewer than download-min-rate bytes/s
  // came over download-timeout-s, or once it brought more bytes than the
  // artifact's size (its file is then removed).
  bool watched(bool transfer, std::function<bool()> const& work);
  bool stopping() const { return stop_.load(); }

  // Connects a slot that lives as long as this fetcher (a weak connection:
  // the client outlives it).
  template <typename Signal, typename Slot>
  void listen(Signal& signal, Slot slot) {
    auto held = std::make_shared<typename Signal::slot_type>(std::move(slot));
    signal.connectWeak(held);
    slots_.push_back(held);
  }

  libtamrelcore& client_;
  AgentConfig const& config_;
  std::atomic<bool> const& stop_;
  ProgressBar bar_;
  FollowingHasher hasher_{stop_};
  // Set by the library's signals on the downloading thread.
  std::atomic<bool> transferring_{false};
  std::atomic<bool> stalled_{false};        // the watchdog found the transfer too slow
  std::atomic<bool> oversize_{false};       // more bytes than the artifact's size came
  std::atomic<std::uint64_t> received_{0};  // this attempt's file size so far
  std::atomic<Watchdog*> watchdog_{nullptr};
  // The artifact fetch() works on: its file and announced size.
  std::string artifactFile_;
  std::uint64_t expected_ = 0;
  unsigned int lastStatus_ = 0;
  std::vector<std::shared_ptr<void>> slots_;
};

#endif  // TAMREL_AGENT_TRANSFER_ARTIFACTFETCHER_H_
