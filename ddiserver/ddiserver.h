// In-process DDI server for tests, the demo agent and the benchmarks: serves
// controller documents and artifacts, records every request and injects
// faults per path.
#pragma once

#include <atomic>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "ddiserver/ddidocument.h"
#include "ddiserver/resourceanswer.h"

namespace httplib {
class Server;
struct Request;
struct Response;
}  // namespace httplib

namespace tamrel::ddiserver {

// One request as the server saw it.
struct RecordedRequest {
  std::string method;  // "GET", "POST", "PUT", ...
  std::string path;    // as sent (not percent-decoded), without the query
  std::string query;   // raw query without '?', "" if none
  // httplib keeps headers in a case-insensitive sorted map, so these come in
  // name order; repeated names keep their arrival order. For the exact lines
  // in arrival order use RawCaptureServer.
  std::vector<std::pair<std::string, std::string>> headers;
  std::string body;

  // First value of the header, name compared case-insensitively; "" if absent.
  std::string header(std::string const& name) const;
};

// Misbehaviour injected for one path; it applies to every method on that
// path (to GET only for an artifact, whose HEAD is always answered) until
// cleared or, with `times`, spent. Checked in this order: redirectTo, status,
// emptyBody, then the body shaping (ignoreRange, chunkBytes/delayMs,
// dropAfterBytes).
struct Fault {
  int times = -1;          // answers it applies to, -1: all
  int status = 0;          // answer with this status instead (0 = no override)
  bool withBody = true;    // with status: a small JSON error body, or none
  bool emptyBody = false;  // answer 200 with an empty body
  // Close the connection after this many body bytes; Content-Length still
  // announces the full length.
  long long dropAfterBytes = -1;
  int chunkBytes = 0;        // send the body in pieces of this size...
  int delayMs = 0;           // ...sleeping this long before each piece
  std::string redirectTo;    // answer 302 with this Location (path or full URL)
  bool ignoreRange = false;  // answer a Range request with 200 and the whole body
  int answerDelayMs = 0;     // wait this long before answering at all (any method)
  // After the body this many more bytes, -1: endlessly; the answer then goes
  // without Content-Length (chunked).
  long long trailingBytes = 0;
  // Answer 200 with this body instead of the resource (a hostile document).
  std::shared_ptr<std::string const> body;
};

class DdiServer {
 public:
  struct Options {
    bool https = false;
    // PEM files for https; when both are empty a throwaway CA and a
    // certificate for 127.0.0.1 and localhost signed by it are generated
    // into a temporary directory (see certFile() and caFile()).
    std::string certFile, keyFile;
    // With https: require a client certificate signed by a CA of this PEM
    // file; a connection without one fails in the handshake.
    std::string clientCaFile;
    // With https and a generated certificate: require client certificates
    // signed by a throwaway client CA, and write to this directory ca.pem
    // (the CA of the server's certificate), client.pem and client.key (a
    // pair the server accepts).
    std::string clientCertOut;
    // Bind the port at once but accept connections only from start() on;
    // until then they wait in the backlog.
    bool deferStart = false;
    // How long an idle keep-alive connection is held open.
    int keepAliveSeconds = 5;
    // A fixed port on 127.0.0.1 (0: an ephemeral one).
    int port = 0;
    // Called for every request as it is recorded (on a server thread).
    std::function<void(RecordedRequest const&)> onRequest;
  };

  // An answer made per request by a handler (see setHandler).
  struct Answer {
    int status = 200;
    std::string body;  // "" for none
    std::string contentType = "application/hal+json";
  };
  using Handler = std::function<bool(RecordedRequest const&, Answer&)>;

  DdiServer();
  explicit DdiServer(Options const& options);
  ~DdiServer();
  DdiServer(DdiServer const&) = delete;
  DdiServer& operator=(DdiServer const&) = delete;

  int port() const;
  std::string baseUrl() const;   // "http://127.0.0.1:<port>" or "https://..."
  std::string certFile() const;  // the certificate in use for https, "" otherwise
  std::string caFile() const;    // the generated CA's certificate, "" when none
  // Starts answering; only needed with Options::deferStart.
  void start();

  // Tenant "DEFAULT" and controller "dev01" unless changed here.
  void setTarget(std::string tenant, std::string controller);
  std::string controllerPath() const;  // "/DEFAULT/controller/v1/dev01"

  // A GET resource: path -> body, answered with the given status.
  void serve(std::string const& path, std::string body, int status = 200,
             std::string contentType = "application/hal+json");
  void setControllerBase(std::string json);
  void setDeploymentBase(std::string const& actionId, std::string json);
  void setCancelAction(std::string const& actionId, std::string json);
  // A binary artifact with single-range support. Returns its full URL.
  std::string addArtifact(std::string const& path, std::string content);
  // An artifact read from a file at each request (never held in memory),
  // so sparse files of any size can be served. Returns its full URL.
  std::string addFileArtifact(std::string const& path, std::string const& file);

  // Consulted for every request after the faults and before the served
  // resources; when it returns true its answer is sent (shaped by the
  // path's fault for GET). Called outside the server's lock.
  void setHandler(Handler handler);

  // setFault replaces the path's faults; addFault queues one that applies
  // once those before it are spent.
  // Extra header lines on every answer of the artifact at `path`.
  void setArtifactHeaders(std::string const& path, std::map<std::string, std::string> headers);

  void setFault(std::string const& path, Fault const& fault);
  void addFault(std::string const& path, Fault const& fault);
  void clearFault(std::string const& path);

  std::vector<RecordedRequest> requests() const;  // in arrival order
  std::vector<RecordedRequest> requests(std::string const& method) const;
  void clearRequests();

  // When non-empty, a request whose Authorization is not
  // "TargetToken <requireToken>" gets 401 with an empty body. Assign it while
  // no request is in flight, or use setRequireToken() which locks.
  std::string requireToken;
  void setRequireToken(std::string token);
  // When non-empty, "GatewayToken <token>" is accepted too (with no
  // requireToken: only it), for any controller of the tenant.
  void setGatewayToken(std::string token);

 private:
  using Resource = ResourceAnswer::Resource;

  void handle(httplib::Request const& req, httplib::Response& res);
  void endIdleConnections() const;

  mutable std::mutex mutex_;
  std::string tenant_ = "DEFAULT";
  std::string controller_ = "dev01";
  std::map<std::string, Resource> resources_;
  std::map<std::string, std::map<std::string, std::string>> artifactHeaders_;
  std::map<std::string, std::vector<Fault>> faults_;  // applies from the front
  std::vector<RecordedRequest> requests_;
  Handler handler_;

  bool https_ = false;
  std::string certFile_, caFile_;
  std::string gatewayToken_;
  std::string tempDir_;  // holds a generated certificate, removed on exit
  int port_ = -1;
  std::atomic<bool> stopping_{false};
  ResourceAnswer const answers_{stopping_};
  std::atomic<bool> listenReturned_{false};
  std::function<void(RecordedRequest const&)> onRequest_;
  std::unique_ptr<httplib::Server> server_;
  std::thread thread_;
};

}  // namespace tamrel::ddiserver
