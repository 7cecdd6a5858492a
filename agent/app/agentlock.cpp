#include "agent/app/agentlock.h"

#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

AgentLock::~AgentLock() {
  if (fd_ >= 0) close(fd_);
}

std::string AgentLock::take(std::string const& dir) {
  fd_ = open(dir.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (fd_ < 0) return "cannot open " + dir + ": " + std::strerror(errno);
  while (flock(fd_, LOCK_EX | LOCK_NB) != 0) {
    if (errno == EINTR) continue;
    if (errno == EWOULDBLOCK)
      return "another tamrel-agent runs with " + dir + "; refusing to start a second one";
    return "cannot lock " + dir + ": " + std::strerror(errno);
  }
  return std::string();
}
