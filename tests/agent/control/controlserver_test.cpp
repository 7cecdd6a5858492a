// The control socket against real clients: its bounds (clients, line
// length, a watcher that never reads), requests reaching the update loop,
// and its file created and removed safely.
#include "agent/control/controlserver.h"

#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <string>
#include <vector>

#include "agent/control/controlprotocol.h"

namespace {

// A scratch directory, removed with what it holds.
struct Scratch {
  Scratch() {
    char name[] = "/tmp/tamrel-control-XXXXXX";
    path = mkdtemp(name) != nullptr ? name : "";
  }
  ~Scratch() { std::system(("rm -rf '" + path + "'").c_str()); }
  std::string path;
};

// A client of the socket.
class Client {
 public:
  explicit Client(std::string const& path) : fd_(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
    sockaddr_un where{};
    where.sun_family = AF_UNIX;
    std::strncpy(where.sun_path, path.c_str(), sizeof where.sun_path - 1);
    connect(fd_, reinterpret_cast<sockaddr*>(&where), sizeof where);
  }
  ~Client() { close(fd_); }
  void send(std::string const& data) {
    ASSERT_EQ(::send(fd_, data.data(), data.size(), MSG_NOSIGNAL), ssize_t(data.size()));
  }
  // The next line; false at the end of the stream or after 10 s.
  bool line(std::string& text) {
    for (;;) {
      std::size_t const end = buffer_.find('\n');
      if (end != std::string::npos) {
        text = buffer_.substr(0, end);
        buffer_.erase(0, end + 1);
        return true;
      }
      pollfd ready{fd_, POLLIN, 0};
      if (poll(&ready, 1, 10000) <= 0) return false;
      char chunk[65536];
      ssize_t const got = recv(fd_, chunk, sizeof chunk, 0);
      if (got <= 0) return false;
      buffer_.append(chunk, std::size_t(got));
      read_ += std::size_t(got);
    }
  }
  std::string ask(std::string const& request) {
    send(request + "\n");
    std::string answer;
    return line(answer) ? answer : "(nothing)";
  }
  std::size_t bytesRead() const { return read_; }

 private:
  int fd_;
  std::string buffer_;
  std::size_t read_ = 0;
};

class ControlServerTest : public ::testing::Test {
 protected:
  std::string start(ControlServer& on) {
    ControlServer::Settings settings;
    settings.path = path;
    settings.group = getegid();
    return on.start(settings);
  }
  std::string start() { return start(server); }
  Scratch scratch;
  std::string const path = scratch.path + "/agent.sock";
  ControlChannel channel;
  ControlServer server{channel};
};

std::string const kStatus = R"({"request":"status"})";

TEST_F(ControlServerTest, AnswersEachLineRefusesTheSeventeenthClientAndClosesOnAnOverlongLine) {
  ASSERT_EQ(start(), "");
  channel.set("state", "\"idle\"");
  std::vector<std::unique_ptr<Client>> clients;
  for (int i = 0; i < 16; ++i) {
    clients.push_back(std::make_unique<Client>(path));
    ASSERT_EQ(clients.back()->ask(kStatus),
              R"({"ok":true,"status":{"protocol":1,"state":"idle"}})");
  }
  Client seventeenth(path);
  std::string line;
  ASSERT_TRUE(seventeenth.line(line));
  EXPECT_EQ(line, R"x({"ok":false,"error":"too many clients (at most 16)"})x");
  EXPECT_FALSE(seventeenth.line(line));

  // Bad lines get their error, the connection kept; several in one write.
  Client& first = *clients.front();
  first.send("not json\n\r\n{\"request\":\"nap\"}\r\n" + kStatus + "\n");
  for (char const* expected : {R"({"ok":false,"error":"not a JSON object"})",
                               R"({"ok":false,"error":"unknown request \"nap\""})",
                               R"({"ok":true,"status":{"protocol":1,"state":"idle"}})"}) {
    ASSERT_TRUE(first.line(line));
    EXPECT_EQ(line, expected);
  }
  // A line past the bound, even sent in pieces, ends the client; its slot
  // goes to the next one.
  first.send(std::string(3000, ' '));
  first.send(std::string(3000, 'x'));
  ASSERT_TRUE(first.line(line));
  EXPECT_EQ(line, R"({"ok":false,"error":"request line over 4096 bytes"})");
  EXPECT_FALSE(first.line(line));
  Client next(path);
  EXPECT_EQ(next.ask(R"({"request":"watch"})"), R"({"ok":true})");
}

TEST_F(ControlServerTest, RequestsReachTheLoopWithThePeerAndAnswersOnlyWhatIsAwaited) {
  ASSERT_EQ(start(), "");
  std::atomic<int> woken{0};
  channel.onRequest([&] { ++woken; });
  Client client(path);
  EXPECT_EQ(client.ask(R"({"request":"consent","action":"7","answer":"confirm"})"),
            R"({"ok":false,"error":"action 7 is not waiting for consent"})");
  channel.await("7", "consent");
  EXPECT_EQ(client.ask(R"({"request":"consent","action":"7","answer":"deny","reason":"busy"})"),
            R"({"ok":true})");
  EXPECT_EQ(client.ask(R"({"request":"release","interval":30})"), R"({"ok":true})");
  std::deque<ControlRequest> const taken = channel.take();
  ASSERT_EQ(taken.size(), 2u);
  EXPECT_EQ(woken, 2);
  EXPECT_EQ(taken[0].kind, ControlRequest::Kind::kConsent);
  EXPECT_EQ(taken[0].reason, "busy");
  EXPECT_FALSE(taken[0].confirm);
  EXPECT_EQ(taken[0].peer, "pid " + std::to_string(getpid()) + " uid " + std::to_string(geteuid()) +
                               " gid " + std::to_string(getegid()));
  EXPECT_EQ(taken[1].kind, ControlRequest::Kind::kRelease);
  EXPECT_EQ(taken[1].interval, 30);
}

TEST_F(ControlServerTest, AWatcherThatDoesNotReadNeverHoldsUpPublishingAndIsToldWhatItMissed) {
  ASSERT_EQ(start(), "");
  Client watcher(path), other(path);
  ASSERT_EQ(watcher.ask(R"({"request":"watch"})"), R"({"ok":true})");
  int const published = 100000;
  auto const began = std::chrono::steady_clock::now();
  for (int i = 0; i < published; ++i)
    channel.publish("progress",
                    "\"n\":" + std::to_string(i) + ",\"pad\":\"" + std::string(100, 'p') + "\"");
  // Nobody waits for the watcher: publishing ends though it never reads (a
  // publisher held up by it would never end; the cap only bounds that run,
  // valgrind's too).
  EXPECT_LT(std::chrono::steady_clock::now() - began, std::chrono::seconds(60));
  EXPECT_EQ(other.ask(kStatus), R"({"ok":true,"status":{"protocol":1}})");

  // Read again: every event is either seen, in order, or counted missed.
  std::uint64_t seen = 0, missed = 0, droppedLines = 0;
  long last = -1;
  std::size_t beforeDropped = 0;
  std::string line;
  while (seen + missed < std::uint64_t(published) && watcher.line(line)) {
    if (line.rfind(R"({"event":"dropped","count":)", 0) == 0) {
      if (droppedLines++ == 0) beforeDropped = watcher.bytesRead();
      missed += std::stoull(line.substr(line.find(':', 10) + 1));
      continue;
    }
    long const n = std::stol(line.substr(line.find("\"n\":") + 4));
    ASSERT_GT(n, last);
    last = n;
    ++seen;
  }
  EXPECT_EQ(seen + missed, std::uint64_t(published));
  EXPECT_GE(droppedLines, 1u);
  EXPECT_GT(missed, 90000u);
  EXPECT_EQ(last, published - 1);  // the newest ones arrive
  // What waited for it was its bounded buffer and the socket's own.
  EXPECT_LT(beforeDropped, std::size_t(2) << 20);
}

TEST_F(ControlServerTest, SocketFileCreatedSafelyAndRemovedAtStop) {
  std::string const target = scratch.path + "/target";
  std::ofstream(target) << "keep";
  auto const plantStale = [&] {
    int const fd = socket(AF_UNIX, SOCK_STREAM, 0);
    sockaddr_un where{};
    where.sun_family = AF_UNIX;
    std::strncpy(where.sun_path, path.c_str(), sizeof where.sun_path - 1);
    ASSERT_EQ(bind(fd, reinterpret_cast<sockaddr*>(&where), sizeof where), 0);
    close(fd);  // the file stays, nobody answers
  };
  struct Case {
    char const* what;
    std::function<void()> plant;
    char const* refusal;  // "" when it starts
  };
  Case const cases[] = {
      {"nothing there", [] {}, ""},
      {"stale socket", plantStale, ""},
      {"regular file", [&] { std::ofstream(path) << "x"; }, "something else than a socket"},
      {"planted symlink", [&] { ASSERT_EQ(symlink(target.c_str(), path.c_str()), 0); },
       "something else than a socket"},
      {"directory", [&] { ASSERT_EQ(mkdir(path.c_str(), 0700), 0); },
       "something else than a socket"},
  };
  for (Case const& c : cases) {
    SCOPED_TRACE(c.what);
    c.plant();
    struct stat before {};
    lstat(path.c_str(), &before);
    std::string const problem = start();
    struct stat info {};
    if (*c.refusal != '\0') {
      EXPECT_NE(problem.find(c.refusal), std::string::npos) << problem;
      ASSERT_EQ(lstat(path.c_str(), &info), 0);
      EXPECT_EQ(info.st_ino, before.st_ino);  // untouched
      std::system(("rm -rf '" + path + "'").c_str());
      continue;
    }
    ASSERT_EQ(problem, "");
    ASSERT_EQ(lstat(path.c_str(), &info), 0);
    EXPECT_TRUE(S_ISSOCK(info.st_mode));
    EXPECT_EQ(info.st_mode & 07777, 0660u);
    // A second server finds the first answering.
    ControlChannel otherChannel;
    ControlServer second(otherChannel);
    EXPECT_NE(start(second).find("another agent answers there"), std::string::npos);
    server.stop();
    EXPECT_NE(lstat(path.c_str(), &info), 0);
  }
  std::ifstream kept(target);
  EXPECT_EQ(std::string(std::istreambuf_iterator<char>(kept), {}), "keep");
}

}  // namespace
