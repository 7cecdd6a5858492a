#ifndef TAMREL_IO_IOBASE_H_
#define TAMREL_IO_IOBASE_H_

#include <memory>
#include <string>

#include "io/hashbase.h"

// A sink for response bodies and a source for request bodies. Every byte
// stored through write() is also fed to the attached hasher. Owned through
// std::unique_ptr by one transfer record and used on that transfer's thread.
class iobase {
 public:
  virtual ~iobase() = default;
  // Appends the bytes and feeds them to the hasher; returns the count stored
  // (less than `length` on failure).
  virtual unsigned int write(char const* data, unsigned int length) = 0;
  // The whole content, whatever has been read.
  virtual std::string data() const = 0;
  // Bytes held; a download resumes from here when it is not 0.
  virtual unsigned int size() const = 0;
  // The next piece of at most `length` bytes; `length` becomes the count given.
  virtual std::shared_ptr<char> read(unsigned int& length) = 0;
  // Discards the content (the hasher stays).
  virtual void reset() = 0;
  // Installs a hasher, releasing any earlier one.
  virtual void setHash(std::unique_ptr<hashbase>&& hash) = 0;
  // The hasher's verdict on everything fed to it.
  virtual bool hashMatches() = 0;

 protected:
  std::shared_ptr<hashbase> hasher;
};

#endif  // TAMREL_IO_IOBASE_H_
