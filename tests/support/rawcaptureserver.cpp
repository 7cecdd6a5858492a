#include "tests/support/rawcaptureserver.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <strings.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdlib>
#include <stdexcept>

namespace tamrel::testing {
namespace {

// A connection that sends nothing for this long is given up.
constexpr auto kReadTimeout = std::chrono::seconds(10);

bool sendAll(int fd, std::string const& data) {
  size_t sent = 0;
  while (sent < data.size()) {
    ssize_t const n = ::send(fd, data.data() + sent, data.size() - sent, MSG_NOSIGNAL);
    if (n <= 0) return false;
    sent += static_cast<size_t>(n);
  }
  return true;
}

// The value of header line "Name: value" if its name is `name`.
bool headerValue(std::string const& line, std::string const& name, std::string& value) {
  size_t const colon = line.find(':');
  if (colon != name.size() || strncasecmp(line.c_str(), name.c_str(), colon) != 0) return false;
  size_t const start = line.find_first_not_of(" \t", colon + 1);
  size_t const end = line.find_last_not_of(" \t");
  value = start == std::string::npos ? "" : line.substr(start, end - start + 1);
  return true;
}

}  // namespace

RawCaptureServer::RawCaptureServer() {
  listenFd_ = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (listenFd_ < 0) throw std::runtime_error("RawCaptureServer: no socket");
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  address.sin_port = 0;
  socklen_t length = sizeof address;
  if (::bind(listenFd_, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0 ||
      ::listen(listenFd_, 16) != 0 ||
      ::getsockname(listenFd_, reinterpret_cast<sockaddr*>(&address), &length) != 0) {
    ::close(listenFd_);
    throw std::runtime_error("RawCaptureServer: cannot listen");
  }
  port_ = ntohs(address.sin_port);
  thread_ = std::thread([this] { acceptLoop(); });
}

RawCaptureServer::~RawCaptureServer() {
  stopping_ = true;
  thread_.join();
  for (int fd : heldFds_) ::close(fd);
  ::close(listenFd_);
}

int RawCaptureServer::port() const { return port_; }

std::string RawCaptureServer::baseUrl() const {
  return "http://127.0.0.1:" + std::to_string(port_);
}

void RawCaptureServer::setResponse(std::string raw) {
  std::lock_guard<std::mutex> lock(mutex_);
  response_ = std::move(raw);
}

void RawCaptureServer::setNeverAnswer(bool never) {
  std::lock_guard<std::mutex> lock(mutex_);
  neverAnswer_ = never;
}

std::vector<RawRequest> RawCaptureServer::requests() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return requests_;
}

bool RawCaptureServer::waitForRequests(size_t count, int timeoutMs) const {
  std::unique_lock<std::mutex> lock(mutex_);
  return recorded_.wait_for(lock, std::chrono::milliseconds(timeoutMs),
                            [&] { return requests_.size() >= count; });
}

// Connections are served one after the other; polling keeps the loop
// responsive to the destructor.
void RawCaptureServer::acceptLoop() {
  while (!stopping_) {
    pollfd p{listenFd_, POLLIN, 0};
    if (::poll(&p, 1, 20) <= 0) continue;
    int const fd = ::accept4(listenFd_, nullptr, nullptr, SOCK_CLOEXEC);
    if (fd >= 0) serveConnection(fd);
  }
}

bool RawCaptureServer::readMore(int fd, std::string& buffer,
                                std::chrono::steady_clock::time_point deadline) {
  while (!stopping_ && std::chrono::steady_clock::now() < deadline) {
    pollfd p{fd, POLLIN, 0};
    if (::poll(&p, 1, 20) <= 0) continue;
    char chunk[4096];
    ssize_t const n = ::recv(fd, chunk, sizeof chunk, 0);
    if (n <= 0) return false;
    buffer.append(chunk, static_cast<size_t>(n));
    return true;
  }
  return false;
}

void RawCaptureServer::serveConnection(int fd) {
  auto const deadline = std::chrono::steady_clock::now() + kReadTimeout;
  std::string buffer;
  size_t headEnd;
  while ((headEnd = buffer.find("\r\n\r\n")) == std::string::npos) {
    if (!readMore(fd, buffer, deadline)) {
      ::close(fd);
      return;
    }
  }

  RawRequest request;
  size_t start = 0;
  while (start < headEnd) {
    size_t const end = buffer.find("\r\n", start);
    std::string line = buffer.substr(start, end - start);
    if (start == 0) {
      request.requestLine = std::move(line);
    } else {
      request.headerLines.push_back(std::move(line));
    }
    start = end + 2;
  }

  long long contentLength = 0;
  bool chunked = false, expectContinue = false;
  for (auto const& line : request.headerLines) {
    std::string value;
    if (headerValue(line, "Content-Length", value)) contentLength = std::atoll(value.c_str());
    if (headerValue(line, "Transfer-Encoding", value)) chunked = value == "chunked";
    if (headerValue(line, "Expect", value)) expectContinue = value == "100-continue";
  }
  if (expectContinue) sendAll(fd, "HTTP/1.1 100 Continue\r\n\r\n");
  std::string body = buffer.substr(headEnd + 4);
  auto complete = [&] {
    if (chunked) {
      return body.compare(0, 5, "0\r\n\r\n") == 0 ||
             body.find("\r\n0\r\n\r\n") != std::string::npos;
    }
    return static_cast<long long>(body.size()) >= contentLength;
  };
  while (!complete() && readMore(fd, body, deadline)) {
  }
  request.body = std::move(body);

  std::string response;
  bool never;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    requests_.push_back(std::move(request));
    response = response_;
    never = neverAnswer_;
  }
  recorded_.notify_all();
  if (never) {
    heldFds_.push_back(fd);
    return;
  }
  sendAll(fd, response);
  ::shutdown(fd, SHUT_WR);
  ::close(fd);
}

}  // namespace tamrel::testing
