// Digests and the file sink.
#include <unistd.h>

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <functional>

#include "io/fileio.h"
#include "io/md5sum.h"
#include "io/sha1sum.h"
#include "tests/support/capture_stderr.h"
#include "tests/support/temp_dir.h"

namespace {

using tamrel::testing::CaptureStderr;

// Records what it was fed, block by block, and runs `afterBlock` after each.
class RecordingHash : public hashbase {
 public:
  bool matches() override { return true; }
  void write(char const* data, unsigned int length) override {
    blocks.push_back(length);
    bytes.append(data, length);
    if (afterBlock) afterBlock();
  }
  std::string hash() override { return bytes; }
  std::vector<unsigned int> blocks;
  std::string bytes;
  std::function<void()> afterBlock;
};

std::string patterned(std::size_t n) {
  std::string text(n, '\0');
  for (std::size_t i = 0; i < n; ++i) text[i] = static_cast<char>((i * 131 + 7) & 0xff);
  return text;
}

class FileSink : public ::testing::Test {
 protected:
  tamrel::testing::TempDir const tmp_;
  std::string const dir_ = tmp_.path();
  // A new file of `content` under the directory; its path.
  std::string file(std::string const& name, std::string const& content) const {
    std::ofstream(dir_ + "/" + name, std::ios::binary) << content;
    return dir_ + "/" + name;
  }
};

TEST(Hash, KnownAnswersComparedExactly) {
  std::string const fox = "The quick brown fox jumps over the lazy dog";
  sha1sum sha1("2fd4e1c67a2d28fced849ee1bb76e7391b93eb12");
  md5sum md5("9e107d9d372bb6826bd81d3542a419d6");
  for (char c : fox) {  // one byte at a time: splitting must not change the digest
    sha1.write(&c, 1);
    md5.write(&c, 1);
  }
  EXPECT_TRUE(sha1.matches());
  EXPECT_TRUE(md5.matches());
  // Finished once: asking again gives the same text.
  EXPECT_EQ(sha1.hash(), "2fd4e1c67a2d28fced849ee1bb76e7391b93eb12");
  EXPECT_EQ(md5.hash(), "9e107d9d372bb6826bd81d3542a419d6");
  EXPECT_EQ(sha1sum().hash(), "da39a3ee5e6b4b0d3255bfef95601890afd80709");  // of no input
  CaptureStderr capture;  // the comparison is exact: upper case never matches
  EXPECT_FALSE(sha1sum("DA39A3EE5E6B4B0D3255BFEF95601890AFD80709").matches());
  EXPECT_EQ(capture.text(),
            "[W] libtamrelcore -> Checksum does not match. Expected "
            "\"DA39A3EE5E6B4B0D3255BFEF95601890AFD80709\" but got "
            "\"da39a3ee5e6b4b0d3255bfef95601890afd80709\"\n");
}

TEST_F(FileSink, FileRehashesExistingContentInBlocks) {
  struct {
    std::size_t size;
    std::vector<unsigned int> blocks;
  } const rows[] = {{0, {}}, {5000, {4096, 904}}, {8192, {4096, 4096}}, {100, {100}}};
  for (auto const& row : rows) {
    std::string const content = patterned(row.size);
    std::string const name = file("f" + std::to_string(row.size), content);
    CaptureStderr capture;
    fileio io(name);
    auto recorder = std::make_unique<RecordingHash>();
    RecordingHash* seen = recorder.get();
    io.setHash(std::move(recorder));
    EXPECT_EQ(seen->blocks, row.blocks) << row.size;
    EXPECT_EQ(seen->bytes, content);
    EXPECT_EQ(io.write("0123456789", 10), 10u);
    EXPECT_EQ(io.size(), row.size + 10);
    EXPECT_EQ(capture.text(), "");
  }
}

// Counts in the failure lines are stream position differences: a failed
// stream reports -1, so failing at position P counts -1-P, and a stream that
// had already failed counts 0. /dev/full takes no byte once flushed.
TEST(FileIo, FailuresCountPositionDifferences) {
  CaptureStderr capture;
  fileio full("/dev/full");
  std::string const block(2000, 'b');
  EXPECT_EQ(full.write(block.data(), 100), 100u);  // held in the stream's buffer
  EXPECT_EQ(full.write(block.data(), 2000), 0u);   // written through: fails at 100
  EXPECT_EQ(full.write(block.data(), 10), 0u);
  EXPECT_EQ(capture.text(),
            "[E] libtamrelcore -> Unable to write 2000 bytes to file (wrote -101)\n"
            "[E] libtamrelcore -> Unable to write 10 bytes to file (wrote 0)\n");
}

// A file truncated or appended to by someone else between two writes: the
// second write's count is the stream's advance, not its length, so the chunk
// is refused and the hasher never sees it.
TEST_F(FileSink, OutsideChangesBetweenWritesAreShortWrites) {
  std::pair<std::function<void(std::string const&)>, unsigned int> const rows[] = {
      {[](std::string const& name) { std::filesystem::resize_file(name, 0); }, 1000},
      {[](std::string const& name) { std::ofstream(name, std::ios::app) << patterned(500); }, 3500},
  };
  std::string const data = patterned(3000);
  for (auto const& [change, counted] : rows) {
    std::string const name = file("changed", "");
    fileio io(name);
    auto recorder = std::make_unique<RecordingHash>();
    RecordingHash* seen = recorder.get();
    io.setHash(std::move(recorder));
    EXPECT_EQ(io.write(data.data(), 2000), 2000u);  // past the stream's buffer, on disk
    change(name);
    CaptureStderr capture;
    EXPECT_EQ(io.write(data.data(), 3000), counted);
    EXPECT_EQ(capture.text(), "[E] libtamrelcore -> Unable to write 3000 bytes to file (wrote " +
                                  std::to_string(counted) + ")\n");
    EXPECT_EQ(seen->bytes, data.substr(0, 2000));
  }
}

TEST_F(FileSink, FileShrinkingWhileRehashedCountsThePositionDifference) {
  std::string const name = file("shrinks", patterned(100000));
  fileio io(name);
  auto recorder = std::make_unique<RecordingHash>();
  RecordingHash* seen = recorder.get();
  recorder->afterBlock = [&] {
    if (seen->blocks.size() == 1 && truncate(name.c_str(), 4096) != 0) ADD_FAILURE();
  };
  CaptureStderr capture;
  io.setHash(std::move(recorder));
  long long const done = static_cast<long long>(seen->bytes.size());
  EXPECT_EQ(capture.text(), "[E] libtamrelcore -> Unable to read 4096 bytes from file (got " +
                                std::to_string(-1 - done) + ")\n[E] libtamrelcore -> Unable to " +
                                "read the request 100000 bytes from file (got " +
                                std::to_string(done) + ")\n");
}

TEST_F(FileSink, ResetTruncatesAndOddCallsAreLogged) {
  std::string const name = file("t", "old content");
  CaptureStderr capture;
  fileio io(name);
  io.reset();
  io.rehash();
  fileio unnamed("");
  EXPECT_EQ(unnamed.write("x", 1), 0u);
  fileio missing(dir_ + "/no/such/dir/file");  // no stream position to re-read from
  missing.setHash(std::make_unique<RecordingHash>());
  EXPECT_EQ(capture.text(),
            "[I] libtamrelcore -> Truncating file: " + name +
                "\n"
                "[E] libtamrelcore -> Unable to rehash data - no hasher available\n"
                "[E] libtamrelcore -> Cannot open file with empty name. This won't work\n"
                "[E] libtamrelcore -> Unable to read -1 bytes from file (read 0)\n"
                "[E] libtamrelcore -> Unable to read the request -1 bytes from file (got 0)\n");
  EXPECT_EQ(std::filesystem::file_size(name), 0u);
}

}  // namespace
