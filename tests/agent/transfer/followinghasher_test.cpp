// The following hasher against a writer on another thread that pauses and
// resumes it, cuts the file back, starts it over or replaces it: the digest
// is always that of the whole file as it ends, or "" after a stop.
#include "agent/transfer/followinghasher.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdio>
#include <random>

#include "digest/digest.h"
#include "tests/support/temp_dir.h"

namespace {

TEST(FollowingHasher, FollowsAWriterThroughPausesAndRestarts) {
  tamrel::testing::TempDir dir;
  std::string const path = dir.path() + "/artifact";
  std::mt19937 random(20261125);
  std::atomic<bool> stop{false};
  FollowingHasher hasher(stop);
  std::string chunk(200000, '\0');
  for (int round = 0; round < 12; ++round) {
    std::string content;  // what the file holds
    int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
    ASSERT_GE(fd, 0);
    std::size_t const total = 1 + random() % (2 << 20);
    bool const stopped = round == 5;
    hasher.follow(path, 0);
    while (content.size() < total) {
      std::size_t const size = std::min<std::size_t>(total - content.size(), 1 + random() % 200000);
      for (std::size_t i = 0; i < size; ++i) chunk[i] = static_cast<char>(random());
      ASSERT_EQ(pwrite(fd, chunk.data(), size, static_cast<off_t>(content.size())),
                static_cast<ssize_t>(size));
      content.append(chunk, 0, size);
      hasher.available(content.size());
      switch (random() % 8) {
        case 0:  // paused and resumed where the file ends
          hasher.pause();
          hasher.follow(path, content.size());
          break;
        case 1:  // cut back (a part the last run could not keep)
          hasher.pause();
          content.resize(content.size() / 2);
          ASSERT_EQ(ftruncate(fd, static_cast<off_t>(content.size())), 0);
          hasher.follow(path, content.size());
          break;
        case 2:  // started over
          hasher.pause();
          content.clear();
          ASSERT_EQ(ftruncate(fd, 0), 0);
          hasher.follow(path, 0);
          break;
        case 3: {  // replaced by another file of the same length (made beside it)
          hasher.pause();
          close(fd);
          for (char& c : content) c = static_cast<char>(random());
          fd = open((path + ".new").c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
          ASSERT_EQ(write(fd, content.data(), content.size()),
                    static_cast<ssize_t>(content.size()));
          ASSERT_EQ(rename((path + ".new").c_str(), path.c_str()), 0);
          hasher.follow(path, content.size());
          break;
        }
        default:
          break;
      }
      if (stopped && content.size() > total / 2) stop = true;
    }
    close(fd);
    std::string const expected =
        tamrel::Digest::of(tamrel::Digest::Kind::kSha256, content.data(), content.size());
    EXPECT_EQ(hasher.result(), stopped ? "" : expected) << "round " << round;
    stop = false;
  }
}

}  // namespace
