#ifndef TAMREL_AGENT_LIFECYCLE_CONSENTFLOW_H_
#define TAMREL_AGENT_LIFECYCLE_CONSENTFLOW_H_

#include <atomic>
#include <functional>
#include <set>
#include <string>
#include <vector>

#include "agent/base/agentconfig.h"
#include "agent/server/agenttransport.h"
#include "agent/server/documentreader.h"
#include "agent/server/serverrequest.h"
#include "ddi/hawkbit_query.h"

// The device's side of user consent: an action the server holds until the
// device agrees is linked as confirmationBase instead of deploymentBase. The
// flow reads that document with the bounds and checks of a deploymentBase,
// asks `consent` (auto, or the consent command), posts the confirmation
// feedback, and keeps the server's auto-confirm state as `auto-confirm` says.
// Runs on the polling thread.
class ConsentFlow {
 public:
  // Feedback codes: who decided.
  static constexpr int kConfirmedByCommand = 0;
  static constexpr int kDeniedByCommand = 1;
  static constexpr int kConfirmedAuto = 2;
  static constexpr int kRefusedDocument = 3;
  static constexpr int kConfirmedThroughSocket = 4;
  static constexpr int kDeniedThroughSocket = 5;
  // The consent command's exit status that asks to be asked again.
  static constexpr int kAskAgain = 75;

  ConsentFlow(AgentConfig const& config, AgentTransport& transport, ServerRequest const& server,
              DocumentReader const& reader, std::atomic<bool> const& stop);

  // The controller's base resource, once connected.
  void start(std::string const& baseUrl) { baseUrl_ = baseUrl; }

  enum class Outcome {
    kNone,        // nothing linked, nothing changed
    kWaiting,     // asked, denied or to be asked again: the action waits
    kConfirmed,   // confirmed (or auto-confirm switched on): poll again now
    kRefused,     // the document was refused; the denial says why
    kUnreadable,  // the document could not be read; nothing sent
  };
  // consent = socket: what a local UI answered for an action (`args` as
  // consent-command gets them: id, then each chunk's name and version).
  struct Verdict {
    enum class Kind { kWait, kConfirm, kDeny } kind = Kind::kWait;
    std::string reason;  // a denial's, may be ""
  };
  using Asker = std::function<Verdict(std::vector<std::string> const& args)>;
  // Set once before polling: `ask` gives the UI's verdict, `sent` is told
  // the action's id once the server took the answer.
  void askThrough(Asker ask, std::function<void(std::string const&)> sent) {
    asker_ = std::move(ask);
    sent_ = std::move(sent);
  }

  // Answers what the base poll answer `base` (its body) links.
  Outcome answer(std::string const& base);

  // The href of `_links.<name>` in a document, "" when absent or unreadable.
  static std::string link(std::string const& document, char const* name);

 private:
  struct Overview {
    bool active = false;
    std::string action, activate, deactivate;  // links
  };
  struct Decision {
    bool send = false, confirmed = false;
    int code = 0;
    std::string detail;
  };
  // Switches the server's auto-confirm to what auto-confirm asks for, once
  // per state the server shows; true when it was switched on.
  bool keepAutoConfirm(Overview const& overview);
  Outcome answerAction(std::string const& link);
  // Reads the waiting action: its chunks' names and versions, or problems.
  std::string readAction(std::string const& body, std::string const& id,
                         std::vector<std::string>& args, std::vector<std::string>& problems,
                         hawkbit_query_t::deployment_t& deployment);
  // Runs consent-command with `args` and `deployment`'s chunks in its environment.
  Decision ask(std::string const& id, std::vector<std::string> const& args,
               hawkbit_query_t::deployment_t const& deployment);
  // POSTs a JSON body; "" when the server took it, else why not.
  std::string post(std::string const& url, std::string const& body);

  AgentConfig const& config_;
  AgentTransport& transport_;
  ServerRequest const& server_;
  DocumentReader const& reader_;
  std::atomic<bool> const& stop_;
  std::string baseUrl_;
  bool kept_ = false;              // auto-confirm seen (or made) as configured, since the start
  std::set<std::string> refused_;  // actions denied for their document, once each
  Asker asker_;
  std::function<void(std::string const&)> sent_;
};

#endif  // TAMREL_AGENT_LIFECYCLE_CONSENTFLOW_H_
