#ifndef TAMREL_AGENT_TRANSFER_PIPESINK_H_
#define TAMREL_AGENT_TRANSFER_PIPESINK_H_

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "agent/transfer/digestworker.h"
#include "digest/digest.h"
#include "io/iobase.h"

// A download sink that feeds an installer's standard input as the bytes
// arrive, hashes every byte with each digest the server listed (one pass;
// with several, MD5, the slowest, on a thread of its own: DigestWorker),
// and holds back the artifact's last bytes: the reader sees the end of its
// input only from finish(), once the whole artifact came and every digest
// matches. Memory stays at the held-back part, whatever the artifact's size.
// Bytes go to the pipe in order and once: size() (what came so far) is where
// a resumed transfer continues.
class PipeSink : public iobase {
 public:
  struct Expected {
    tamrel::Digest::Kind kind;
    std::string name;  // "sha256", for the detail
    std::string hex;   // lower-case
  };
  enum class Refusal { kNone, kOversize, kReaderGone, kAbandoned, kWriteFailed };

  // `fd` is the pipe's writing end (owned, closed by the sink); `size` the
  // artifact's length; `holdBack` how many of its last bytes wait for the
  // digests. `abandon` is asked while a write waits for the reader: true
  // ends the write (the transfer is cancelled or the agent stops).
  PipeSink(int fd, std::uint64_t size, std::vector<Expected> digests, std::size_t holdBack,
           std::function<bool()> abandon);
  ~PipeSink() override;
  PipeSink(PipeSink const&) = delete;
  PipeSink& operator=(PipeSink const&) = delete;

  // Takes as much of `data` as the artifact and the reader allow; fewer
  // bytes than `length` end the transfer (refusal() says why).
  unsigned int write(char const* data, unsigned int length) override;
  std::string data() const override { return std::string(); }
  unsigned int size() const override { return static_cast<unsigned int>(received_); }
  std::shared_ptr<char> read(unsigned int& length) override {
    length = 0;
    return nullptr;
  }
  // A stream cannot start over: what the reader has seen stays seen.
  void reset() override {}
  void setHash(std::unique_ptr<hashbase>&&) override {}
  // Every digest matches everything received (finishes the digests).
  bool hashMatches() override;

  // With the whole artifact received and every digest matching, writes the
  // held-back tail and closes the pipe: true. Otherwise closes nothing,
  // releases nothing and says why in `detail`.
  bool finish(std::string& detail);
  // Closes the writing end without releasing the tail (the reader sees a
  // truncated input). Safe to call twice.
  void closePipe();

  std::uint64_t received() const { return received_; }
  std::uint64_t expected() const { return size_; }
  std::size_t heldBack() const { return static_cast<std::size_t>(size_ - releaseUpTo_); }
  Refusal refusal() const { return refusal_; }

 private:
  // Writes all of `data` to the pipe, waiting for the reader as long as
  // `abandon` allows; the count written.
  std::size_t push(char const* data, std::size_t length);

  int fd_;
  std::uint64_t const size_;
  std::uint64_t const releaseUpTo_;  // bytes before this offset go straight on
  std::vector<Expected> expected_;
  // Each listed digest, taken here or by a worker.
  struct Hasher {
    std::unique_ptr<tamrel::Digest> here;
    std::unique_ptr<DigestWorker> worker;
  };
  std::vector<Hasher> digests_;
  std::vector<std::string> results_;  // hex, once finished
  std::function<bool()> abandon_;
  std::vector<char> tail_;  // the held-back bytes
  std::uint64_t received_ = 0;
  Refusal refusal_ = Refusal::kNone;
};

#endif  // TAMREL_AGENT_TRANSFER_PIPESINK_H_
