#include "agent/base/atomicfile.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

namespace {

bool syncDirectoryOf(std::string const& path) {
  std::size_t const slash = path.rfind('/');
  std::string const dir = slash == std::string::npos ? "."
                          : slash == 0               ? "/"
                                                     : path.substr(0, slash);
  int const fd = open(dir.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (fd < 0) return false;
  bool const ok = fsync(fd) == 0;
  return close(fd) == 0 && ok;
}

}  // namespace

bool AtomicFile::write(std::string const& path, std::string const& data, std::string& error) {
  std::string const temporary = path + ".new";
  // A fresh file, never one planted there (a link would make the agent write
  // its target).
  if (unlink(temporary.c_str()) != 0 && errno != ENOENT) {
    error = "cannot remove " + temporary + ": " + std::strerror(errno);
    return false;
  }
  int const fd =
      open(temporary.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600);
  bool ok = fd >= 0;
  for (std::size_t done = 0; ok && done < data.size();) {
    ssize_t const n = ::write(fd, data.data() + done, data.size() - done);
    if (n < 0 && errno == EINTR) continue;
    ok = n > 0;
    if (ok) done += static_cast<std::size_t>(n);
  }
  ok = ok && fsync(fd) == 0;
  if (fd >= 0) ok = close(fd) == 0 && ok;
  ok = ok && std::rename(temporary.c_str(), path.c_str()) == 0;
  ok = ok && syncDirectoryOf(path);
  if (!ok) {
    error = "cannot write " + path + ": " + std::strerror(errno);
    std::remove(temporary.c_str());
  }
  return ok;
}

bool AtomicFile::read(std::string const& path, std::size_t limit, std::string& data,
                      std::string& error) {
  data.clear();
  int const fd = open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW);
  if (fd < 0) {
    if (errno != ENOENT) error = "cannot read " + path + ": " + std::strerror(errno);
    return false;
  }
  std::string problem;
  char buffer[4096];
  for (;;) {
    ssize_t const n = ::read(fd, buffer, sizeof buffer);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0 || data.size() + static_cast<std::size_t>(n) > limit) {
      if (n != 0) problem = n < 0 ? std::string(std::strerror(errno)) : "too large";
      break;
    }
    data.append(buffer, static_cast<std::size_t>(n));
  }
  close(fd);
  if (!problem.empty()) error = "cannot read " + path + ": " + problem;
  return problem.empty();
}

bool AtomicFile::remove(std::string const& path, std::string& error) {
  if (std::remove(path.c_str()) != 0 && errno != ENOENT) {
    error = "cannot remove " + path + ": " + std::strerror(errno);
    return false;
  }
  syncDirectoryOf(path);
  return true;
}
