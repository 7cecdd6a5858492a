#ifndef TAMREL_AGENT_SERVER_AGENTTRANSPORT_H_
#define TAMREL_AGENT_SERVER_AGENTTRANSPORT_H_

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include <curl/curl.h>

#include "agent/base/agentconfig.h"
#include "agent/server/linkconcealer.h"
#include "agent/server/transportanswer.h"
#include "transport/curlmanager.h"

// The agent's HTTP client, handed to the library in place of its own. It
// keeps the library's transport contract (resume from the sink's size,
// `result` and `httpCode`, a cancel forgotten before a transfer starts) and
// adds what a device in a fleet needs:
//  - one easy handle for every request, so that connections and TLS sessions
//    are reused, with a large receive buffer and TCP keep-alive;
//  - credentials (target or gateway token, client certificate) presented only
//    to the server's own origin and to trusted hosts, redirects followed hop
//    by hop so that none carries them elsewhere;
//  - TLS 1.2 at least, whatever the system's OpenSSL would accept;
//  - a POST or PUT never follows a redirect to another origin;
//  - deadlines on every request, and a cancel that cuts a POST or PUT too;
//  - the HTTP status, Retry-After and libcurl's error text of the last
//    exchange, and of the last answer to the controller's base resource.
// Transfers run one at a time; cancelTransfer() may be called from any thread.
class AgentTransport : public CurlManager {
 public:
  enum class Token { kNone, kTarget, kGateway };
  struct Settings {
    std::string address;       // the server; its origin gets the credentials
    std::string trustedHosts;  // "host[:port], ..." that get them too
    Token token = Token::kTarget;
    std::string gatewayToken;  // with Token::kGateway; a target token comes from the library
    bool downloadAuthentication = true;  // credentials with artifact downloads
    std::string clientCert, clientKey, keyPassword, sslEngine;
    std::string caFile, caPath;  // instead of the system store when set
    std::string proxy, noProxy;  // proxy "": libcurl's environment variables
    long connectTimeoutS = 30;
    long documentTimeoutS = 60;  // total of a GET into memory (poll documents)
    long sendTimeoutS = 60;      // total of a POST or PUT
    long lowSpeedBytes = 0;      // below this many bytes/s ...
    long lowSpeedS = 0;          // ... for this long, a request fails; 0: off
    long receiveBufferBytes = 1 << 20;
    bool reuseConnections = true;  // off: a new connection and TLS session each time
  };
  using Answer = TransportAnswer;
  using BaseObserver = std::function<void(long status, std::string const& body)>;
  static constexpr std::size_t kMaxObservedBody = 1 << 20;
  static constexpr std::size_t kMaxReply = 4096;

  // The settings a configuration asks for.
  static Settings settingsFor(AgentConfig const& config);

  explicit AgentTransport(Settings settings);
  ~AgentTransport();

  void setTargetToken(std::string const& token) override;
  bool download(std::string const& url, std::shared_ptr<curlbuffer> buffer) override;
  bool post(std::string const& url, std::shared_ptr<curlbuffer> buffer) override;
  bool put(std::string const& url, std::shared_ptr<curlbuffer> buffer) override;
  // An artifact's GET into a sink that passes its bytes on as they come (an
  // installer's pipe): download() under an artifact's deadlines, and only
  // bodies of 200 (206 when resuming) reach the sink, so an error page or a
  // whole body sent in answer to a range is never passed on.
  bool stream(std::string const& url, std::shared_ptr<curlbuffer> buffer);

  // The controller's base resource, whose answers lastBaseAnswer() keeps.
  void setBaseUrl(std::string const& url);
  // Calls `observer` on the polling thread after every GET of the base
  // resource with the HTTP status (0 when the transfer failed) and the body
  // (empty when longer than kMaxObservedBody). An empty one removes it.
  void observeBase(BaseObserver observer);

  Answer lastAnswer() const;                                     // of the last exchange
  std::uint64_t exchanges() const { return exchanges_.load(); }  // counted as they end
  Answer lastBaseAnswer() const;  // of the last GET of the base resource
  Settings const& settings() const { return settings_; }

  // True when `url` may be given the credentials (the server's origin or a
  // trusted host, never plain http while the server is https; for an
  // artifact download only with download-authentication).
  bool credentialsFor(std::string const& url, bool artifact) const;

  // Stand-ins for the links handed to the library, which logs them: see
  // LinkConcealer. The transport fetches the link a stand-in names.
  std::string concealed(std::string const& url) { return links_.concealed(url); }
  std::string revealed(std::string const& link) const { return links_.revealed(link); }
  void forgetConcealed() { links_.forget(); }

 private:
  enum class Method { kGet, kPost, kPut };
  bool exchange(Method method, std::string const& url, std::shared_ptr<curlbuffer> const& buffer);
  void configure(Method method, std::string const& url, curlbuffer& buffer, bool artifact,
                 std::string const& body, curl_slist* headers);
  static std::size_t writeBody(char* data, std::size_t size, std::size_t count, void* self);
  static std::size_t readBody(char* dest, std::size_t size, std::size_t count, void* self);
  static std::size_t readHeader(char* data, std::size_t size, std::size_t count, void* self);
  // Has the kernel acknowledge what came on the kept connections at once.
  void acknowledgeNow();
  // Keep sockets_ up to date as libcurl opens and closes connections.
  static int openedSocket(void* self, curl_socket_t socket, curlsocktype purpose);
  static int closeSocket(void* self, curl_socket_t socket);
  static int progress(void* self, curl_off_t, curl_off_t, curl_off_t, curl_off_t);

  Settings const settings_;
  CURL* easy_ = nullptr;  // kept: its connection and TLS session caches are the point
  char errors_[CURL_ERROR_SIZE] = {};
  curlbuffer* current_ = nullptr;        // a GET's buffer, for writeBody
  std::string reply_;                    // or a POST's or PUT's answer
  std::string const* upload_ = nullptr;  // a PUT's body and how much of it went
  std::size_t uploaded_ = 0;
  long retryAfter_ = -1;
  bool cutInWrite_ = false;             // the cancel ended the transfer in writeBody
  bool streaming_ = false;              // stream() runs: bodies reach the sink only as said there
  bool resuming_ = false;               // ... and it asked for a range
  std::vector<curl_socket_t> sockets_;  // libcurl's connections, open or kept
  mutable std::mutex answerLock_;
  Answer last_, lastBase_;
  std::atomic<std::uint64_t> exchanges_{0};
  std::string baseUrl_;
  BaseObserver observer_;
  LinkConcealer links_;
};

#endif  // TAMREL_AGENT_SERVER_AGENTTRANSPORT_H_
