#include "agent/commands/installoutcome.h"

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
