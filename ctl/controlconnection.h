#ifndef TAMREL_CTL_CONTROLCONNECTION_H_
#define TAMREL_CTL_CONTROLCONNECTION_H_

#include <string>

// tamrel-ctl's connection to the agent's control socket: one request line
// out, answer and event lines in.
class ControlConnection {
 public:
  ControlConnection() = default;
  ~ControlConnection();
  ControlConnection(ControlConnection const&) = delete;
  ControlConnection& operator=(ControlConnection const&) = delete;

  // Connects to `path`; "" when connected, else a message naming the path
  // and what went wrong ("no agent at PATH (not running?)").
  std::string open(std::string const& path);
  // Sends `line` and its newline; false when the agent is gone.
  bool send(std::string const& line);
  // The next line (without its newline), waiting at most `timeoutMs`
  // (-1: for ever); false at the end of the stream or past the deadline.
  bool readLine(std::string& line, int timeoutMs);

 private:
  int fd_ = -1;
  std::string buffer_;
};

#endif  // TAMREL_CTL_CONTROLCONNECTION_H_
