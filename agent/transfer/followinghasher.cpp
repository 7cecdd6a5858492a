#include "agent/transfer/followinghasher.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <limits>

namespace {

// The reader's buffer: small enough to stay in the processor's cache
// between the copy from the file and the hash (larger blocks hash about a
// third slower here).
constexpr std::uint64_t kBlock = 64 * 1024;
// How far the writer gets ahead before a waiting reader wakes: one wake per
// many of the writer's chunks, little left to read when the writer ends.
constexpr std::uint64_t kBatch = 256 * 1024;

struct Descriptor {
  int fd;
  ~Descriptor() {
    if (fd >= 0) close(fd);
  }
};

}  // namespace

FollowingHasher::FollowingHasher(std::atomic<bool> const& stop) : stop_(stop) {}

FollowingHasher::~FollowingHasher() { pause(); }

void FollowingHasher::follow(std::string const& path, std::uint64_t kept) {
  pause();
  // The hash of the last run goes on only over bytes that are still there.
  if (!digest_ || failed_ || hashed_ > kept || path != path_) {
    digest_ = std::make_unique<tamrel::Digest>(tamrel::Digest::Kind::kSha256);
    hashed_ = 0;
    failed_ = false;
    path_ = path;
  }
  if (!block_) block_.reset(new unsigned char[kBlock]);
  limit_ = kept;
  ended_ = false;
  quit_ = false;
  reader_ = std::thread([this] { run(); });
}

void FollowingHasher::available(std::uint64_t size) {
  limit_.store(size);
  // The reader stores `want_` and `waiting_` before it reads `limit_`, so it
  // either sees this size or is seen waiting here.
  if (waiting_.load() && size >= want_.load()) {
    std::lock_guard<std::mutex> guard(lock_);
    wake_.notify_one();
  }
}

void FollowingHasher::end() {
  {
    std::lock_guard<std::mutex> guard(lock_);
    ended_ = true;
  }
  wake_.notify_one();
}

std::string FollowingHasher::result() {
  if (!reader_.joinable()) return std::string();
  end();
  reader_.join();
  std::string const hex = failed_ || stop_.load() ? std::string() : digest_->hex();
  digest_.reset();  // finished: the next run starts over
  return hex;
}

void FollowingHasher::pause() {
  if (!reader_.joinable()) return;
  {
    std::lock_guard<std::mutex> guard(lock_);
    quit_ = true;
  }
  wake_.notify_one();
  reader_.join();
}

bool FollowingHasher::waitFor(std::uint64_t want) {
  std::unique_lock<std::mutex> guard(lock_);
  want_ = want;
  waiting_ = true;
  // The agent ends every run it starts; the timeout only bounds how late a
  // stop request is seen should it not.
  while (!quitting() && !ended_ && limit_.load() < want) {
    wake_.wait_for(guard, std::chrono::milliseconds(100));
  }
  waiting_ = false;
  return !quitting();
}

void FollowingHasher::run() {
  Descriptor file{-1};
  for (;;) {
    bool const ended = ended_.load();
    std::uint64_t const limit = ended ? std::numeric_limits<std::uint64_t>::max() : limit_.load();
    if (hashed_ < limit) {
      if (file.fd < 0) {
        file.fd = open(path_.c_str(), O_RDONLY | O_CLOEXEC);
        struct stat info {};
        if (file.fd < 0 || fstat(file.fd, &info) != 0) {
          failed_ = true;
          return;
        }
        // Another file than the one hashed so far: it is hashed from its start.
        if (hashed_ > 0 && (info.st_dev != device_ || info.st_ino != inode_)) {
          digest_ = std::make_unique<tamrel::Digest>(tamrel::Digest::Kind::kSha256);
          hashed_ = 0;
        }
        device_ = info.st_dev;
        inode_ = info.st_ino;
      }
      std::uint64_t const size = std::min(kBlock, limit - hashed_);
      ssize_t const got =
          pread(file.fd, block_.get(), static_cast<std::size_t>(size), static_cast<off_t>(hashed_));
      if (got < 0 && errno == EINTR) continue;
      if (got < 0) {
        failed_ = true;
        return;
      }
      if (got > 0) {
        digest_->update(block_.get(), static_cast<std::size_t>(got));
        hashed_ += static_cast<std::uint64_t>(got);
        if (quitting()) return;
        continue;
      }
      if (ended) return;  // the whole file is hashed
    }
    // Caught up, or the writer counted bytes it still buffers: wait for more.
    if (!waitFor(std::max(hashed_ + kBatch, limit + 1))) return;
  }
}
