#include "agent/control/controlsocketfile.h"

#include <grp.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <vector>

namespace {

std::string failed(std::string const& what, std::string const& path) {
  return "control-socket " + path + ": " + what + ": " + std::strerror(errno);
}

// A socket's address; false when the path does not fit in one.
bool address(std::string const& path, sockaddr_un& where) {
  where = sockaddr_un{};
  where.sun_family = AF_UNIX;
  if (path.empty() || path.size() >= sizeof where.sun_path) return false;
  std::memcpy(where.sun_path, path.c_str(), path.size() + 1);
  return true;
}

}  // namespace

ControlSocketFile::~ControlSocketFile() { close(); }

bool ControlSocketFile::group(std::string const& nameOrNumber, gid_t& gid) {
  if (nameOrNumber.empty()) return false;
  std::vector<char> buffer(16384);
  struct group entry {};
  struct group* found = nullptr;
  if (getgrnam_r(nameOrNumber.c_str(), &entry, buffer.data(), buffer.size(), &found) == 0 &&
      found != nullptr) {
    gid = found->gr_gid;
    return true;
  }
  if (nameOrNumber.size() > 9 || nameOrNumber.find_first_not_of("0123456789") != std::string::npos)
    return false;
  gid = static_cast<gid_t>(std::stoul(nameOrNumber));
  return true;
}

std::string ControlSocketFile::open(std::string const& path, gid_t group) {
  close();
  sockaddr_un where{};
  if (!address(path, where))
    return "control-socket " + path + ": not a usable socket path (at most " +
           std::to_string(sizeof where.sun_path - 1) + " bytes)";
  // Its directory (without systemd's RuntimeDirectory=) is made if missing,
  // its last component only.
  std::size_t const slash = path.rfind('/');
  if (slash != std::string::npos && slash > 0 && mkdir(path.substr(0, slash).c_str(), 0755) != 0 &&
      errno != EEXIST)
    return failed("creating its directory", path);
  struct stat info {};
  if (lstat(path.c_str(), &info) == 0) {
    if (!S_ISSOCK(info.st_mode))
      return "control-socket " + path + ": something else than a socket is there; not touched";
    int const probe = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (probe < 0) return failed("socket", path);
    int const answered = connect(probe, reinterpret_cast<sockaddr*>(&where), sizeof where);
    int const why = errno;
    ::close(probe);
    if (answered == 0) return "control-socket " + path + ": another agent answers there";
    if (why != ECONNREFUSED) {
      errno = why;
      return failed("cannot tell whether another agent answers", path);
    }
    // Nobody listens: left by an agent that crashed.
    if (unlink(path.c_str()) != 0 && errno != ENOENT)
      return failed("removing the stale socket", path);
  } else if (errno != ENOENT) {
    return failed("lstat", path);
  }
  int const fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
  if (fd < 0) return failed("socket", path);
  // bind() creates the file and never follows a link put there meanwhile
  // (it fails instead); the file is closed to others until its mode is set.
  mode_t const mask = umask(0177);
  int const bound = bind(fd, reinterpret_cast<sockaddr*>(&where), sizeof where);
  int const why = errno;
  umask(mask);
  if (bound != 0) {
    ::close(fd);
    errno = why;
    return failed("bind", path);
  }
  if (lstat(path.c_str(), &info) != 0 || !S_ISSOCK(info.st_mode)) {
    ::close(fd);
    return failed("the socket vanished", path);
  }
  fd_ = fd;
  path_ = path;
  device_ = info.st_dev;
  inode_ = info.st_ino;
  if (info.st_gid != group && lchown(path.c_str(), static_cast<uid_t>(-1), group) != 0) {
    std::string const problem = failed("setting its group " + std::to_string(group), path);
    close();
    return problem;
  }
  if (chmod(path.c_str(), 0660) != 0 || listen(fd, 16) != 0) {
    std::string const problem = failed("chmod/listen", path);
    close();
    return problem;
  }
  return "";
}

void ControlSocketFile::close() {
  if (fd_ < 0) return;
  struct stat info {};
  // Removed only if it is still ours: another agent may have replaced it.
  if (lstat(path_.c_str(), &info) == 0 && info.st_dev == device_ && info.st_ino == inode_)
    unlink(path_.c_str());
  ::close(fd_);
  fd_ = -1;
}
