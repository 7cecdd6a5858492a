#include "agent/transfer/artifactfetcher.h"
#include "agent/base/log.h"

#include <sys/stat.h>

#include <algorithm>
#include <cstdio>
#include <sstream>

namespace {

char const* outcomeText(download_errors_t outcome) {
  switch (outcome) {
    case download_ok:
      return "downloaded";
    case download_aborted:
      return "aborted";
    case download_hash_error:
      return "digest mismatch";
    case download_failed:
      return "transfer failed";
    default:
      return "not downloadable";
  }
}

std::uint64_t fileSize(std::string const& path) {
  struct stat info {};
  return stat(path.c_str(), &info) == 0 ? static_cast<std::uint64_t>(info.st_size) : 0;
}

}  // namespace

ArtifactFetcher::ArtifactFetcher(libtamrelcore& client, AgentConfig const& config,
                                 std::atomic<bool> const& stop)
    : client_(client), config_(config), stop_(stop) {
  listen(client_.downloadStarted, [this](std::string, std::string) {
    transferring_ = true;
    if (Watchdog* watchdog = watchdog_.load()) watchdog->started();
  });
  listen(client_.downloadBytes, [this](int n) {
    std::uint64_t const count = n > 0 ? static_cast<std::uint64_t>(n) : 0;
    std::uint64_t const total = received_ += count;
    if (Watchdog* watchdog = watchdog_.load()) watchdog->bytes(static_cast<std::int64_t>(count));
    // Before the start the library reports the bytes already on disk, which
    // the bar was started with.
    if (transferring_) bar_.bytes(n);
    hasher_.available(total);
    // A body longer than the artifact would otherwise fill the disk.
    if (total > expected_ && !oversize_.exchange(true)) client_.cancelTransfer();
  });
  listen(client_.downloadProgress, [this](std::string, std::string, int p) { bar_.percent(p); });
  listen(client_.downloadFinished, [this](std::string, std::string, download_errors_t,
                                          unsigned int status) { lastStatus_ = status; });
}

// The agent does not link the library, so it does not call
// get_full_artifact_file_path.
std::string ArtifactFetcher::filePath(artifact_t const& artifact) {
  return artifact.destination + "/" + artifact.filename;
}

bool ArtifactFetcher::watched(bool transfer, std::function<bool()> const& work) {
  Watchdog::Limits limits;
  std::int64_t const window = transfer ? config_.timeoutSeconds : 0;
  limits.windowMs = window * 1000;
  limits.windowBytes = std::max<std::int64_t>(1, window * config_.downloadMinRate);
  Watchdog watchdog(
      limits, [this] { return stopping(); },
      [this, transfer](Watchdog::Verdict) {
        transfer ? client_.cancelTransfer() : client_.cancelVerifyArtifact();
      });
  transferring_ = false;
  received_ = 0;
  oversize_ = false;
  watchdog_ = transfer ? &watchdog : nullptr;
  bool const result = watchdog.run(work);
  watchdog_ = nullptr;
  if (watchdog.verdict() == Watchdog::Verdict::kTooSlow) {
    stalled_ = true;
    Log::warning("  download: fewer than %lld bytes in %lld s (download-min-rate), cancelled",
                 static_cast<long long>(limits.windowBytes), static_cast<long long>(window));
  }
  if (transfer && oversize_) {
    std::remove(artifactFile_.c_str());
    Log::warning("  %s: more bytes than the announced %llu, cancelled and removed",
                 artifactFile_.c_str(), static_cast<unsigned long long>(expected_));
  }
  return result;
}

bool ArtifactFetcher::verify(artifact_t const& artifact, std::string const& sha256,
                             std::string& detail, bool justDownloaded) {
  std::string const path = filePath(artifact);
  bool intact = true;
  if (justDownloaded) {
    // download_ok already means that the digest of every byte written
    // matched after the file was flushed: such a file is not read again.
    intact = fileSize(path) == artifact.size;
  } else {
    // The SHA-256 reads the file on its own thread while the library reads
    // it for its digest: one pass over a cached file in the time of one.
    if (!sha256.empty()) {
      hasher_.follow(path, 0);
      hasher_.end();
    }
    intact = watched(false, [&] { return client_.verifyArtifact(artifact); });
  }
  if (!intact) {
    hasher_.pause();
    detail = artifact.filename +
             (!justDownloaded && stopping() ? ": interrupted" : ": verification failed");
    return false;
  }
  if (sha256.empty()) return true;
  std::string const digest = hasher_.result();
  if (digest != sha256) {
    detail = artifact.filename + (stopping()       ? ": interrupted"
                                  : digest.empty() ? ": cannot read the file for SHA-256"
                                                   : ": SHA-256 digest mismatch");
    return false;
  }
  return true;
}

bool ArtifactFetcher::fetch(std::string const& label, artifact_t& artifact,
                            std::string const& sha256, std::string& detail) {
  if (!artifact.hashes.count("sha1") && !artifact.hashes.count("md5")) {
    detail = artifact.filename + ": refused, the server lists no SHA-1 or MD5 digest";
    return false;
  }
  std::string const path = filePath(artifact);
  // The bounds the watchdog holds this download to.
  artifactFile_ = path;
  expected_ = artifact.size;
  // A complete file from an earlier run (a restart, or a deployment that
  // waited for its maintenance window) is kept when it verifies.
  if (fileSize(path) == artifact.size && verify(artifact, sha256, detail, false)) {
    detail = artifact.filename + ": already on disk and verified";
    return true;
  }
  if (stopping()) return false;
  int const attempts = config_.retries + 1;
  download_errors_t outcome = download_failed;
  int attempt = 0;
  bool shaMismatch = false;
  std::string reason = outcomeText(outcome);
  while (attempt < attempts && !stopping()) {
    ++attempt;
    shaMismatch = false;
    std::uint64_t onDisk = fileSize(path);
    // The library measures a partial file in 32 bits: from 4 GiB on it
    // would resume at the wrong place, so such a file starts over.
    if (onDisk >= (std::uint64_t{1} << 32)) {
      Log::warning("%s: partial file of 4 GiB or more cannot be resumed, starting over",
                   artifact.filename.c_str());
      std::remove(path.c_str());
      onDisk = 0;
    }
    // The library resumes a shorter file and restarts a full-length one.
    bool const resuming = onDisk > 0 && onDisk < artifact.size;
    bar_.start(artifact.filename, artifact.size, resuming ? onDisk : 0);
    lastStatus_ = 0;
    stalled_ = false;
    // The SHA-256 follows the file from byte 0 while it is written.
    if (!sha256.empty()) hasher_.follow(path, resuming ? onDisk : 0);
    watched(true, [&] {
      outcome = client_.downloadArtifact(label, artifact);
      return outcome == download_ok;
    });
    if (outcome == download_ok) bar_.finish(outcomeText(outcome));
    // What it hashed of a file cut short is kept for the next attempt.
    if (outcome != download_ok) hasher_.pause();
    if (outcome == download_ok) {
      if (verify(artifact, sha256, detail, true)) {
        detail =
            artifact.filename + ": downloaded and verified" + (sha256.empty() ? "" : " (SHA-256)");
        return true;
      }
      if (stopping()) return false;
      // The library's digest matched but the file is not what the server
      // lists (the SHA-256 differs, or the length).
      shaMismatch = true;
      outcome = download_hash_error;
    }
    if (outcome == download_invalid) {
      bar_.finish(outcomeText(outcome));
      break;
    }
    // The library appends whatever the server sends. Bytes that are not the
    // artifact's must not become the start of the next attempt: an error
    // page (any status but 200/206; 0 means no answer at all), a whole body
    // sent in answer to a range, or a complete file with the wrong digest.
    // A transfer of the artifact that was cut short or stalled is resumed.
    bool const errorPage = lastStatus_ != 0 && lastStatus_ != 200 && lastStatus_ != 206;
    bool const rangeIgnored = resuming && lastStatus_ == 200;
    std::uint64_t const got = fileSize(path);
    bool const wrongWhole = outcome == download_hash_error && got >= artifact.size;
    // The library reports any file whose digest does not match as a digest
    // mismatch; a refused or cut transfer is said as such.
    if (shaMismatch || wrongWhole) {
      reason = shaMismatch ? "digest mismatch (SHA-256)" : "digest mismatch";
    } else if (errorPage) {
      reason = "HTTP " + std::to_string(lastStatus_);
    } else if (outcome == download_hash_error || outcome == download_failed) {
      reason =
          "cut short at " + std::to_string(got) + " of " + std::to_string(artifact.size) + " bytes";
    } else {
      reason = outcomeText(outcome);
    }
    // The library reports a cut transfer as a digest mismatch too.
    if (!shaMismatch) bar_.finish(stalled_ ? "stalled, cancelled" : reason);
    if (errorPage || rangeIgnored || wrongWhole) std::remove(path.c_str());
  }
  std::ostringstream text;
  text << artifact.filename << ": ";
  if (stopping()) {
    text << "interrupted";
  } else {
    text << (stalled_ ? "stalled" : reason) << " after " << attempt << " attempt(s)";
  }
  detail = text.str();
  return false;
}
