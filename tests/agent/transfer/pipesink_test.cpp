// The sink between the agent's transport and an installer's standard input:
// the held-back tail reaches the reader only when every digest matches, and
// a refused write says why.
#include "agent/transfer/pipesink.h"

#include <fcntl.h>
#include <signal.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <string>

namespace {

using Kind = tamrel::Digest::Kind;

// What the reader of the pipe has got, and whether its input ended.
std::string drain(int fd, bool& ended) {
  std::string got;
  char buffer[4096];
  ssize_t n;
  while ((n = read(fd, buffer, sizeof buffer)) > 0) got.append(buffer, static_cast<std::size_t>(n));
  ended = n == 0;
  return got;
}

TEST(PipeSink, TailOnlyWhenEveryDigestMatches) {
  std::string artifact(40000, '\0');
  for (std::size_t i = 0; i < artifact.size(); ++i)
    artifact[i] = static_cast<char>(i * 7 + i / 251);
  std::string const sha1 = tamrel::Digest::of(Kind::kSha1, artifact.data(), artifact.size());
  std::string const sha256 = tamrel::Digest::of(Kind::kSha256, artifact.data(), artifact.size());
  std::string const md5 = tamrel::Digest::of(Kind::kMd5, artifact.data(), artifact.size());
  struct Case {
    char const* what;
    std::string sha256;  // listed next to the right SHA-1
    std::size_t sent;    // bytes the transfer brought
    bool released;
    char const* detail;
  } const cases[] = {
      {"whole and matching", sha256, artifact.size(), true, ""},
      {"one digest wrong", std::string(64, 'a'), artifact.size(), false,
       "digest mismatch (sha256)"},
      {"cut short", sha256, 35000, false, "cut short at 35000 of 40000 bytes"},
  };
  for (Case const& c : cases) {
    int fds[2];
    ASSERT_EQ(pipe2(fds, O_NONBLOCK), 0);
    PipeSink sink(fds[1], artifact.size(),
                  {{Kind::kSha1, "sha1", sha1},
                   {Kind::kMd5, "md5", md5},
                   {Kind::kSha256, "sha256", c.sha256}},
                  10000, nullptr);
    // In pieces that straddle the start of the tail.
    for (std::size_t at = 0; at < c.sent; at += 7001) {
      unsigned int const piece =
          static_cast<unsigned int>(std::min<std::size_t>(7001, c.sent - at));
      ASSERT_EQ(sink.write(artifact.data() + at, piece), piece) << c.what;
    }
    EXPECT_EQ(sink.size(), c.sent) << c.what;
    bool ended = false;
    std::string got = drain(fds[0], ended);
    EXPECT_EQ(got, artifact.substr(0, std::min<std::size_t>(c.sent, 30000))) << c.what;
    EXPECT_FALSE(ended) << c.what;
    std::string detail;
    EXPECT_EQ(sink.finish(detail), c.released) << c.what;
    EXPECT_NE(detail.find(c.detail), std::string::npos) << c.what << ": " << detail;
    sink.closePipe();
    got += drain(fds[0], ended);
    EXPECT_TRUE(ended) << c.what;
    EXPECT_EQ(got.size(), c.released ? artifact.size() : std::min<std::size_t>(c.sent, 30000))
        << c.what;
    close(fds[0]);
  }
}

TEST(PipeSink, RefusesWhatItCannotPassOn) {
  sigset_t pipeSignal;
  sigemptyset(&pipeSignal);
  sigaddset(&pipeSignal, SIGPIPE);
  pthread_sigmask(SIG_BLOCK, &pipeSignal, nullptr);
  std::string const block(100000, 'x');
  enum class Reader { kReading, kGone, kStuck };
  struct Case {
    char const* what;
    Reader reader;
    std::uint64_t size;
    unsigned int taken;  // of one 100000-byte write
    PipeSink::Refusal refusal;
  } const cases[] = {
      {"more than the artifact", Reader::kReading, 1000, 1000, PipeSink::Refusal::kOversize},
      {"reader gone", Reader::kGone, 200000, 0, PipeSink::Refusal::kReaderGone},
      {"reader stuck, transfer cancelled", Reader::kStuck, 200000, 65536,
       PipeSink::Refusal::kAbandoned},
  };
  for (Case const& c : cases) {
    int fds[2];
    ASSERT_EQ(pipe2(fds, 0), 0);
    fcntl(fds[1], F_SETPIPE_SZ, 65536);  // what a stuck reader lets through
    if (c.reader == Reader::kGone) close(fds[0]);
    int asked = 0;
    PipeSink sink(fds[1], c.size, {{Kind::kMd5, "md5", std::string(32, '0')}}, 64,
                  [&] { return ++asked > 2; });
    EXPECT_EQ(sink.write(block.data(), static_cast<unsigned int>(block.size())), c.taken) << c.what;
    EXPECT_EQ(sink.refusal(), c.refusal) << c.what;
    EXPECT_EQ(sink.write("y", 1), 0u) << c.what;  // nothing more once refused
    if (c.reader != Reader::kGone) close(fds[0]);
  }
  timespec const now{0, 0};
  while (sigtimedwait(&pipeSignal, nullptr, &now) == SIGPIPE) {
  }
  pthread_sigmask(SIG_UNBLOCK, &pipeSignal, nullptr);
}

// The ring wraps many times and the writer waits for the hashing thread.
TEST(DigestWorker, SameDigestThroughASmallRing) {
  std::string data(1000003, '\0');
  for (std::size_t i = 0; i < data.size(); ++i) data[i] = static_cast<char>(i % 253);
  DigestWorker worker(Kind::kMd5, 1000);
  for (std::size_t at = 0; at < data.size(); at += 777)
    worker.update(data.data() + at, std::min<std::size_t>(777, data.size() - at));
  EXPECT_EQ(worker.hex(), tamrel::Digest::of(Kind::kMd5, data.data(), data.size()));
}

}  // namespace
