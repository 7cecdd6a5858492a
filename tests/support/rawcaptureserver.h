// A bare TCP listener that records requests byte for byte: the request line
// and header lines exactly as sent and in order, which httplib cannot give.
// It answers each connection with one canned response and then closes it.
#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace tamrel::testing {

struct RawRequest {
  std::string requestLine;               // e.g. "GET /path HTTP/1.1"
  std::vector<std::string> headerLines;  // as received, without CRLF, in order
  std::string body;                      // per Content-Length, or raw chunked data
};

class RawCaptureServer {
 public:
  RawCaptureServer();  // listens on 127.0.0.1, ephemeral port
  ~RawCaptureServer();
  RawCaptureServer(RawCaptureServer const&) = delete;
  RawCaptureServer& operator=(RawCaptureServer const&) = delete;

  int port() const;
  std::string baseUrl() const;  // "http://127.0.0.1:<port>"

  // Sent verbatim after each request, then the connection is closed. The
  // default is a 200 with "{}". A cut-off head such as
  // "HTTP/1.1 200 OK\r\nContent-Le" closes mid-header; "" closes at once.
  void setResponse(std::string raw);
  // Record requests but never answer; connections stay open until the
  // server is destroyed.
  void setNeverAnswer(bool never);

  std::vector<RawRequest> requests() const;
  // Waits until at least `count` requests are recorded; false on timeout.
  bool waitForRequests(size_t count, int timeoutMs) const;

 private:
  void acceptLoop();
  void serveConnection(int fd);
  bool readMore(int fd, std::string& buffer, std::chrono::steady_clock::time_point deadline);

  int listenFd_ = -1;
  int port_ = -1;
  std::atomic<bool> stopping_{false};
  std::thread thread_;

  mutable std::mutex mutex_;
  mutable std::condition_variable recorded_;
  std::string response_ =
      "HTTP/1.1 200 OK\r\nContent-Type: application/json\r\nContent-Length: 2\r\n"
      "Connection: close\r\n\r\n{}";
  bool neverAnswer_ = false;
  std::vector<RawRequest> requests_;
  std::vector<int> heldFds_;  // unanswered connections (accept thread only)
};

}  // namespace tamrel::testing
