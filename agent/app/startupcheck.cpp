#include "agent/app/startupcheck.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cctype>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sstream>

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

// "" when `path` is no directory others could plant files in: the agent
// writes and runs what is there as its own user.
std::string ownedDirectory(char const* key, std::string const& path) {
  struct stat info {};
  if (stat(path.c_str(), &info) != 0) return std::string();
  if ((info.st_mode & (S_IWGRP | S_IWOTH)) != 0) {
    return std::string(key) + " " + path + " is writable by group or others; chmod go-w it";
  }
  return std::string();
}

// Creates `path` and its parents as needed; "" when it is a writable
// directory, otherwise the reason.
std::string directory(char const* key, std::string const& path) {
  for (std::size_t slash = path.find('/', 1);; slash = path.find('/', slash + 1)) {
    std::string const part = path.substr(0, slash);
    if (!part.empty() && mkdir(part.c_str(), 0755) != 0 && errno != EEXIST) {
      return std::string(key) + " " + path + ": cannot create " + part + ": " +
             std::strerror(errno);
    }
    if (slash == std::string::npos) break;
  }
  struct stat info {};
  if (stat(path.c_str(), &info) != 0 || !S_ISDIR(info.st_mode)) {
    return std::string(key) + " " + path + " is not a directory";
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
  std::string problem = directory("download-dir", config.downloadDir);
  if (problem.empty()) problem = ownedDirectory("download-dir", config.downloadDir);
  // Where an action stands is recorded there before each step: without it a
  // restart would install again.
  if (problem.empty() && config.stateDir.empty()) problem = "state-dir must name a directory";
  if (problem.empty()) {
    problem = directory("state-dir", config.stateDir);
    if (problem.empty()) problem = ownedDirectory("state-dir", config.stateDir);
  }
  if (!problem.empty()) return problem;
  // A reboot without its record would install again after it, or never
  // confirm.
  if (config.rebootExitCode >= 0 &&
      (config.stateDir.empty() || config.rebootCommand.empty() || config.confirmCommand.empty())) {
    return "reboot-exit-code needs state-dir, reboot-command and confirm-command";
  }
  // Without the boot id a restart would pass for the reboot.
  if (config.rebootExitCode >= 0) {
    std::ifstream in(config.bootIdFile);
    std::string id;
    if (!std::getline(in, id) || id.empty())
      return "boot-id-file " + config.bootIdFile +
             " cannot be read; it tells whether a reboot happened";
  }
  if (config.installCommand.empty() && !config.downloadOnly && !config.demo) {
    return "install-command is not set; start with --download-only to download and verify "
           "without installing";
  }
  struct {
    char const* key;
    std::string const& command;
  } const commands[] = {{"install-command", config.installCommand},
                        {"reboot-command", config.rebootCommand},
                        {"confirm-command", config.confirmCommand},
                        {"consent-command", config.consentCommand}};
  for (auto const& entry : commands) {
    if (entry.command.empty()) continue;
    std::string const error = syntaxError(entry.command);
    if (!error.empty()) return std::string(entry.key) + ": sh cannot read it: " + error;
    if (commandProgram(entry.command).empty()) {
      return std::string(entry.key) + ": no executable program for '" + entry.command + "'";
    }
  }
  return std::string();
}
