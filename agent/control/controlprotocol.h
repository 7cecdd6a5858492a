#ifndef TAMREL_AGENT_CONTROL_CONTROLPROTOCOL_H_
#define TAMREL_AGENT_CONTROL_CONTROLPROTOCOL_H_

#include <cstddef>
#include <cstdint>
#include <string>

#include "agent/control/controlchannel.h"

// The control socket's lines: a request is one JSON object a line
// ({"request":"status"}), each answered by one line, {"ok":true,...} or
// {"ok":false,"error":"..."}. Parsing never throws: a line that is no
// request gets an error to answer with.
class ControlProtocol {
 public:
  // The longest request line, its newline excluded.
  static constexpr std::size_t kMaxLine = 4096;

  enum class Verb { kInvalid, kStatus, kWatch, kChange };
  struct Parsed {
    Verb verb = Verb::kInvalid;
    ControlRequest request;  // kChange: what goes to the update loop
    std::string error;       // kInvalid: why
  };
  static Parsed parse(std::string const& line);

  // The answer lines, each without its newline. `members` are JSON members
  // without braces ("\"status\":{...}").
  static std::string ok(std::string const& members = "");
  static std::string error(std::string const& message);
  // Tells a watcher that `count` events were lost before the next one.
  static std::string dropped(std::uint64_t count);
  // A request's name as the protocol writes it ("hold").
  static char const* name(ControlRequest::Kind kind);
};

#endif  // TAMREL_AGENT_CONTROL_CONTROLPROTOCOL_H_
