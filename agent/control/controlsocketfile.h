#ifndef TAMREL_AGENT_CONTROL_CONTROLSOCKETFILE_H_
#define TAMREL_AGENT_CONTROL_CONTROLSOCKETFILE_H_

#include <sys/types.h>

#include <string>

// The control socket's listening end and its file, created safely: an
// existing socket nobody answers (left by a crash) is replaced; one that
// answers belongs to another agent; anything else at the path (a file, a
// symbolic link, a directory) is refused, never followed nor removed. The
// file is mode 0660, of group `group`, and removed when this closes, if
// it is still the one this created.
class ControlSocketFile {
 public:
  ControlSocketFile() = default;
  ~ControlSocketFile();
  ControlSocketFile(ControlSocketFile const&) = delete;
  ControlSocketFile& operator=(ControlSocketFile const&) = delete;

  // Listens at `path`; "" when it does, else why not (a configuration
  // error for the agent).
  std::string open(std::string const& path, gid_t group);
  void close();
  int fd() const { return fd_; }

  // A group by name or number; false when there is none such.
  static bool group(std::string const& nameOrNumber, gid_t& gid);

 private:
  int fd_ = -1;
  std::string path_;
  dev_t device_ = 0;
  ino_t inode_ = 0;
};

#endif  // TAMREL_AGENT_CONTROL_CONTROLSOCKETFILE_H_
