#include "agent/commands/installoutcome.h"

#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <sstream>

#include "agent/base/atomicfile.h"

namespace {

std::size_t const kMaxOutcomeBytes = 4096;

}  // namespace

bool InstallOutcome::write(std::string const& path, std::string const& tag,
                           CommandResult const& result, std::string& error) {
  std::string const status = result.exitCode >= 0 ? "exit " + std::to_string(result.exitCode)
                                                  : "signal " + std::to_string(result.signal);
  return AtomicFile::write(path, tag + "\n" + status + "\n", error);
}

bool InstallOutcome::read(std::string const& path, std::string const& tag, CommandResult& result) {
  std::string text, error;
  if (!AtomicFile::read(path, kMaxOutcomeBytes, text, error)) return false;
  std::istringstream in(text);
  std::string readTag, kind, rest;
  int number = -1;
  if (!std::getline(in, readTag) || readTag != tag || !(in >> kind >> number) || number < 0 ||
      (in >> rest))
    return false;
  if (kind == "exit" && number <= 255) {
    result.exitCode = number;
    result.signal = 0;
  } else if (kind == "signal" && number > 0 && number < 65) {
    result.exitCode = -1;
    result.signal = number;
  } else {
    return false;
  }
  result.started = true;
  return true;
}

bool InstallOutcome::remove(std::string const& path, std::string& error) {
  return AtomicFile::remove(path, error);
}

InstallOutcome::Prepared InstallOutcome::prepare(std::string const& path, std::string const& tag) {
  std::size_t const slash = path.rfind('/');
  return {path, path + ".new",
          slash == std::string::npos ? "."
          : slash == 0               ? "/"
                                     : path.substr(0, slash),
          tag};
}

bool InstallOutcome::writeNow(Prepared const& prepared, int waitStatus) {
  // "TAG\nexit N\n" or "TAG\nsignal N\n", built in place.
  char text[kMaxOutcomeBytes];
  std::size_t length = 0;
  auto const add = [&](char const* part, std::size_t size) {
    for (std::size_t i = 0; i < size && length < sizeof text; ++i) text[length++] = part[i];
  };
  add(prepared.tag.data(), prepared.tag.size());
  bool const exited = WIFEXITED(waitStatus);
  add(exited ? "\nexit " : "\nsignal ", exited ? 6 : 8);
  int number = exited ? WEXITSTATUS(waitStatus) : WTERMSIG(waitStatus);
  char digits[12];
  int count = 0;
  do {
    digits[count++] = static_cast<char>('0' + number % 10);
    number /= 10;
  } while (number > 0);
  while (count > 0) add(&digits[--count], 1);
  add("\n", 1);
  if (length == sizeof text) return false;
  char const* temporary = prepared.temporary.c_str();
  unlink(temporary);
  int const fd = open(temporary, O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600);
  if (fd < 0) return false;
  bool ok = ::write(fd, text, length) == static_cast<ssize_t>(length) && fsync(fd) == 0;
  ok = close(fd) == 0 && ok;
  ok = ok && rename(temporary, prepared.path.c_str()) == 0;
  if (!ok) {
    unlink(temporary);
    return false;
  }
  int const dir = open(prepared.directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (dir < 0) return false;
  ok = fsync(dir) == 0;
  return close(dir) == 0 && ok;
}
