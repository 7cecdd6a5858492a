// How the DDI server answers a GET or HEAD of what it serves at a path.
#pragma once

#include <atomic>
#include <cstddef>
#include <functional>
#include <memory>
#include <string>

namespace httplib {
struct Request;
struct Response;
}  // namespace httplib

namespace tamrel::ddiserver {

struct Fault;

// Answers with a served document and its status, or with an artifact and
// single-range support; the body shaped by the path's fault when there is
// one (pieces, delays, a cut, trailing bytes). Slow bodies end early once
// `stopping` is set. Thread-safe: it keeps no state of its own.
class ResourceAnswer {
 public:
  struct Resource {
    std::shared_ptr<std::string const> body;  // shared: answers do not copy it
    int status = 200;
    std::string contentType;
    bool artifact = false;
    std::string file;  // a file-backed artifact: read from here
    std::size_t fileSize = 0;
  };

  explicit ResourceAnswer(std::atomic<bool> const& stopping) : stopping_(stopping) {}

  void answer(httplib::Request const& req, httplib::Response& res, Resource const& resource,
              Fault const* fault) const;
  // Waits `ms`, returning early once the server stops.
  void sleep(int ms) const;

 private:
  using Reader = std::function<bool(std::size_t offset, std::size_t n, std::string& out)>;

  void sendBody(httplib::Response& res, Reader const& read, std::size_t offset, std::size_t length,
                std::string const& contentType, Fault const* fault) const;
  void sendOverlong(httplib::Response& res, Reader const& read, std::size_t offset,
                    std::size_t length, std::string const& contentType, Fault const& fault) const;

  std::atomic<bool> const& stopping_;
};

}  // namespace tamrel::ddiserver
