#include "ddiserver/ddiserver.h"

#include "ddiserver/certificates.h"

#include <dirent.h>
#include <httplib.h>
#include <strings.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <fcntl.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <stdexcept>
#include <system_error>

namespace tamrel::ddiserver {
namespace {

// httplib adds the peer and local addresses to the request headers; they
// were never sent by the client.
bool addedByHttplib(std::string const& name) {
  return name == "REMOTE_ADDR" || name == "REMOTE_PORT" || name == "LOCAL_ADDR" ||
         name == "LOCAL_PORT";
}

}  // namespace

std::string RecordedRequest::header(std::string const& name) const {
  for (auto const& [key, value] : headers) {
    if (strcasecmp(key.c_str(), name.c_str()) == 0) return value;
  }
  return "";
}

DdiServer::DdiServer() : DdiServer(Options{}) {}

DdiServer::DdiServer(Options const& options)
    : https_(options.https), onRequest_(options.onRequest) {
  if (https_) {
    certFile_ = options.certFile;
    std::string keyFile = options.keyFile;
    if (certFile_.empty() && keyFile.empty()) {
      char dir[] = "/tmp/tamrel-ddi-server-XXXXXX";
      if (mkdtemp(dir) == nullptr) throw std::runtime_error("DdiServer: no temp directory");
      tempDir_ = dir;
      caFile_ = tempDir_ + "/ca.pem";
      certFile_ = tempDir_ + "/cert.pem";
      keyFile = tempDir_ + "/key.pem";
      if (!Certificates::writeCaSigned(caFile_, certFile_, keyFile)) {
        throw std::runtime_error("DdiServer: cannot generate a certificate");
      }
    }
    std::string clientCa = options.clientCaFile;
    if (!options.clientCertOut.empty() && !tempDir_.empty()) {
      clientCa = tempDir_ + "/client-ca.pem";
      if (!Certificates::writeClientSet(clientCa, options.clientCertOut, caFile_)) {
        throw std::runtime_error("DdiServer: cannot write client certificates to " +
                                 options.clientCertOut);
      }
    }
    if (!clientCa.empty() && access(clientCa.c_str(), R_OK) != 0) {
      throw std::runtime_error("DdiServer: cannot read " + clientCa);
    }
    server_ = std::make_unique<httplib::SSLServer>(certFile_.c_str(), keyFile.c_str(),
                                                   clientCa.empty() ? nullptr : clientCa.c_str());
  } else {
    server_ = std::make_unique<httplib::Server>();
  }
  if (!server_->is_valid()) throw std::runtime_error("DdiServer: invalid server setup");

  // httplib's default pool has 8 threads and every open keep-alive
  // connection holds one; concurrent clients need more.
  server_->new_task_queue = [] { return new httplib::ThreadPool(32); };
  server_->set_keep_alive_max_count(1000);
  server_->set_keep_alive_timeout(options.keepAliveSeconds);
  auto handler = [this](httplib::Request const& req, httplib::Response& res) { handle(req, res); };
  server_->Get(".*", handler);
  server_->Post(".*", handler);
  server_->Put(".*", handler);
  server_->Patch(".*", handler);
  server_->Delete(".*", handler);

  // SO_REUSEADDR only: httplib's default SO_REUSEPORT lets a second server
  // bind a port in use, and the two then split the requests between them.
  server_->set_socket_options([](socket_t sock) {
    int yes = 1;
    setsockopt(sock, SOL_SOCKET, SO_REUSEADDR, &yes, sizeof yes);
  });
  if (options.port > 0) {
    port_ = server_->bind_to_port("127.0.0.1", options.port) ? options.port : -1;
    if (port_ < 0) {
      throw std::system_error(std::make_error_code(std::errc::address_in_use),
                              "port " + std::to_string(options.port) + " on 127.0.0.1");
    }
  } else {
    port_ = server_->bind_to_any_port("127.0.0.1");
  }
  if (port_ < 0) throw std::runtime_error("DdiServer: cannot bind");
  if (!options.deferStart) start();
}

void DdiServer::start() {
  if (thread_.joinable()) return;
  thread_ = std::thread([this] {
    server_->listen_after_bind();
    listenReturned_ = true;
  });
  while (!server_->is_running()) {
    if (listenReturned_) {
      thread_.join();
      throw std::runtime_error("DdiServer: cannot listen");
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
}

DdiServer::~DdiServer() {
  stopping_ = true;  // ends slow streams early
  endIdleConnections();
  server_->stop();
  if (thread_.joinable()) thread_.join();
  if (!tempDir_.empty()) {
    std::remove(certFile_.c_str());
    std::remove(caFile_.c_str());
    std::remove((tempDir_ + "/key.pem").c_str());
    std::remove((tempDir_ + "/client-ca.pem").c_str());
    rmdir(tempDir_.c_str());
  }
}

int DdiServer::port() const { return port_; }

std::string DdiServer::baseUrl() const {
  return std::string(https_ ? "https" : "http") + "://127.0.0.1:" + std::to_string(port_);
}

std::string DdiServer::certFile() const { return https_ ? certFile_ : ""; }

std::string DdiServer::caFile() const { return caFile_; }

void DdiServer::setTarget(std::string tenant, std::string controller) {
  std::lock_guard<std::mutex> lock(mutex_);
  tenant_ = std::move(tenant);
  controller_ = std::move(controller);
}

std::string DdiServer::controllerPath() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return "/" + tenant_ + "/controller/v1/" + controller_;
}

void DdiServer::serve(std::string const& path, std::string body, int status,
                      std::string contentType) {
  std::lock_guard<std::mutex> lock(mutex_);
  resources_[path] = Resource{std::make_shared<std::string const>(std::move(body)),
                              status,
                              std::move(contentType),
                              false,
                              "",
                              0};
}

void DdiServer::setControllerBase(std::string json) { serve(controllerPath(), std::move(json)); }

void DdiServer::setDeploymentBase(std::string const& actionId, std::string json) {
  serve(controllerPath() + "/deploymentBase/" + actionId, std::move(json));
}

void DdiServer::setCancelAction(std::string const& actionId, std::string json) {
  serve(controllerPath() + "/cancelAction/" + actionId, std::move(json));
}

std::string DdiServer::addArtifact(std::string const& path, std::string content) {
  {
    std::lock_guard<std::mutex> lock(mutex_);
    resources_[path] = Resource{std::make_shared<std::string const>(std::move(content)),
                                200,
                                "application/octet-stream",
                                true,
                                "",
                                0};
  }
  return baseUrl() + path;
}

std::string DdiServer::addFileArtifact(std::string const& path, std::string const& file) {
  struct stat info {};
  if (stat(file.c_str(), &info) != 0) throw std::runtime_error("DdiServer: cannot stat " + file);
  Resource resource{
      std::make_shared<std::string const>(), 200, "application/octet-stream", true, "", 0};
  resource.file = file;
  resource.fileSize = static_cast<std::size_t>(info.st_size);
  {
    std::lock_guard<std::mutex> lock(mutex_);
    resources_[path] = resource;
  }
  return baseUrl() + path;
}

void DdiServer::setHandler(Handler handler) {
  std::lock_guard<std::mutex> lock(mutex_);
  handler_ = std::move(handler);
}

void DdiServer::setArtifactHeaders(std::string const& path,
                                   std::map<std::string, std::string> headers) {
  std::lock_guard<std::mutex> lock(mutex_);
  artifactHeaders_[path] = std::move(headers);
}

void DdiServer::setFault(std::string const& path, Fault const& fault) {
  std::lock_guard<std::mutex> lock(mutex_);
  faults_[path] = {fault};
}

void DdiServer::addFault(std::string const& path, Fault const& fault) {
  std::lock_guard<std::mutex> lock(mutex_);
  faults_[path].push_back(fault);
}

void DdiServer::clearFault(std::string const& path) {
  std::lock_guard<std::mutex> lock(mutex_);
  faults_.erase(path);
}

std::vector<RecordedRequest> DdiServer::requests() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return requests_;
}

std::vector<RecordedRequest> DdiServer::requests(std::string const& method) const {
  std::lock_guard<std::mutex> lock(mutex_);
  std::vector<RecordedRequest> out;
  for (auto const& r : requests_) {
    if (r.method == method) out.push_back(r);
  }
  return out;
}

void DdiServer::clearRequests() {
  std::lock_guard<std::mutex> lock(mutex_);
  requests_.clear();
}

void DdiServer::setGatewayToken(std::string token) {
  std::lock_guard<std::mutex> lock(mutex_);
  gatewayToken_ = std::move(token);
}

void DdiServer::setRequireToken(std::string token) {
  std::lock_guard<std::mutex> lock(mutex_);
  requireToken = std::move(token);
}

void DdiServer::handle(httplib::Request const& req, httplib::Response& res) {
  // Ranges are answered here; left in place, httplib would slice every
  // answer again on its own. The request object is not const in httplib.
  const_cast<httplib::Request&>(req).ranges.clear();

  RecordedRequest record;
  record.method = req.method;
  size_t const question = req.target.find('?');
  record.path = req.target.substr(0, question);
  if (question != std::string::npos) record.query = req.target.substr(question + 1);
  for (auto const& [name, value] : req.headers) {
    if (!addedByHttplib(name)) record.headers.emplace_back(name, value);
  }
  record.body = req.body;

  // Look-ups use the path as sent first, then percent-decoded.
  auto find = [&](auto& map) {
    auto it = map.find(record.path);
    return it != map.end() ? it : map.find(req.path);
  };

  Fault fault;
  bool hasFault = false;
  Resource resource;
  bool hasResource = false;
  std::map<std::string, std::string> headers;
  std::string token, gateway;
  Handler handler;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    requests_.push_back(record);
    if (onRequest_) onRequest_(record);
    token = requireToken;
    gateway = gatewayToken_;
    handler = handler_;
    if (auto it = find(resources_); it != resources_.end()) {
      resource = it->second;
      hasResource = true;
    }
    if (auto it = find(artifactHeaders_); it != artifactHeaders_.end()) headers = it->second;
    // An artifact's HEAD neither meets nor spends its faults.
    bool const artifactHead = hasResource && resource.artifact && req.method == "HEAD";
    if (auto it = find(faults_); it != faults_.end() && !artifactHead) {
      std::vector<Fault>& queue = it->second;
      while (!queue.empty() && queue.front().times == 0) queue.erase(queue.begin());
      if (!queue.empty()) {
        fault = queue.front();
        hasFault = true;
        if (queue.front().times > 0) --queue.front().times;
      }
    }
  }

  std::string const authorization = record.header("Authorization");
  if ((!token.empty() || !gateway.empty()) &&
      !(!token.empty() && authorization == "TargetToken " + token) &&
      !(!gateway.empty() && authorization == "GatewayToken " + gateway)) {
    res.status = 401;
    return;
  }
  if (hasFault && fault.answerDelayMs > 0) answers_.sleep(fault.answerDelayMs);
  if (hasFault && !fault.redirectTo.empty()) {
    res.set_redirect(fault.redirectTo, 302);
    return;
  }
  if (hasFault && fault.status != 0) {
    res.status = fault.status;
    if (fault.withBody) {
      res.set_content(exceptionInfoJson("org.eclipse.hawkbit.exception.InjectedFault",
                                        "hawkbit.server.error.injected",
                                        "Injected status " + std::to_string(fault.status)),
                      "application/json");
    }
    return;
  }
  if (hasFault && fault.emptyBody) {
    res.status = 200;
    return;
  }
  if (hasFault && fault.body) {
    res.set_content(*fault.body, "application/hal+json");
    return;
  }
  Fault const* shaping = hasFault ? &fault : nullptr;
  Answer answer;
  if (handler && handler(record, answer)) {
    if (req.method == "GET" || req.method == "HEAD") {
      answers_.answer(req, res,
                      Resource{std::make_shared<std::string const>(std::move(answer.body)),
                               answer.status, answer.contentType, false, "", 0},
                      shaping);
    } else {
      res.status = answer.status;
      if (!answer.body.empty()) res.set_content(answer.body, answer.contentType);
    }
    return;
  }
  if (req.method == "GET" || req.method == "HEAD") {
    if (hasResource) {
      for (auto const& [name, value] : headers) res.set_header(name, value);
      answers_.answer(req, res, resource, shaping);
    } else {
      res.status = 404;
      res.set_content(exceptionInfoJson("org.eclipse.hawkbit.repository.exception."
                                        "EntityNotFoundException",
                                        "hawkbit.server.error.repo.entitiyNotFound",
                                        "Nothing is served at " + record.path),
                      "application/json");
    }
    return;
  }
  res.status = 200;
}

// httplib's workers keep an idle keep-alive connection until it times out,
// and stopping the server waits for them. httplib does not hand out accepted
// sockets, so they are found among the process's descriptors by their local
// address; shutting down their reading side ends them at once, while writes,
// such as a TLS close_notify, still work.
void DdiServer::endIdleConnections() const {
  DIR* dir = opendir("/proc/self/fd");
  if (dir == nullptr) return;
  std::vector<int> fds;
  while (dirent* entry = readdir(dir)) {
    if (entry->d_name[0] >= '0' && entry->d_name[0] <= '9') fds.push_back(std::atoi(entry->d_name));
  }
  closedir(dir);
  for (int fd : fds) {
    sockaddr_in local{}, peer{};
    socklen_t localLength = sizeof local, peerLength = sizeof peer;
    if (getsockname(fd, reinterpret_cast<sockaddr*>(&local), &localLength) == 0 &&
        local.sin_family == AF_INET && ntohs(local.sin_port) == port_ &&
        local.sin_addr.s_addr == htonl(INADDR_LOOPBACK) &&
        getpeername(fd, reinterpret_cast<sockaddr*>(&peer), &peerLength) == 0) {
      shutdown(fd, SHUT_RD);
    }
  }
}

}  // namespace tamrel::ddiserver
