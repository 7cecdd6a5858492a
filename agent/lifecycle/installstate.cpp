#include "agent/lifecycle/installstate.h"

#include "agent/commands/command.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <set>
#include <sstream>

namespace {

// One line per value: line breaks and other control characters become blanks.
std::string oneLine(std::string text) {
  for (char& c : text) {
    if (static_cast<unsigned char>(c) < 0x20) c = ' ';
  }
  return text;
}

bool syncPath(std::string const& path, int flags) {
  int const fd = open(path.c_str(), flags | O_CLOEXEC);
  if (fd < 0) return false;
  bool const ok = fsync(fd) == 0;
  return close(fd) == 0 && ok;
}

std::string directoryOf(std::string const& path) { return path.substr(0, path.rfind('/')); }

}  // namespace

bool InstallState::load(Pending& pending, std::string& error) const {
  if (!enabled()) return false;
  int const fd = open(path().c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW);
  if (fd < 0) {
    if (errno != ENOENT) error = "cannot read " + path() + ": " + std::strerror(errno);
    return false;
  }
  std::string text, problem;
  char buffer[4096];
  for (;;) {
    ssize_t const n = read(fd, buffer, sizeof buffer);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0 || text.size() + static_cast<std::size_t>(n) > kMaxRecordBytes) {
      if (n != 0) problem = n < 0 ? std::string(std::strerror(errno)) : "too large";
      break;
    }
    text.append(buffer, static_cast<std::size_t>(n));
  }
  close(fd);
  if (problem.empty()) problem = parse(text, pending);
  if (!problem.empty()) error = path() + ": " + problem;
  return problem.empty();
}

std::string InstallState::parse(std::string const& text, Pending& pending) {
  pending = Pending();
  std::set<std::string> seen;
  bool complete = false;
  std::istringstream in(text);
  for (std::string line; std::getline(in, line);) {
    if (complete) return "text after \"end\"";
    std::size_t const space = line.find(' ');
    std::string const key = line.substr(0, space);
    std::string const value = space == std::string::npos ? "" : line.substr(space + 1);
    // Lists may repeat; every other key holds one value.
    if (key != "chunk" && key != "detail" && !seen.insert(key).second)
      return "\"" + key + "\" given twice";
    if (key == "action")
      pending.actionId = value;
    else if (key == "chunk")
      pending.chunks.push_back(value);
    else if (key == "boot")
      pending.bootId = value;
    else if (key == "announced")
      pending.announced = true;
    else if (key == "result" && (value == "success" || value == "failure"))
      pending.result = value;
    else if (key == "detail")
      pending.details.push_back(value);
    else if (key == "end")
      complete = true;
    else
      return "unknown line \"" + line.substr(0, 40) + "\"";
  }
  if (!complete || pending.actionId.empty() || pending.chunks.empty()) return "incomplete";
  return std::string();
}

bool InstallState::save(Pending const& pending, std::string& error) const {
  std::ostringstream text;
  text << "action " << oneLine(pending.actionId) << "\n";
  for (auto const& chunk : pending.chunks) text << "chunk " << oneLine(chunk) << "\n";
  if (!pending.bootId.empty()) text << "boot " << oneLine(pending.bootId) << "\n";
  if (pending.announced) text << "announced\n";
  if (!pending.result.empty()) text << "result " << oneLine(pending.result) << "\n";
  // The details are cut so that the record stays readable.
  for (auto const& detail : pending.details) {
    std::string const line = "detail " + oneLine(detail) + "\n";
    if (static_cast<std::size_t>(text.tellp()) + line.size() + 4 > kMaxRecordBytes) break;
    text << line;
  }
  text << "end\n";
  std::string const data = text.str();
  std::string const temporary = path() + ".new";
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
    ssize_t const n = write(fd, data.data() + done, data.size() - done);
    if (n < 0 && errno == EINTR) continue;
    ok = n > 0;
    if (ok) done += static_cast<std::size_t>(n);
  }
  ok = ok && fsync(fd) == 0;
  if (fd >= 0) ok = close(fd) == 0 && ok;
  ok = ok && std::rename(temporary.c_str(), path().c_str()) == 0;
  ok = ok && syncPath(directoryOf(path()), O_RDONLY | O_DIRECTORY);
  if (!ok) {
    error = "cannot write " + path() + ": " + std::strerror(errno);
    std::remove(temporary.c_str());
  }
  return ok;
}

bool InstallState::clear(std::string& error) const {
  if (!enabled()) return true;
  if (std::remove(path().c_str()) != 0 && errno != ENOENT) {
    error = "cannot remove " + path() + ": " + std::strerror(errno);
    return false;
  }
  syncPath(directoryOf(path()), O_RDONLY | O_DIRECTORY);
  return true;
}

bool InstallState::confirm(std::string const& confirmCommand, Pending& pending, std::string& error,
                           std::atomic<bool> const* stop) const {
  if (!pending.result.empty()) return true;
  if (confirmCommand.empty()) {
    pending.result = "success";
    pending.details.push_back("restarted after the reboot; no confirm-command configured");
  } else {
    CommandOptions options;
    options.stop = stop;
    CommandResult const result = runCommand(confirmCommand, {}, options);
    // A stopped confirmation decides nothing: it runs again at the next start.
    if (result.stopped) {
      pending.result.clear();
      return false;
    }
    pending.result = result.exitCode == 0 ? "success" : "failure";
    pending.details.push_back("confirm command: " + result.describe());
    for (auto const& line : result.stderrTail) pending.details.push_back("confirm: " + line);
  }
  save(pending, error);
  return true;
}

hawkbit_query_t::deployment_t InstallState::closingFeedback(Pending const& pending) {
  hawkbit_query_t::deployment_t deployment;
  deployment.id = pending.actionId;
  for (auto const& name : pending.chunks) {
    deployment.chunks.emplace_back();
    deployment.chunks.back().name = name;
    deployment.chunks.back().completed = true;
  }
  deployment.chunks.front().details = pending.details;
  deployment.execution = execution_t::closed;
  deployment.finished = pending.result == "success" ? finished_t::success : finished_t::failure;
  return deployment;
}
