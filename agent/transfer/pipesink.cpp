#include "agent/transfer/pipesink.h"

#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>

PipeSink::PipeSink(int fd, std::uint64_t size, std::vector<Expected> digests, std::size_t holdBack,
                   std::function<bool()> abandon)
    : fd_(fd),
      size_(size),
      releaseUpTo_(size > holdBack ? size - holdBack : 0),
      expected_(std::move(digests)),
      abandon_(std::move(abandon)) {
  // Writes wait in poll(), where a cancel can end them.
  if (fd_ >= 0) fcntl(fd_, F_SETFL, fcntl(fd_, F_GETFL) | O_NONBLOCK);
  for (Expected const& digest : expected_) {
    Hasher hasher;
    if (digest.kind == tamrel::Digest::Kind::kMd5 && expected_.size() > 1) {
      hasher.worker = std::make_unique<DigestWorker>(digest.kind);
    } else {
      hasher.here = std::make_unique<tamrel::Digest>(digest.kind);
    }
    digests_.push_back(std::move(hasher));
  }
  tail_.reserve(static_cast<std::size_t>(size_ - releaseUpTo_));
}

PipeSink::~PipeSink() { closePipe(); }

void PipeSink::closePipe() {
  if (fd_ >= 0) close(fd_);
  fd_ = -1;
}

std::size_t PipeSink::push(char const* data, std::size_t length) {
  std::size_t done = 0;
  while (done < length) {
    if (fd_ < 0) {
      refusal_ = Refusal::kWriteFailed;
      break;
    }
    ssize_t const n = ::write(fd_, data + done, length - done);
    if (n > 0) {
      done += static_cast<std::size_t>(n);
      continue;
    }
    if (n < 0 && errno == EINTR) continue;
    if (n < 0 && errno == EAGAIN) {
      // The reader is busy: wait for room, looking for a cancel now and then.
      if (abandon_ && abandon_()) {
        refusal_ = Refusal::kAbandoned;
        break;
      }
      pollfd room{fd_, POLLOUT, 0};
      poll(&room, 1, 100);
      continue;
    }
    refusal_ = n < 0 && errno == EPIPE ? Refusal::kReaderGone : Refusal::kWriteFailed;
    break;
  }
  return done;
}

unsigned int PipeSink::write(char const* data, unsigned int length) {
  if (refusal_ != Refusal::kNone) return 0;
  std::size_t const take =
      static_cast<std::size_t>(std::min<std::uint64_t>(length, size_ - received_));
  std::size_t accepted = 0;
  if (received_ < releaseUpTo_) {
    std::size_t const direct =
        static_cast<std::size_t>(std::min<std::uint64_t>(take, releaseUpTo_ - received_));
    accepted = push(data, direct);
  }
  if (accepted == take || received_ + accepted >= releaseUpTo_) {
    // The rest belongs to the held-back tail.
    tail_.insert(tail_.end(), data + accepted, data + take);
    accepted = take;
  }
  // The worker copies first, so that it hashes while the others do.
  for (Hasher& hasher : digests_) {
    if (hasher.worker) hasher.worker->update(data, accepted);
  }
  for (Hasher& hasher : digests_) {
    if (hasher.here) hasher.here->update(data, accepted);
  }
  received_ += accepted;
  if (accepted < length && refusal_ == Refusal::kNone) refusal_ = Refusal::kOversize;
  return static_cast<unsigned int>(accepted);
}

bool PipeSink::hashMatches() {
  if (results_.empty()) {
    for (Hasher& hasher : digests_)
      results_.push_back(hasher.worker ? hasher.worker->hex() : hasher.here->hex());
  }
  for (std::size_t i = 0; i < expected_.size(); ++i) {
    if (results_[i].empty() || results_[i] != expected_[i].hex) return false;
  }
  return !expected_.empty();
}

bool PipeSink::finish(std::string& detail) {
  if (received_ != size_) {
    detail =
        "cut short at " + std::to_string(received_) + " of " + std::to_string(size_) + " bytes";
    return false;
  }
  if (!hashMatches()) {
    std::string names;
    for (std::size_t i = 0; i < expected_.size(); ++i) {
      if (results_[i] != expected_[i].hex) names += (names.empty() ? "" : ", ") + expected_[i].name;
    }
    detail = "digest mismatch (" + (names.empty() ? std::string("no digest listed") : names) +
             "); the end of the stream was held back";
    return false;
  }
  if (push(tail_.data(), tail_.size()) < tail_.size()) {
    detail = "the install command stopped reading before the end of the stream";
    return false;
  }
  closePipe();
  return true;
}
