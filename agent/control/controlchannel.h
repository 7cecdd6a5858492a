#ifndef TAMREL_AGENT_CONTROL_CONTROLCHANNEL_H_
#define TAMREL_AGENT_CONTROL_CONTROLCHANNEL_H_

#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <mutex>
#include <string>
#include <vector>

// A request a local UI makes of the update loop.
struct ControlRequest {
  enum class Kind { kPoll, kHold, kRelease, kConsent, kPermit };
  Kind kind = Kind::kPoll;
  std::string action;         // kConsent, kPermit: the action's id
  bool confirm = false;       // kConsent: confirm (true) or deny
  std::string reason;         // kConsent: a denial's reason
  std::string permit;         // kPermit: "download" or "install"
  std::int64_t interval = 0;  // kHold, kRelease, kPoll: a new poll interval (s), 0: unchanged
  std::string peer;           // who asked ("pid 12 uid 0 gid 0"), for the log
};

// What the update loop and the control socket share, on different threads:
// the agent's status as a UI sees it, the events sent to watchers, and the
// requests a UI makes. The loop writes the status and publishes events; the
// socket reads them and queues requests, which the loop takes where it can
// act on them. Every member is thread-safe.
class ControlChannel {
 public:
  // The newest `kept` events are kept for watchers that fall behind.
  explicit ControlChannel(std::size_t kept = 256);

  // ---- the loop's side
  // Sets member `key` of the status object to `json`, a JSON value's text
  // ("\"downloading\"", "42", "{...}"); "" removes it. "state" is the
  // action's named state and goes into every event too.
  void set(std::string const& key, std::string const& json);
  // Sends event `name` to every watcher, with the time and the state and
  // `members` (JSON members without braces: "\"bytes\":1,\"total\":2").
  void publish(std::string const& name, std::string const& members = "");
  // What the action waits for from a UI: "consent", "download" or "install"
  // for action `action`; "" for nothing. Listed in the status ("waiting");
  // consent and permit requests for anything else are refused at once.
  void await(std::string const& action, std::string const& what);
  // The requests queued since the last call, oldest first.
  std::deque<ControlRequest> take();
  // Called (on the socket's thread) after each queued request, to end the
  // loop's wait; set once before the socket starts.
  void onRequest(std::function<void()> wake);

  // ---- the socket's side
  // The status object as one JSON line (no newline), with "protocol".
  std::string status() const;
  // Queues `request`; "" when queued, else why it was refused.
  std::string request(ControlRequest request);
  // The events from sequence number `from` on, at most `max` of them, into
  // `out` (one JSON text each); returns the sequence number after the last
  // one given. Events older than what is kept are skipped and counted in
  // `dropped`.
  std::uint64_t events(std::uint64_t from, std::size_t max, std::vector<std::string>& out,
                       std::uint64_t& dropped) const;
  // The sequence number the next event gets.
  std::uint64_t next() const;
  // Called (on the loop's thread) after each published event, to wake the
  // socket's poll; set once before the loop starts.
  void onEvent(std::function<void()> wake);

  static constexpr int kProtocol = 1;

 private:
  mutable std::mutex mutex_;
  std::map<std::string, std::string> status_;
  std::string waitingAction_, waitingFor_;
  std::deque<std::string> events_;  // the newest, ending at next_
  std::size_t kept_;
  std::uint64_t next_ = 0;
  std::deque<ControlRequest> requests_;
  std::function<void()> wakeLoop_, wakeSocket_;
};

#endif  // TAMREL_AGENT_CONTROL_CONTROLCHANNEL_H_
