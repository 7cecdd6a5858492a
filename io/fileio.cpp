#include "io/fileio.h"

#include <memory>

#include "io/logline.h"

namespace {

constexpr std::ios_base::openmode kAppendMode =
    std::ios_base::in | std::ios_base::out | std::ios_base::binary | std::ios_base::app;
constexpr std::ios_base::openmode kTruncateMode =
    std::ios_base::in | std::ios_base::out | std::ios_base::binary | std::ios_base::trunc;
constexpr long long kBlock = 4096;

std::shared_ptr<char> emptyPiece() {
  return std::shared_ptr<char>(new char[1](), std::default_delete<char[]>());
}

}  // namespace

fileio::fileio(std::string const& name) : streamBuffer_(new char[kStreamBuffer]), path(name) {
  if (path.empty()) {
    logLine("[E] libtamrelcore -> Cannot open file with empty name. This won't work\n");
    return;
  }
  // A larger stream buffer makes the re-read of a partial file cheap; writes
  // of downloaded chunks bypass it and go straight to the file.
  file.rdbuf()->pubsetbuf(streamBuffer_.get(), kStreamBuffer);
  file.open(path, kAppendMode);
}

unsigned int fileio::write(char const* data, unsigned int length) {
  if (!file.is_open()) return 0;
  getPos_ = -1;
  // The count is the stream's advance, asked of the stream around the write.
  // Appending writes go to the end of the file as it is now, so a file
  // truncated or written by someone else meanwhile gives a different count
  // and the chunk is refused. A failed stream reports -1 as its position, so
  // a write failing at P counts -1-P, one on a stream that had already
  // failed counts 0.
  long long const before = static_cast<long long>(file.tellp());
  file.write(data, static_cast<std::streamsize>(length));
  long long const written = static_cast<long long>(file.tellp()) - before;
  if (written == static_cast<long long>(length)) {
    if (hasher) hasher->write(data, length);
    return length;
  }
  logLine("[E] libtamrelcore -> Unable to write %u bytes to file (wrote %i)\n", length,
          static_cast<int>(written));
  return written > 0 ? static_cast<unsigned int>(written) : 0;
}

bool fileio::flush() {
  // Nothing is buffered for a file that never opened.
  if (!file.is_open() || file.rdbuf()->pubsync() == 0) return true;
  logLine("[E] libtamrelcore -> Unable to write buffered data to file: %s\n", path.c_str());
  return false;
}

std::string fileio::data() const {
  logLine("[E] libtamrelcore -> data() command not available\n");
  return std::string();
}

unsigned int fileio::size() const {
  getPos_ = -1;
  std::streampos const here = file.tellg();
  file.seekg(0, std::ios_base::end);
  std::streampos const end = file.tellg();
  if (here != std::streampos(-1)) file.seekg(here);
  if (end == std::streampos(-1)) return 0;
  return static_cast<unsigned int>(static_cast<long long>(end));
}

long long fileio::readChunk(char* buffer, long long n) {
  if (n < 0) return 0;
  if (getPos_ < 0) getPos_ = static_cast<long long>(file.tellg());
  // The stream's advance; while reading block after block the position is
  // kept here rather than asked of the stream each time. A read cut short by
  // the end of the file leaves the stream failed, so it counts -1-P.
  long long const before = file ? getPos_ : -1;
  if (file.read(buffer, static_cast<std::streamsize>(n))) {
    getPos_ += n;
    return n;
  }
  getPos_ = -1;
  return static_cast<long long>(file.tellg()) - before;
}

std::shared_ptr<char> fileio::read(unsigned int& length) {
  unsigned int const requested = length;
  length = 0;
  if (!file.is_open()) return emptyPiece();
  std::shared_ptr<char> piece(new char[requested == 0 ? 1 : requested],
                              std::default_delete<char[]>());
  long long const got = readChunk(piece.get(), requested);
  if (got < 0) return emptyPiece();
  length = static_cast<unsigned int>(got);
  return piece;
}

void fileio::reset() {
  logLine("[I] libtamrelcore -> Truncating file: %s\n", path.c_str());
  // Close (and flush) the old stream before truncating, so that nothing it
  // still holds can land in the fresh file.
  file.close();
  file.clear();
  file.rdbuf()->pubsetbuf(streamBuffer_.get(), kStreamBuffer);
  file.open(path, kTruncateMode);
  getPos_ = -1;
}

void fileio::setHash(std::unique_ptr<hashbase>&& hash) {
  hasher = std::move(hash);
  rehash();
}

bool fileio::hashMatches() { return hasher ? hasher->matches() : false; }

void fileio::rehash() {
  if (!hasher) {
    logLine("[E] libtamrelcore -> Unable to rehash data - no hasher available\n");
    return;
  }
  getPos_ = -1;
  file.seekg(0, std::ios_base::end);
  long long const total = static_cast<long long>(file.tellg());
  file.seekg(0, std::ios_base::beg);
  // A stream without a position gives -1 here: nothing can be read, and the
  // lines below say so.
  if (total == 0) return;

  long long const blocks = total / kBlock;
  long long const remainder = total % kBlock;
  std::unique_ptr<char[]> buffer(new char[kBlock]);
  long long done = 0;
  for (long long i = 0; i < blocks; ++i) {
    long long const got = readChunk(buffer.get(), kBlock);
    if (got != kBlock) {
      logLine("[E] libtamrelcore -> Unable to read %u bytes from file (got %lli)\n",
              static_cast<unsigned int>(kBlock), got);
      logLine("[E] libtamrelcore -> Unable to read the request %lli bytes from file (got %lli)\n",
              total, done);
      return;
    }
    done += kBlock;
    hasher->write(buffer.get(), static_cast<unsigned int>(kBlock));
  }
  long long const got = readChunk(buffer.get(), remainder);
  if (got < 0 || got != remainder) {
    logLine("[E] libtamrelcore -> Unable to read %lli bytes from file (read %lli)\n", remainder,
            got);
  }
  if (got > 0) {
    hasher->write(buffer.get(), static_cast<unsigned int>(got));
    done += got;
  }
  if (done != total) {
    logLine("[E] libtamrelcore -> Unable to read the request %lli bytes from file (got %lli)\n",
            total, done);
  }
}
