#ifndef TAMREL_AGENT_SERVER_TRANSPORTANSWER_H_
#define TAMREL_AGENT_SERVER_TRANSPORTANSWER_H_

#include <cstdint>
#include <string>

// What one exchange of AgentTransport came to, and how it is worded for the
// log.
struct TransportAnswer {
  std::string url;           // the last hop's
  int code = 0;              // libcurl's result
  long status = 0;           // HTTP status, 0 without an answer
  long proxyStatus = 0;      // the proxy's answer to CONNECT, 0 without one
  long retryAfterS = -1;     // Retry-After in seconds, -1 when not given
  std::string error;         // libcurl's error text when code != 0
  std::string reply;         // a POST's or PUT's answer, its first AgentTransport::kMaxReply bytes
  std::uint64_t serial = 0;  // AgentTransport::exchanges() once it ended
  long connections = 0;      // new connections it had to open
  bool sent() const { return code == 0 && status >= 200 && status < 300; }
  // "" when sent, else what went wrong, worded for the log: the HTTP
  // status, a proxy that refused, or what a TLS handshake failed on (the
  // protocol version, either side's certificate), with libcurl's text.
  std::string problem() const;

  // A Retry-After header's value in seconds (given as seconds or as an HTTP
  // date); -1 when it is neither.
  static long retryAfterSeconds(std::string value);
};

#endif  // TAMREL_AGENT_SERVER_TRANSPORTANSWER_H_
