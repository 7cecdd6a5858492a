#ifndef TAMREL_AGENT_TRANSFER_DIGESTWORKER_H_
#define TAMREL_AGENT_TRANSFER_DIGESTWORKER_H_

#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "digest/digest.h"

// One digest taken on a thread of its own, so that a stream hashed with
// several digests is not held to the sum of their speeds. update() copies
// the bytes into a fixed ring (the writer waits while it is full) and
// returns; hex() waits for the thread to hash the rest. Memory stays at the
// ring's size whatever the stream's length. update() and hex() are called
// from one thread.
class DigestWorker {
 public:
  explicit DigestWorker(tamrel::Digest::Kind kind, std::size_t ringBytes = 1 << 20);
  ~DigestWorker();
  DigestWorker(DigestWorker const&) = delete;
  DigestWorker& operator=(DigestWorker const&) = delete;

  void update(void const* data, std::size_t size);
  // The digest of everything fed; "" when OpenSSL failed.
  std::string hex();

 private:
  void run();

  tamrel::Digest digest_;
  std::vector<char> ring_;
  std::mutex lock_;
  std::condition_variable wake_;
  std::uint64_t written_ = 0, hashed_ = 0;  // positions in the stream
  bool ended_ = false;
  std::string hex_;
  std::thread thread_;
};

#endif  // TAMREL_AGENT_TRANSFER_DIGESTWORKER_H_
