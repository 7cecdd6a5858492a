#ifndef TAMREL_IO_FILEIO_H_
#define TAMREL_IO_FILEIO_H_

#include <fstream>
#include <memory>
#include <string>

#include "io/iobase.h"

// Stores a download in a file, built for resuming: the file is opened for
// appending without truncation, size() says where to resume, and installing a
// hasher replays the bytes already on disk into it so that the final digest
// covers the whole file. reset() truncates for a restart.
class fileio : public iobase {
 public:
  // An empty name is refused with a log line; the object then has no file and
  // every write stores 0 bytes. A file that cannot be opened logs nothing.
  explicit fileio(std::string const& path);

  unsigned int write(char const* data, unsigned int length) override;
  // Not available for files: logs and returns the empty text.
  std::string data() const override;
  // The file's length (32 bits: files of 4 GiB and more are not supported).
  unsigned int size() const override;
  std::shared_ptr<char> read(unsigned int& length) override;
  void reset() override;
  // Installs the hasher, then re-reads the whole file into it.
  void setHash(std::unique_ptr<hashbase>&& hash) override;
  bool hashMatches() override;
  // Writes what the stream still buffers to the file. False, after a log
  // line, when the file cannot take it (a full disk).
  bool flush();
  // Feeds the current file content to the hasher in 4096-byte blocks.
  void rehash();

 private:
  // Reads `n` bytes; returns the stream's advance, negative when it failed.
  long long readChunk(char* buffer, long long n);

  static constexpr std::streamsize kStreamBuffer = 64 * 1024;

  std::unique_ptr<char[]> streamBuffer_;  // outlives `file`, which uses it
  mutable std::fstream file;
  std::string path;
  mutable long long getPos_ = -1;  // the get position while reading; -1: not known
};

#endif  // TAMREL_IO_FILEIO_H_
