#include "ctl/controlconnection.h"

#include <grp.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

ControlConnection::~ControlConnection() {
  if (fd_ >= 0) close(fd_);
}

std::string ControlConnection::open(std::string const& path) {
  sockaddr_un where{};
  where.sun_family = AF_UNIX;
  if (path.empty() || path.size() >= sizeof where.sun_path)
    return "not a usable socket path: " + path;
  std::memcpy(where.sun_path, path.c_str(), path.size() + 1);
  fd_ = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (fd_ < 0) return std::string("socket: ") + std::strerror(errno);
  if (connect(fd_, reinterpret_cast<sockaddr*>(&where), sizeof where) == 0) return "";
  int const why = errno;
  if (why == ENOENT || why == ECONNREFUSED)
    return "no agent at " + path + " (not running?): " + std::strerror(why);
  if (why == EACCES || why == EPERM) {
    std::string group;
    struct stat info {};
    if (stat(path.c_str(), &info) == 0) {
      struct group const* entry = getgrgid(info.st_gid);
      group = entry != nullptr ? entry->gr_name : std::to_string(info.st_gid);
    }
    return "permission denied: " + path +
           (group.empty() ? std::string(" (or its directory)") : " (in group " + group + "?)");
  }
  return "cannot reach the agent at " + path + ": " + std::strerror(why);
}

bool ControlConnection::send(std::string const& line) {
  std::string const data = line + "\n";
  for (std::size_t done = 0; done < data.size();) {
    ssize_t const sent = ::send(fd_, data.data() + done, data.size() - done, MSG_NOSIGNAL);
    if (sent < 0 && errno == EINTR) continue;
    if (sent <= 0) return false;
    done += static_cast<std::size_t>(sent);
  }
  return true;
}

bool ControlConnection::readLine(std::string& line, int timeoutMs) {
  for (;;) {
    std::size_t const end = buffer_.find('\n');
    if (end != std::string::npos) {
      line = buffer_.substr(0, end);
      buffer_.erase(0, end + 1);
      return true;
    }
    pollfd ready{fd_, POLLIN, 0};
    int const polled = poll(&ready, 1, timeoutMs);
    if (polled < 0 && errno == EINTR) continue;
    if (polled <= 0) return false;
    char chunk[4096];
    ssize_t const got = recv(fd_, chunk, sizeof chunk, 0);
    if (got < 0 && errno == EINTR) continue;
    if (got <= 0) return false;
    buffer_.append(chunk, static_cast<std::size_t>(got));
  }
}
