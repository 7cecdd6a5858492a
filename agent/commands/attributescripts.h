#ifndef TAMREL_AGENT_COMMANDS_ATTRIBUTESCRIPTS_H_
#define TAMREL_AGENT_COMMANDS_ATTRIBUTESCRIPTS_H_

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "properties/lookup.h"

// The attributes the device reports as configuration data: fixed ones (the
// agent's version, the configured attribute.NAME keys) and what the
// executable files of a directory print. Each file runs in name order
// (others are skipped), under a deadline, without input, its output bounded;
// it prints `name=value` lines. A file that fails (exits non-zero, is killed
// or ended at its deadline), prints too much or a bad line is logged and
// all its lines are left out. A later file's name replaces an earlier one's;
// a fixed name is never replaced. Remembers what the server last took, to
// tell whether a value changed since.
class AttributeScripts {
 public:
  struct Settings {
    std::string dir;  // "": no scripts
    std::int64_t deadlineMs = 10000;
    std::vector<tamrel::value_pair_t> fixed;  // sent first, as they are
  };
  AttributeScripts(Settings settings, std::atomic<bool> const* stop);

  // Runs the scripts: the fixed attributes, then the scripts' by name.
  std::vector<tamrel::value_pair_t> const& gather();
  std::vector<tamrel::value_pair_t> const& current() const { return current_; }
  // True when a name of current() has another value than the server took
  // last, or was never taken.
  bool changed() const;
  // The server took current() (merged into what it holds).
  void accepted();

 private:
  // Runs one script into `into`; false (logged) when its lines are left out.
  bool run(std::string const& name, std::map<std::string, std::string>& into);
  // Logs a script's problem: a warning when it differs from the last one
  // seen of that script, so a broken script does not fill the log at every
  // poll.
  void problem(std::string const& name, std::string const& text);

  Settings const settings_;
  std::atomic<bool> const* stop_;
  std::vector<tamrel::value_pair_t> current_;
  std::map<std::string, std::string> accepted_;
  std::map<std::string, std::string> problems_;  // script -> its last problem
};

inline constexpr std::size_t kAttributeOutputBytes = 65536;  // per script

#endif  // TAMREL_AGENT_COMMANDS_ATTRIBUTESCRIPTS_H_
