#ifndef TAMREL_AGENT_SHA256FILE_H_
#define TAMREL_AGENT_SHA256FILE_H_

#include <atomic>
#include <string>

// The SHA-256 digest of a file, read in fixed-size blocks (constant memory
// whatever the file's size), for artifacts whose server lists one.
class Sha256File {
 public:
  // Lower-case hex digest; "" when the file cannot be read or `stop` was
  // set while reading.
  static std::string digest(std::string const& path, std::atomic<bool> const& stop);
};

#endif  // TAMREL_AGENT_SHA256FILE_H_
