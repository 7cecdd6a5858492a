#ifndef TAMREL_AGENT_LIFECYCLE_INSTALLEDBASE_H_
#define TAMREL_AGENT_LIFECYCLE_INSTALLEDBASE_H_

#include <string>

#include "agent/server/agenttransport.h"
#include "agent/server/documentreader.h"
#include "agent/server/serverrequest.h"

// What the server believes the device runs (the installedBase resource), and
// a version installed without it (by hand, from a USB stick) reported to it.
class InstalledBase {
 public:
  InstalledBase(AgentTransport& transport, ServerRequest const& server,
                DocumentReader const& reader);

  // Logs the action and chunks the base poll answer `base` links as
  // installed, whenever that link changes (so at start too).
  void show(std::string const& base);
  // What show() read last, as a JSON object {"action", "chunks":[{"name",
  // "version"}]}; "" before anything was read.
  std::string const& json() const { return json_; }
  // PUTs {"name", "version"} to `baseUrl`/installedBase; "" when the server
  // accepted it, else the reason.
  std::string report(std::string const& baseUrl, std::string const& name,
                     std::string const& version) const;

 private:
  AgentTransport& transport_;
  ServerRequest const& server_;
  DocumentReader const& reader_;
  std::string shown_;  // the link last shown
  std::string json_;
};

#endif  // TAMREL_AGENT_LIFECYCLE_INSTALLEDBASE_H_
