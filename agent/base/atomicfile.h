#ifndef TAMREL_AGENT_BASE_ATOMICFILE_H_
#define TAMREL_AGENT_BASE_ATOMICFILE_H_

#include <cstddef>
#include <string>

// A small file replaced whole: written to a fresh temporary beside it (never
// one planted there), flushed, renamed over it and the directory flushed, so
// that a crash or power loss leaves either the old or the new contents.
class AtomicFile {
 public:
  // False with `error` ("cannot write PATH: why") when the new contents are
  // not on disk; the old ones are then left as they were.
  static bool write(std::string const& path, std::string const& data, std::string& error);
  // False when the file does not exist (`error` stays "") or cannot be read
  // whole within `limit` bytes (`error` says why). Links are not followed.
  static bool read(std::string const& path, std::size_t limit, std::string& data,
                   std::string& error);
  // Removes the file and flushes its directory; a missing file is no error.
  static bool remove(std::string const& path, std::string& error);
};

#endif  // TAMREL_AGENT_BASE_ATOMICFILE_H_
