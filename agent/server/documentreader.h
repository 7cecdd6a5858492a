#ifndef TAMREL_AGENT_SERVER_DOCUMENTREADER_H_
#define TAMREL_AGENT_SERVER_DOCUMENTREADER_H_

#include <functional>
#include <string>

#include "agent/base/agentconfig.h"
#include "agent/server/agenttransport.h"

// Reads a document the base poll links (beside the deploymentBase the library
// reads) under the bounds of a poll: links only to the server's origin or a
// trusted host, poll-timeout-s, and max-document-mib for the transfer and the
// parse together.
class DocumentReader {
 public:
  DocumentReader(AgentConfig const& config, std::string address, AgentTransport& transport,
                 std::function<bool()> stopping);

  // GETs `url` and hands a 200 answer's body to `parse`, both under the
  // bounds; `parse` returns "" when it took the document, else what is
  // wrong with it. Returns "" on success, else the reason, worded for the log.
  std::string read(std::string const& url,
                   std::function<std::string(std::string const& body)> const& parse) const;
  // True when `url` points at the server's origin or a trusted host; `host`
  // gets its "host:port".
  bool allowed(std::string const& url, std::string& host) const;

  // `text` from the server as one printable line: control characters as \xNN,
  // cut after 200 bytes.
  static std::string oneLine(std::string const& text);

 private:
  AgentConfig const& config_;
  std::string const address_;
  AgentTransport& transport_;
  std::function<bool()> const stopping_;
};

#endif  // TAMREL_AGENT_SERVER_DOCUMENTREADER_H_
