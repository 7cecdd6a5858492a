#ifndef TAMREL_AGENT_TRANSFER_FOLLOWINGHASHER_H_
#define TAMREL_AGENT_TRANSFER_FOLLOWINGHASHER_H_

#include <sys/types.h>

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <thread>

#include "digest/digest.h"

// Takes the SHA-256 of a file on a thread of its own while another thread
// writes it, so that the digest is ready soon after the last byte is written.
// The writer says how far the file may be read; the reader follows from byte
// 0 through one fixed buffer, reading data that is still in the page cache.
// The writer is never held up: telling the reader costs it an atomic store,
// and a lock only when the reader sleeps waiting for more. The reader ends
// within one block of a stop request or of pause().
class FollowingHasher {
 public:
  explicit FollowingHasher(std::atomic<bool> const& stop);
  ~FollowingHasher();
  FollowingHasher(FollowingHasher const&) = delete;
  FollowingHasher& operator=(FollowingHasher const&) = delete;

  // Starts reading `path`. Its first `kept` bytes are those the last run left
  // on disk (0: the file starts over): when it is still the same file, the
  // hash goes on from where that run paused, otherwise it starts at byte 0.
  void follow(std::string const& path, std::uint64_t kept);
  // The file holds at least `size` bytes (at most the writer's count: bytes
  // the writer still buffers are waited for).
  void available(std::uint64_t size);
  // No more bytes come: the reader goes on to the end of the file.
  void end();
  // end(), then waits for the reader: the hex SHA-256 of the whole file, ""
  // when it could not be read or a stop was requested.
  std::string result();
  // Stops the reader where it is, keeping its hash for a resumed run.
  void pause();

 private:
  void run();
  // Waits until `want` bytes may be read, the file ended, or the reader must
  // stop; false for the last.
  bool waitFor(std::uint64_t want);
  bool quitting() const { return quit_ || stop_.load(); }

  std::atomic<bool> const& stop_;
  std::thread reader_;
  std::mutex lock_;
  std::condition_variable wake_;
  std::atomic<std::uint64_t> limit_{0};  // readable bytes, from the writer
  std::atomic<std::uint64_t> want_{0};   // what the sleeping reader waits for
  std::atomic<bool> waiting_{false};
  std::atomic<bool> ended_{false};
  std::atomic<bool> quit_{false};
  // The reader's state, kept between runs; touched only while no reader runs
  // or by the reader.
  std::string path_;
  std::unique_ptr<tamrel::Digest> digest_;
  std::unique_ptr<unsigned char[]> block_;
  std::uint64_t hashed_ = 0;
  dev_t device_ = 0;
  ino_t inode_ = 0;
  bool failed_ = false;
};

#endif  // TAMREL_AGENT_TRANSFER_FOLLOWINGHASHER_H_
