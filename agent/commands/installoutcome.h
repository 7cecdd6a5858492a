#ifndef TAMREL_AGENT_COMMANDS_INSTALLOUTCOME_H_
#define TAMREL_AGENT_COMMANDS_INSTALLOUTCOME_H_

#include <string>

#include "agent/commands/command.h"

// How an install command ended, kept in a file by the process that holds
// the install lock, once no process of the install's group is left and
// before it lets go of the lock: an agent that died during the install
// finds it at its next start. `tag` names the install (action and chunk),
// so that an outcome is never taken for another one.
class InstallOutcome {
 public:
  // Writes "TAG\nexit N\n" or "TAG\nsignal N\n" atomically.
  static bool write(std::string const& path, std::string const& tag, CommandResult const& result,
                    std::string& error);
  // True, with `result`'s exitCode/signal set, when `path` holds the outcome
  // of `tag`; false when there is none, it is of another tag, or unreadable.
  static bool read(std::string const& path, std::string const& tag, CommandResult& result);
  static bool remove(std::string const& path, std::string& error);

  // The same write for a process forked from a threaded one (the lock's
  // holder), which must not allocate: prepare() does all that allocates
  // beforehand, writeNow() then makes system calls only.
  struct Prepared {
    std::string path, temporary, directory, tag;
  };
  static Prepared prepare(std::string const& path, std::string const& tag);
  // `waitStatus` as waitpid() gives it.
  static bool writeNow(Prepared const& prepared, int waitStatus);
};

#endif  // TAMREL_AGENT_COMMANDS_INSTALLOUTCOME_H_
