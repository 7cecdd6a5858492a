#ifndef TAMREL_IO_MEMORYIO_H_
#define TAMREL_IO_MEMORYIO_H_

#include <cstdint>
#include <string>

#include "io/iobase.h"

// Keeps a body in one string: the sink of JSON answers and the source of JSON
// requests. Without a hasher it stores without hashing and always matches.
class memoryio : public iobase {
 public:
  memoryio() = default;
  // Initial content is a request body: it is never fed to a hasher.
  explicit memoryio(std::string const& content) : storage(content) {}

  unsigned int write(char const* data, unsigned int length) override;
  std::string data() const override { return storage; }
  unsigned int size() const override { return static_cast<unsigned int>(storage.size()); }
  std::shared_ptr<char> read(unsigned int& length) override;
  void reset() override;
  void setHash(std::unique_ptr<hashbase>&& hash) override { hasher = std::move(hash); }
  bool hashMatches() override { return hasher ? hasher->matches() : true; }

 private:
  std::string storage;
  std::uint32_t cursor = 0;
};

#endif  // TAMREL_IO_MEMORYIO_H_
