#include "agent/transfer/digestworker.h"

#include <algorithm>
#include <cstring>

DigestWorker::DigestWorker(tamrel::Digest::Kind kind, std::size_t ringBytes)
    : digest_(kind), ring_(ringBytes), thread_([this] { run(); }) {}

DigestWorker::~DigestWorker() {
  {
    std::lock_guard<std::mutex> guard(lock_);
    ended_ = true;
  }
  wake_.notify_all();
  if (thread_.joinable()) thread_.join();
}

void DigestWorker::update(void const* data, std::size_t size) {
  auto const* bytes = static_cast<char const*>(data);
  std::size_t const capacity = ring_.size();
  while (size > 0) {
    std::unique_lock<std::mutex> guard(lock_);
    wake_.wait(guard, [&] { return written_ - hashed_ < capacity; });
    // Up to the free room and the end of the ring, copied without the lock:
    // the thread reads only below written_.
    std::size_t const at = static_cast<std::size_t>(written_ % capacity);
    std::size_t const n =
        std::min({size, capacity - static_cast<std::size_t>(written_ - hashed_), capacity - at});
    guard.unlock();
    std::memcpy(ring_.data() + at, bytes, n);
    guard.lock();
    written_ += n;
    guard.unlock();
    wake_.notify_all();
    bytes += n;
    size -= n;
  }
}

void DigestWorker::run() {
  std::size_t const capacity = ring_.size();
  std::unique_lock<std::mutex> guard(lock_);
  for (;;) {
    wake_.wait(guard, [&] { return written_ > hashed_ || ended_; });
    if (written_ == hashed_) break;  // ended and drained
    std::size_t const at = static_cast<std::size_t>(hashed_ % capacity);
    std::size_t const n = std::min(static_cast<std::size_t>(written_ - hashed_), capacity - at);
    guard.unlock();
    digest_.update(ring_.data() + at, n);
    guard.lock();
    hashed_ += n;
    wake_.notify_all();
  }
  hex_ = digest_.hex();
}

std::string DigestWorker::hex() {
  {
    std::lock_guard<std::mutex> guard(lock_);
    ended_ = true;
  }
  wake_.notify_all();
  if (thread_.joinable()) thread_.join();
  return hex_;
}
