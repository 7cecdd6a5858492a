#include "agent/commands/attributescripts.h"

#include <dirent.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <set>

#include "agent/base/agentconfig.h"
#include "agent/base/console.h"
#include "agent/base/log.h"
#include "agent/commands/command.h"

AttributeScripts::AttributeScripts(Settings settings, std::atomic<bool> const* stop)
    : settings_(std::move(settings)), stop_(stop), current_(settings_.fixed) {}

std::vector<tamrel::value_pair_t> const& AttributeScripts::gather() {
  std::vector<std::string> names;
  if (!settings_.dir.empty()) {
    DIR* const dir = opendir(settings_.dir.c_str());
    if (dir == nullptr) {
      problem("", "attributes-dir " + settings_.dir + " cannot be read");
    } else {
      problem("", "");
      while (dirent const* entry = readdir(dir)) {
        if (entry->d_name[0] != '.') names.push_back(entry->d_name);
      }
      closedir(dir);
    }
  }
  std::sort(names.begin(), names.end());
  std::map<std::string, std::string> gathered;
  for (std::string const& name : names) {
    if (stop_ != nullptr && stop_->load()) break;
    std::map<std::string, std::string> lines;
    if (run(name, lines)) {
      for (auto& line : lines) gathered[line.first] = std::move(line.second);
    }
  }
  current_ = settings_.fixed;
  std::set<std::string> fixed;
  for (auto const& pair : settings_.fixed) fixed.insert(pair.key);
  for (auto const& [key, value] : gathered) {
    if (fixed.count(key))
      Log::debug("attributes: %s from a script ignored, the agent or its configuration sets it",
                 key.c_str());
    else
      current_.push_back({key, value});
  }
  return current_;
}

bool AttributeScripts::run(std::string const& name, std::map<std::string, std::string>& into) {
  std::string const path = settings_.dir + "/" + name;
  struct stat info {};
  if (stat(path.c_str(), &info) != 0 || !S_ISREG(info.st_mode) || access(path.c_str(), X_OK) != 0) {
    Log::debug("attributes: %s skipped, not an executable file", path.c_str());
    return false;
  }
  // What the agent runs (as root) must be no one else's to change.
  if ((info.st_mode & (S_IWGRP | S_IWOTH)) != 0 || (info.st_uid != 0 && info.st_uid != geteuid())) {
    problem(name, path + " skipped: writable by group or others, or owned by uid " +
                      std::to_string(info.st_uid));
    return false;
  }
  CommandOptions options;
  options.stop = stop_;
  options.deadlineMs = settings_.deadlineMs;
  options.captureBytes = kAttributeOutputBytes;
  CommandResult const result = runCommand("exec \"$1\"", {path}, options);
  if (result.stopped) return false;
  if (result.exitCode != 0 || result.timedOut) {
    std::string text = path + ": " + result.describe();
    if (!result.stderrTail.empty()) text += ": " + result.stderrTail.back();
    problem(name, text + "; its attributes left out");
    return false;
  }
  if (result.outputCut) {
    problem(name, path + ": more than " + std::to_string(kAttributeOutputBytes) +
                      " bytes of output; its attributes left out");
    return false;
  }
  std::size_t start = 0;
  for (int number = 1; start < result.output.size(); ++number) {
    std::size_t end = result.output.find('\n', start);
    if (end == std::string::npos) end = result.output.size();
    std::string const line = result.output.substr(start, end - start);
    start = end + 1;
    if (line.empty()) continue;
    std::size_t const equals = line.find('=');
    std::string const key = line.substr(0, std::min(equals, line.size()));
    std::string const value = equals == std::string::npos ? "" : line.substr(equals + 1);
    char const* const bad =
        equals == std::string::npos ? "no '='"
        : key.empty()               ? "no name before '='"
        : key.size() > AgentConfig::kMaxAttribute || value.size() > AgentConfig::kMaxAttribute
            ? "name or value over 128 characters"
        : !Console::printable(line) ? "control characters or invalid UTF-8"
                                    : nullptr;
    if (bad != nullptr) {
      problem(name, path + ":" + std::to_string(number) + ": " + bad + "; its attributes left out");
      return false;
    }
    into[key] = value;
  }
  problem(name, "");
  return true;
}

void AttributeScripts::problem(std::string const& name, std::string const& text) {
  std::string& last = problems_[name];
  if (!text.empty() && text != last)
    Log::warning("attributes: %s", text.c_str());
  else if (!text.empty())
    Log::debug("attributes: %s", text.c_str());
  last = text;
}

bool AttributeScripts::changed() const {
  return std::any_of(current_.begin(), current_.end(), [this](auto const& pair) {
    auto const taken = accepted_.find(pair.key);
    return taken == accepted_.end() || taken->second != pair.value;
  });
}

void AttributeScripts::accepted() {
  for (auto const& pair : current_) accepted_[pair.key] = pair.value;
}
