#include "agent/control/controlserver.h"

#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <vector>

#include "agent/base/log.h"
#include "agent/control/controlprotocol.h"

// The eventfd that ends the thread's poll(): written by the update loop's
// thread for each event. Shared with the channel's callback, so that a
// publish still running while the server stops writes to it, not to a
// descriptor closed and reused meanwhile.
class ControlServer::Wake {
 public:
  Wake() : fd_(eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC)) {}
  ~Wake() {
    if (fd_ >= 0) ::close(fd_);
  }
  Wake(Wake const&) = delete;
  Wake& operator=(Wake const&) = delete;
  int fd() const { return fd_; }
  void ring() const {
    std::uint64_t const one = 1;
    // A full counter already wakes the thread.
    if (::write(fd_, &one, sizeof one) < 0) return;
  }
  void drain() const {
    std::uint64_t count = 0;
    if (::read(fd_, &count, sizeof count) < 0) return;
  }

 private:
  int fd_;
};

struct ControlServer::Client {
  int fd = -1;
  std::string peer;    // "pid 12 uid 0 gid 0"
  std::string input;   // a request line not yet whole
  std::string output;  // answers and events not yet sent
  bool watching = false;
  std::uint64_t next = 0;     // the next event it gets
  std::uint64_t dropped = 0;  // events it missed, not yet told
};

namespace {

// Sends what it can without waiting; never SIGPIPE. -1: the client is gone.
ssize_t sendSome(int fd, std::string const& data) {
  ssize_t const sent = send(fd, data.data(), data.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
  if (sent >= 0) return sent;
  return errno == EAGAIN || errno == EWOULDBLOCK || errno == EINTR ? 0 : -1;
}

std::string peerOf(int fd) {
  ucred credentials{};
  socklen_t size = sizeof credentials;
  if (getsockopt(fd, SOL_SOCKET, SO_PEERCRED, &credentials, &size) != 0) return "unknown peer";
  return "pid " + std::to_string(credentials.pid) + " uid " + std::to_string(credentials.uid) +
         " gid " + std::to_string(credentials.gid);
}

}  // namespace

ControlServer::ControlServer(ControlChannel& channel) : channel_(channel) {}

ControlServer::~ControlServer() { stop(); }

std::string ControlServer::start(Settings const& settings) {
  stop();
  settings_ = settings;
  if (settings_.clients == 0) settings_.clients = 1;
  auto wake = std::make_shared<Wake>();
  if (wake->fd() < 0) return "control socket: eventfd failed";
  std::string const problem = socket_.open(settings.path, settings.group);
  if (!problem.empty()) return problem;
  wake_ = wake;
  channel_.onEvent([wake] { wake->ring(); });
  stopping_ = false;
  thread_ = std::thread(&ControlServer::serve, this);
  Log::info("control socket at %s", settings.path.c_str());
  return "";
}

void ControlServer::stop() {
  if (!thread_.joinable()) return;
  stopping_ = true;
  wake_->ring();
  thread_.join();
  channel_.onEvent(nullptr);
  for (Client const& client : clients_) ::close(client.fd);
  clients_.clear();
  socket_.close();
  wake_.reset();
}

void ControlServer::serve() {
  std::vector<pollfd> fds;
  while (!stopping_) {
    fds.clear();
    fds.push_back({wake_->fd(), POLLIN, 0});
    fds.push_back({socket_.fd(), POLLIN, 0});
    for (Client& client : clients_) {
      // Lines left while its output was full come first, then events.
      answerLines(client);
      feed(client);
      // A client is read only when what it sent is answered and its
      // answers do not pile up: its buffers stay bounded.
      bool const pending = client.input.find('\n') != std::string::npos;
      short events = 0;
      if (!pending && client.output.size() < settings_.buffer) events |= POLLIN;
      if (!client.output.empty()) events |= POLLOUT;
      fds.push_back({client.fd, events, 0});
    }
    if (poll(fds.data(), fds.size(), -1) < 0) {
      if (errno == EINTR) continue;
      Log::error("control socket: poll failed: %s", std::strerror(errno));
      return;
    }
    if (fds[0].revents != 0) wake_->drain();
    std::size_t index = 2;
    for (auto client = clients_.begin(); client != clients_.end(); ++index) {
      short const revents = fds[index].revents;
      bool keep = true;
      if (revents & POLLIN) {
        keep = receive(*client);
      } else if (revents & (POLLHUP | POLLERR | POLLNVAL)) {
        keep = false;  // gone, and nothing of it is read any more
      }
      if (keep && !client->output.empty()) keep = flush(*client);
      if (keep) {
        ++client;
      } else {
        ::close(client->fd);
        client = clients_.erase(client);
      }
    }
    if (fds[1].revents != 0) accept();
  }
}

void ControlServer::accept() {
  for (;;) {
    int const fd = accept4(socket_.fd(), nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC);
    if (fd < 0) {
      if (errno != EAGAIN && errno != EWOULDBLOCK && errno != EINTR && errno != ECONNABORTED)
        Log::warning("control socket: accept failed: %s", std::strerror(errno));
      return;
    }
    if (clients_.size() >= settings_.clients) {
      std::string const peer = peerOf(fd);
      Log::warning("control socket: %zu clients already, %s refused", clients_.size(),
                   peer.c_str());
      sendSome(fd, ControlProtocol::error("too many clients (at most " +
                                          std::to_string(settings_.clients) + ")") +
                       "\n");
      ::close(fd);
      continue;
    }
    Client client;
    client.fd = fd;
    client.peer = peerOf(fd);
    Log::debug("control socket: %s connected", client.peer.c_str());
    clients_.push_back(std::move(client));
  }
}

bool ControlServer::receive(Client& client) {
  char buffer[4096];
  ssize_t const got = recv(client.fd, buffer, sizeof buffer, MSG_DONTWAIT);
  if (got == 0) return false;
  if (got < 0) return errno == EAGAIN || errno == EWOULDBLOCK || errno == EINTR;
  client.input.append(buffer, static_cast<std::size_t>(got));
  answerLines(client);
  if (client.input.find('\n') == std::string::npos &&
      client.input.size() > ControlProtocol::kMaxLine) {
    Log::warning("control socket: %s sent a request line over %zu bytes; closed",
                 client.peer.c_str(), ControlProtocol::kMaxLine);
    // The error goes out once, after what was answered before; the rest
    // of what it sent is not read.
    client.output += ControlProtocol::error("request line over " +
                                            std::to_string(ControlProtocol::kMaxLine) + " bytes") +
                     "\n";
    sendSome(client.fd, client.output);
    return false;
  }
  return true;
}

void ControlServer::answerLines(Client& client) {
  std::size_t start = 0;
  for (std::size_t end; client.output.size() < settings_.buffer &&
                        (end = client.input.find('\n', start)) != std::string::npos;
       start = end + 1) {
    std::string line = client.input.substr(start, end - start);
    if (!line.empty() && line.back() == '\r') line.pop_back();
    if (line.find_first_not_of(" \t") != std::string::npos) answer(client, line);
  }
  client.input.erase(0, start);
}

void ControlServer::answer(Client& client, std::string const& line) {
  ControlProtocol::Parsed parsed = ControlProtocol::parse(line);
  std::string reply;
  switch (parsed.verb) {
    case ControlProtocol::Verb::kInvalid:
      reply = ControlProtocol::error(parsed.error);
      break;
    case ControlProtocol::Verb::kStatus:
      reply = ControlProtocol::ok("\"status\":" + channel_.status());
      break;
    case ControlProtocol::Verb::kWatch:
      if (!client.watching) client.next = channel_.next();
      client.watching = true;
      reply = ControlProtocol::ok();
      break;
    case ControlProtocol::Verb::kChange: {
      parsed.request.peer = client.peer;
      char const* const name = ControlProtocol::name(parsed.request.kind);
      std::string const refused = channel_.request(parsed.request);
      if (refused.empty()) {
        Log::info("control socket: %s from %s", name, client.peer.c_str());
        reply = ControlProtocol::ok();
      } else {
        Log::info("control socket: %s from %s refused: %s", name, client.peer.c_str(),
                  refused.c_str());
        reply = ControlProtocol::error(refused);
      }
      break;
    }
  }
  client.output += reply + "\n";
}

void ControlServer::feed(Client& client) {
  if (!client.watching) return;
  std::vector<std::string> events;
  while (client.output.size() < settings_.buffer) {
    events.clear();
    std::uint64_t const next = channel_.events(client.next, 8, events, client.dropped);
    if (client.dropped > 0) {
      client.output += ControlProtocol::dropped(client.dropped) + "\n";
      client.dropped = 0;
    }
    client.next = next;
    if (events.empty()) return;
    for (std::string const& event : events) client.output += event + "\n";
  }
}

bool ControlServer::flush(Client& client) {
  ssize_t const sent = sendSome(client.fd, client.output);
  if (sent < 0) return false;
  client.output.erase(0, static_cast<std::size_t>(sent));
  return true;
}
