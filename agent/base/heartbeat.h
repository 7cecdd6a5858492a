#ifndef TAMREL_AGENT_BASE_HEARTBEAT_H_
#define TAMREL_AGENT_BASE_HEARTBEAT_H_

#include <cstdint>

// The update loop's sign of life, one for the process: advanced by the loop
// itself, by every supervised transfer while it keeps within its limits and
// by the waits for an install or another command. A service manager's
// watchdog is fed only while it is recent, so a loop that is stuck for good
// gets the agent restarted, a long download or install does not.
class Heartbeat {
 public:
  static void beat();
  // Milliseconds since the last beat (since the start before the first).
  static std::int64_t ageMs();
};

#endif  // TAMREL_AGENT_BASE_HEARTBEAT_H_
