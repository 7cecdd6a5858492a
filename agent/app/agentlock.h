#ifndef TAMREL_AGENT_APP_AGENTLOCK_H_
#define TAMREL_AGENT_APP_AGENTLOCK_H_

#include <string>

// One agent a state directory: an exclusive lock on the directory itself
// (no file to leave behind), held for the agent's life and never handed to
// a command.
class AgentLock {
 public:
  AgentLock() = default;
  ~AgentLock();
  AgentLock(AgentLock const&) = delete;
  AgentLock& operator=(AgentLock const&) = delete;

  // "" when taken, else why not.
  std::string take(std::string const& dir);

 private:
  int fd_ = -1;
};

#endif  // TAMREL_AGENT_APP_AGENTLOCK_H_
