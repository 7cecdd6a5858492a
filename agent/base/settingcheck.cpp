#include "agent/base/settingcheck.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

namespace {

std::size_t const kMaxValueFile = 65536;

}  // namespace

std::string SettingCheck::secretFile(std::string const& path, unsigned mode) {
  if ((mode & 066) == 0) return std::string();
  char octal[8];
  std::snprintf(octal, sizeof octal, "%04o", mode & 07777);
  return path + " holds a secret but has mode " + octal +
         ": group or others may read or write it; chmod 600 it";
}

std::string SettingCheck::readFile(std::string const& path, std::string const& key, bool secret,
                                   std::string& problem) {
  // O_NONBLOCK: a FIFO named here must not hold the start up.
  int const fd = open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOCTTY | O_NONBLOCK);
  if (fd < 0) {
    problem = "cannot read '" + path + "' for " + key + ": " + std::strerror(errno);
    return std::string();
  }
  struct Closer {
    int fd;
    ~Closer() { close(fd); }
  } const closer{fd};
  struct stat info {};
  if (fstat(fd, &info) != 0 || !S_ISREG(info.st_mode)) {
    problem = key + ": " + path + " is not a regular file";
    return std::string();
  }
  if (info.st_size > static_cast<off_t>(kMaxValueFile)) {
    problem = key + ": " + path + " is larger than 64 KiB";
    return std::string();
  }
  if (secret) problem = secretFile(path, info.st_mode);
  if (!problem.empty()) {
    problem = key + ": " + problem;
    return std::string();
  }
  std::string text(kMaxValueFile, '\0');
  std::size_t done = 0;
  for (ssize_t n = 0; done < text.size(); done += static_cast<std::size_t>(n)) {
    n = read(fd, &text[done], text.size() - done);
    if (n == 0) break;
    if (n < 0 && errno == EINTR) {
      n = 0;
    } else if (n < 0) {
      problem = "cannot read '" + path + "' for " + key + ": " + std::strerror(errno);
      return std::string();
    }
  }
  text.resize(done);
  return text;
}

std::string SettingCheck::address(std::string address, std::string& problem) {
  std::size_t const host = address.find("://") + 3;
  if (address.find_first_of("?#") != std::string::npos) {
    problem = "address must not carry a query or fragment";
  } else if (address.rfind("http://", 0) != 0 && address.rfind("https://", 0) != 0) {
    problem = "address must start with http:// or https://";
  } else if (address.find_first_of(" \t") != std::string::npos) {
    problem = "address must not contain blanks";
  } else if (host >= address.size() || address[host] == '/' || address[host] == ':' ||
             address[host] == '@') {
    problem = "address names no host";
  }
  while (!address.empty() && address.back() == '/') address.pop_back();
  return address;
}

std::string SettingCheck::pathSegment(std::string const& key, std::string const& value) {
  if (value.find_first_of("/?#\\ ") == std::string::npos) return std::string();
  return key + " must not contain '/', '?', '#', '\\' or blanks: '" + value + "'";
}

std::string SettingCheck::trustedHosts(std::string const& list) {
  std::size_t start = 0;
  for (;;) {
    std::size_t const comma = list.find(',', start);
    std::string entry = list.substr(start, comma - start);
    std::size_t const first = entry.find_first_not_of(" \t");
    entry = first == std::string::npos
                ? std::string()
                : entry.substr(first, entry.find_last_not_of(" \t") - first + 1);
    // A bracketed IPv6 address has colons of its own.
    std::size_t const close = entry.rfind(']');
    std::size_t const colon = entry.find(':', close == std::string::npos ? 0 : close);
    std::string const host = entry.substr(0, colon);
    std::string const port = colon == std::string::npos ? "1" : entry.substr(colon + 1);
    bool const bad = host.empty() || host.find_first_of("/@?#\\ \t") != std::string::npos ||
                     port.empty() || port.size() > 5 ||
                     port.find_first_not_of("0123456789") != std::string::npos ||
                     std::stol(port) < 1 || std::stol(port) > 65535 ||
                     (host[0] == '[') != (close != std::string::npos);
    if (bad) {
      return "trusted-hosts: '" + entry +
             "' is not host or host:port (no scheme, path or user; comma-separated)";
    }
    if (comma == std::string::npos) return std::string();
    start = comma + 1;
  }
}
