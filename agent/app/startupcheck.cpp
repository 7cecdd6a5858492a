#include "agent/app/startupcheck.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cctype>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sstream>
#include <utility>
#include <vector>

#include "agent/commands/command.h"

namespace {

bool executable(std::string const& path) {
  struct stat info {};
  return stat(path.c_str(), &info) == 0 && S_ISREG(info.st_mode) && access(path.c_str(), X_OK) == 0;
}

}  // namespace

std::string commandProgram(std::string const& commandLine) {
  // The first word that is neither an assignment (FOO=1) nor "exec".
  std::istringstream words(commandLine);
  std::string first;
  while (words >> first) {
    std::size_t const equals = first.find('=');
    bool const assignment =
        equals != std::string::npos && equals > 0 &&
        first.find_first_not_of(
            "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz_0123456789") == equals &&
        !std::isdigit(static_cast<unsigned char>(first[0]));
    if (!assignment && first != "exec") break;
    first.clear();
  }
  if (first.empty()) return std::string();
  if (first.find('/') != std::string::npos) return executable(first) ? first : std::string();
  char const* path = std::getenv("PATH");
  std::istringstream dirs(path != nullptr ? path : "/usr/bin:/bin");
  for (std::string dir; std::getline(dirs, dir, ':');) {
    std::string const candidate = (dir.empty() ? "." : dir) + "/" + first;
    if (executable(candidate)) return candidate;
  }
  return std::string();
}

namespace {

// "" when `sh -n` reads the command line, otherwise its complaint.
std::string syntaxError(std::string const& commandLine) {
  CommandResult const result = runCommand("exec /bin/sh -n -c \"$1\"", {commandLine});
  if (result.exitCode == 0) return std::string();
  return result.stderrTail.empty() ? result.describe() : result.stderrTail.back();
}

// "FILE:LINE: " of a key's line in the configuration ("FILE: " for a
// default).
std::string where(AgentConfig const& config, char const* key) {
  auto const line = config.lines.find(key);
  return config.path + (line != config.lines.end() ? ":" + std::to_string(line->second) : "") +
         ": ";
}

// A directory the agent writes to and runs from: checked without touching
// the disk. "" when `path` is a directory of this user that no one else may
// write to, or when it is missing but its parent exists (`create` is then
// set); otherwise the reason.
std::string directory(char const* key, std::string const& path, bool& create) {
  create = false;
  struct stat info {};
  if (stat(path.c_str(), &info) != 0) {
    if (errno != ENOENT && errno != ENOTDIR)
      return std::string(key) + " " + path + ": " + std::strerror(errno);
    // Only the last component is made: a typo must not grow a tree of
    // directories.
    std::string parent = path.substr(0, path.find_last_not_of('/') + 1);
    parent = parent.substr(0, parent.find_last_of('/') + 1);
    if (parent.empty()) parent = ".";
    if (stat(parent.c_str(), &info) != 0 || !S_ISDIR(info.st_mode)) {
      if (parent.size() > 1) parent.pop_back();
      return std::string(key) + " " + path + " cannot be created: " + parent +
             " is no directory (only the last component is created)";
    }
    create = true;
    return std::string();
  }
  if (!S_ISDIR(info.st_mode)) return std::string(key) + " " + path + " is not a directory";
  if (info.st_uid != geteuid()) {
    return std::string(key) + " " + path + " belongs to uid " + std::to_string(info.st_uid) +
           ", not to this user (uid " + std::to_string(geteuid()) + ")";
  }
  // Others could plant files the agent installs or runs.
  if ((info.st_mode & (S_IWGRP | S_IWOTH)) != 0) {
    return std::string(key) + " " + path + " is writable by group or others; chmod go-w it";
  }
  return std::string();
}

// Makes the directory `directory` found missing, then proves it writable.
std::string prepare(char const* key, std::string const& path, bool create) {
  if (create && mkdir(path.c_str(), 0755) != 0 && errno != EEXIST) {
    return std::string(key) + " " + path + ": cannot create it: " + std::strerror(errno);
  }
  // A file made and removed again: access() would pass for root on a
  // read-only file system.
  std::string probe = path + "/.tamrel-probe-XXXXXX";
  int const fd = mkstemp(&probe[0]);
  if (fd < 0) return std::string(key) + " " + path + " is not writable: " + std::strerror(errno);
  close(fd);
  unlink(probe.c_str());
  return std::string();
}

}  // namespace

std::string checkHost(AgentConfig const& config) {
  struct Dir {
    char const* key;
    std::string const& path;
    bool create;
  } dirs[] = {{"download-dir", config.downloadDir, false}, {"state-dir", config.stateDir, false}};
  for (Dir& dir : dirs) {
    if (dir.path.empty()) continue;
    std::string const problem = directory(dir.key, dir.path, dir.create);
    if (!problem.empty()) return where(config, dir.key) + problem;
  }
  // Where an action stands is recorded in state-dir before each step: without
  // it a restart would install again.
  if (config.stateDir.empty())
    return where(config, "state-dir") + "state-dir must name a directory";
  // Where an action stands is recorded in state-dir before each step: without
  // it a restart would install again.
  if (config.stateDir.empty())
    return where(config, "state-dir") + "state-dir must name a directory";
  // Its scripts run as the agent: they must be there, and no one else's.
  if (!config.attributesDir.empty()) {
    bool missing = false;
    std::string problem = directory("attributes-dir", config.attributesDir, missing);
    if (problem.empty() && missing)
      problem = "attributes-dir " + config.attributesDir + " does not exist";
    if (!problem.empty()) return where(config, "attributes-dir") + problem;
  }
  // A reboot without its record would install again after it, or never
  // confirm.
  std::string rebootKey = config.rebootExitCode >= 0 ? "reboot-exit-code" : "";
  if (rebootKey.empty() && !config.partRebootExitCodes.empty())
    rebootKey = "reboot-exit-code." + config.partRebootExitCodes.begin()->first;
  if (!rebootKey.empty() &&
      (config.stateDir.empty() || config.rebootCommand.empty() || config.confirmCommand.empty())) {
    return where(config, rebootKey.c_str()) + rebootKey +
           " needs state-dir, reboot-command and confirm-command";
  }
  // Without the boot id a restart would pass for the reboot.
  if (!rebootKey.empty()) {
    std::ifstream in(config.bootIdFile);
    std::string id;
    if (!std::getline(in, id) || id.empty())
      return where(config, "boot-id-file") + "boot-id-file " + config.bootIdFile +
             " cannot be read; it tells whether a reboot happened";
  }
  if (config.installCommand.empty() && config.partCommands.empty() && !config.downloadOnly &&
      !config.demo) {
    return config.path +
           ": install-command is not set; start with --download-only to download and verify "
           "without installing";
  }
  std::vector<std::pair<std::string, std::string>> commands = {
      {"install-command", config.installCommand},
      {"reboot-command", config.rebootCommand},
      {"confirm-command", config.confirmCommand},
      {"consent-command", config.consentCommand}};
  for (auto const& part : config.partCommands)
    commands.emplace_back("install-command." + part.first, part.second);
  for (auto const& entry : commands) {
    char const* const key = entry.first.c_str();
    if (entry.second.empty()) continue;
    std::string const error = syntaxError(entry.second);
    if (!error.empty()) return where(config, key) + entry.first + ": sh cannot read it: " + error;
    if (commandProgram(entry.second).empty()) {
      return where(config, key) + entry.first + ": no executable program for '" + entry.second +
             "'";
    }
  }
  // Every check passed: only now is anything made on disk.
  for (Dir const& dir : dirs) {
    if (dir.path.empty()) continue;
    std::string const problem = prepare(dir.key, dir.path, dir.create);
    if (!problem.empty()) return where(config, dir.key) + problem;
  }
  return std::string();
}
