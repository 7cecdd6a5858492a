#ifndef TAMREL_AGENT_COMMANDS_STDERRTAIL_H_
#define TAMREL_AGENT_COMMANDS_STDERRTAIL_H_

#include <cstddef>
#include <deque>
#include <string>
#include <vector>

// The last kCommandTailLines lines of a command's standard error, each cut
// to kCommandLineBytes, control bytes escaped: a chatty command cannot grow
// the agent's memory nor forge lines in the feedback. Not thread-safe.
class StderrTail {
 public:
  void add(char const* data, std::size_t size);
  std::vector<std::string> lines() const;

 private:
  std::deque<std::string> lines_{1};  // the last one still growing
};

#endif  // TAMREL_AGENT_COMMANDS_STDERRTAIL_H_
