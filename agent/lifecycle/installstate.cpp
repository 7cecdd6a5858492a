#include "agent/lifecycle/installstate.h"

#include "agent/base/atomicfile.h"
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

}  // namespace

bool InstallState::load(Pending& pending, std::string& error) const {
  if (!enabled()) return false;
  std::string text;
  if (!AtomicFile::read(path(), kMaxRecordBytes, text, error)) return false;
  std::string const problem = parse(text, pending);
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
  return AtomicFile::write(path(), text.str(), error);
}

bool InstallState::clear(std::string& error) const {
  return !enabled() || AtomicFile::remove(path(), error);
}

bool InstallState::confirm(std::string const& confirmCommand, Pending& pending, std::string& error,
                           std::atomic<bool> const* stop, std::int64_t deadlineMs) const {
  if (!pending.result.empty()) return true;
  if (confirmCommand.empty()) {
    pending.result = "success";
    pending.details.push_back("restarted after the reboot; no confirm-command configured");
  } else {
    CommandOptions options;
    options.stop = stop;
    options.deadlineMs = deadlineMs;
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
