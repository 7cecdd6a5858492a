// The agent's transport against the library's, over real HTTP: one table of
// the library's transport contract run against both (rows where the agent's
// does more by design say so), then what only the agent's does.
#include "agent/server/agenttransport.h"

#include <gtest/gtest.h>

#include <chrono>
#include <filesystem>
#include <functional>
#include <thread>

#include "ddiserver/ddiserver.h"
#include "io/fileio.h"
#include "io/memoryio.h"
#include "io/nullhash.h"
#include "tests/support/rawcaptureserver.h"
#include "tests/support/temp_dir.h"

namespace {

using tamrel::ddiserver::DdiServer;
using tamrel::ddiserver::Fault;

std::shared_ptr<curlbuffer> memory(std::string const& content = std::string()) {
  return std::make_shared<curlbuffer>(std::make_unique<memoryio>(content),
                                      std::make_unique<nullhash>());
}

AgentTransport::Settings settingsFor(DdiServer const& server) {
  AgentTransport::Settings settings;
  settings.address = server.baseUrl();
  return settings;
}

// One contract case: runs against a transport and the server, returns what
// it saw as text.
struct Row {
  char const* what;
  std::function<std::string(CurlManager&, DdiServer&)> run;
  char const* library;  // expected of CurlManager
  char const* agent;    // expected of AgentTransport
};

std::string outcome(bool ok, curlbuffer const& buffer) {
  return std::string(ok ? "true" : "false") + " result " + std::to_string(buffer.result) +
         " http " + std::to_string(buffer.httpCode) + " body " + buffer.sink->data();
}

std::vector<Row> const& contract() {
  static std::vector<Row> const rows = {
      {"the token goes with GET, POST and PUT",
       [](CurlManager& t, DdiServer& s) {
         t.setTargetToken("tok");
         s.serve("/doc", "{}");
         t.download(s.baseUrl() + "/doc", memory());
         t.post(s.baseUrl() + "/post", memory("{}"));
         t.put(s.baseUrl() + "/put", memory("{}"));
         std::string seen;
         for (auto const& r : s.requests())
           seen += r.method + "=" + r.header("Authorization") + " ";
         return seen;
       },
       "GET=TargetToken tok POST=TargetToken tok PUT=TargetToken tok ",
       "GET=TargetToken tok POST=TargetToken tok PUT=TargetToken tok "},
      {"a 404 with a body is a completed transfer",
       [](CurlManager& t, DdiServer& s) {
         s.serve("/missing", "{\"e\":1}", 404);
         auto buffer = memory();
         return outcome(t.download(s.baseUrl() + "/missing", buffer), *buffer);
       },
       "true result 0 http 404 body {\"e\":1}", "true result 0 http 404 body {\"e\":1}"},
      {"a download resumes from the sink's size",
       [](CurlManager& t, DdiServer& s) {
         std::string const url = s.addArtifact("/a", "abcdef");
         auto buffer = memory("abc");
         bool const ok = t.download(url, buffer);
         return outcome(ok, *buffer) + " " + s.requests().back().header("Range");
       },
       "true result 0 http 206 body abcdef bytes=3-",
       "true result 0 http 206 body abcdef bytes=3-"},
      {"a body cut short counts as complete (the digest decides)",
       [](CurlManager& t, DdiServer& s) {
         std::string const url = s.addArtifact("/cut", std::string(100000, 'c'));
         Fault drop;
         drop.dropAfterBytes = 1000;
         s.setFault("/cut", drop);
         auto buffer = memory();
         bool const ok = t.download(url, buffer);
         return std::string(ok ? "true" : "false") + " result " + std::to_string(buffer->result) +
                " kept " + std::to_string(buffer->sink->size());
       },
       "true result 0 kept 1000", "true result 0 kept 1000"},
      {"a cancel before a transfer is forgotten",
       [](CurlManager& t, DdiServer& s) {
         s.serve("/doc", "{}");
         t.cancelTransfer();
         auto buffer = memory();
         return outcome(t.download(s.baseUrl() + "/doc", buffer), *buffer);
       },
       "true result 0 http 200 body {}", "true result 0 http 200 body {}"},
      {"a cancel during a download aborts it; what came is kept for a resume",
       [](CurlManager& t, DdiServer& s) {
         std::string const url = s.addArtifact("/slow", std::string(200000, 's'));
         Fault slow;
         slow.chunkBytes = 2000;
         slow.delayMs = 5;
         s.setFault("/slow", slow);
         auto buffer = memory();
         buffer->written.connect([&](int) { t.cancelTransfer(); });
         bool const ok = t.download(url, buffer);
         return std::string(ok ? "true" : "false") + " result " + std::to_string(buffer->result) +
                (buffer->sink->size() > 0 && buffer->sink->size() < 200000 ? " partial" : " whole");
       },
       "false result 42 partial", "false result 42 partial"},
      {"a POST stays a POST after a redirect",
       [](CurlManager& t, DdiServer& s) {
         Fault moved;
         moved.redirectTo = "/moved";
         s.setFault("/feedback", moved);
         bool const ok = t.post(s.baseUrl() + "/feedback", memory("{}"));
         auto const last = s.requests().back();
         return std::string(ok ? "true " : "false ") + last.method + " " + last.path + " " +
                last.body;
       },
       "true POST /moved {}", "true POST /moved {}"},
      // By design: what the device sends goes only to the host it was meant for.
      {"a POST redirected (307) to another host",
       [](CurlManager& t, DdiServer& s) {
         tamrel::testing::RawCaptureServer raw;
         raw.setResponse("HTTP/1.1 307 Moved\r\nLocation: " + s.baseUrl() +
                         "/post?sig=1\r\nContent-Length: 0\r\nConnection: close\r\n\r\n");
         bool const ok = t.post(raw.baseUrl() + "/post", memory("{}"));
         auto* const agent = dynamic_cast<AgentTransport*>(&t);
         std::string said = agent ? " " + agent->lastAnswer().problem() : "";
         if (std::size_t const at = said.find(s.baseUrl()); at != std::string::npos)
           said.replace(at, s.baseUrl().size(), "SERVER");
         return std::string(ok ? "sent " : "not sent ") + std::to_string(s.requests().size()) +
                said;
       },
       "sent 1",
       "not sent 0 a redirect to another host (SERVER/post?\u2026), not followed with a POST"},
      {"file:// is never spoken, not even after a redirect",
       [](CurlManager& t, DdiServer& s) {
         Fault toFile;
         toFile.redirectTo = "file:///etc/hostname";
         s.setFault("/to-file", toFile);
         auto buffer = memory();
         bool const direct = t.download("file:///etc/hostname", memory());
         bool const redirected = t.download(s.baseUrl() + "/to-file", buffer);
         return std::string(direct || redirected ? "read" : "refused") + " " + buffer->sink->data();
       },
       "refused ", "refused "},
      // By design: the agent's transport cuts a POST; the library's cannot.
      {"a cancel during a POST that is not answered",
       [](CurlManager& t, DdiServer& s) {
         if (dynamic_cast<AgentTransport*>(&t) == nullptr) return std::string("not cut");
         Fault stall;
         stall.answerDelayMs = 60000;
         s.setFault("/stuck", stall);
         std::thread canceller([&] {
           while (s.requests("POST").empty()) std::this_thread::yield();
           t.cancelTransfer();
         });
         bool const ok = t.post(s.baseUrl() + "/stuck", memory("{}"));
         canceller.join();
         return std::string(ok ? "sent" : "cut");
       },
       "not cut", "cut"},
      // By design: the agent's transport keeps its connection.
      {"a second request to the same server",
       [](CurlManager& t, DdiServer& s) {
         auto* const agent = dynamic_cast<AgentTransport*>(&t);
         if (agent == nullptr) return std::string("new connection");
         s.serve("/doc", "{}");
         t.download(s.baseUrl() + "/doc", memory());
         t.post(s.baseUrl() + "/post", memory("{}"));
         return std::string(agent->lastAnswer().connections == 0 ? "reused" : "new connection");
       },
       "new connection", "reused"},
  };
  return rows;
}

TEST(TransportContract, LibraryAndAgentAgreeRowByRow) {
  for (Row const& row : contract()) {
    {
      DdiServer server;
      CurlManager library;
      EXPECT_EQ(row.run(library, server), row.library) << "library: " << row.what;
    }
    DdiServer server;
    AgentTransport agent(settingsFor(server));
    EXPECT_EQ(row.run(agent, server), row.agent) << "agent: " << row.what;
  }
}

// Which credentials go where: the server's origin and trusted hosts get the
// token (of either kind), other hosts, redirect hops to them and, with
// download-authentication off, artifact downloads get none; while the server
// is https nothing goes over plain http, not even to a trusted host.
TEST(AgentTransport, CredentialsStayWithTheServer) {
  using T = AgentTransport::Token;
  struct Case {
    char const* what;
    T token;
    bool tls;        // the server (address) is https; the other host is plain http
    bool trusted;    // the other host is in trusted-hosts
    char const* to;  // "server", "other", or "redirect" (from the server to the other)
    bool artifact, downloadAuthentication;
    char const* seen;  // Authorization as the target got it, "-" when it got nothing
  } const cases[] = {
      {"target token at the server", T::kTarget, false, false, "server", false, true,
       "TargetToken tok"},
      {"gateway token at the server", T::kGateway, false, false, "server", false, true,
       "GatewayToken gw"},
      {"no token (client certificate only)", T::kNone, false, false, "server", false, true, ""},
      {"another host", T::kTarget, false, false, "other", false, true, ""},
      {"a trusted host", T::kTarget, false, true, "other", false, true, "TargetToken tok"},
      {"artifact, download-authentication no", T::kTarget, false, false, "server", true, false, ""},
      {"document, download-authentication no", T::kTarget, false, false, "server", false, false,
       "TargetToken tok"},
      {"redirect from the server to another host", T::kGateway, false, false, "redirect", false,
       true, ""},
      {"https server, plain http link elsewhere", T::kTarget, true, false, "other", false, true,
       "-"},
      {"https server, plain http link to a trusted host", T::kGateway, true, true, "other", true,
       true, "-"},
      {"https server, redirect to plain http on a trusted host", T::kTarget, true, true, "redirect",
       true, true, "-"},
  };
  tamrel::testing::TempDir const tmp;
  DdiServer::Options tls;
  tls.https = true;
  for (Case const& c : cases) {
    DdiServer server(c.tls ? tls : DdiServer::Options()), other;
    AgentTransport::Settings settings = settingsFor(server);
    settings.caFile = server.caFile();
    if (c.trusted) settings.trustedHosts = "localhost:" + std::to_string(other.port());
    settings.token = c.token;
    settings.gatewayToken = "gw";
    settings.downloadAuthentication = c.downloadAuthentication;
    AgentTransport transport(settings);
    transport.setTargetToken("tok");
    std::string url = server.addArtifact("/a", "artifact");
    std::string const elsewhere = "http://localhost:" + std::to_string(other.port()) + "/a";
    other.addArtifact("/a", "artifact");
    std::string const to = c.to;
    if (to == "other") url = elsewhere;
    if (to == "redirect") {
      Fault moved;
      moved.redirectTo = elsewhere;
      server.setFault("/a", moved);
    }
    auto buffer = c.artifact
                      ? std::make_shared<curlbuffer>(std::make_unique<fileio>(tmp.path() + "/a"))
                      : memory();
    bool const ok = transport.download(url, buffer);
    DdiServer const& got = to == "server" ? server : other;
    std::string const seen =
        got.requests().empty() ? "-" : got.requests().back().header("Authorization");
    EXPECT_EQ(seen, c.seen) << c.what;
    EXPECT_EQ(ok, seen != "-") << c.what;
    if (to == "redirect" && !c.artifact) {
      EXPECT_EQ(server.requests().back().header("Authorization"), "GatewayToken gw") << c.what;
    }
    std::remove((tmp.path() + "/a").c_str());
  }
}

// The library logs the link it downloads: it gets a stand-in with the query
// hidden, the transport fetches the link itself; links that differ only in
// their query keep stand-ins of their own.
TEST(AgentTransport, FetchesTheLinkBehindAStandIn) {
  DdiServer server;
  server.serve("/get", "file");
  AgentTransport transport(settingsFor(server));
  std::string const url = "http://u:pw@" + server.baseUrl().substr(7) + "/get?name=";
  EXPECT_EQ(transport.concealed(url + "a"),
            "http://\u2026@" + server.baseUrl().substr(7) + "/get?\u2026");
  std::string const b = transport.concealed(url + "b#x");
  EXPECT_EQ(b, transport.concealed(url + "a") + "#2");
  EXPECT_TRUE(transport.download(b, memory()));
  EXPECT_EQ(server.requests().back().query, "name=b");
  transport.forgetConcealed();
  EXPECT_EQ(transport.revealed(b), b);
}

// What the server asks of the agent is kept: the status and Retry-After
// (seconds or a date) of the last exchange and of the base resource, whose
// body an observer sees.
TEST(AgentTransport, KeepsTheServersAnswer) {
  tamrel::testing::RawCaptureServer raw;
  AgentTransport::Settings settings;
  settings.address = raw.baseUrl();
  AgentTransport transport(settings);
  std::string const base = raw.baseUrl() + "/DEFAULT/controller/v1/dev01";
  transport.setBaseUrl(base);
  std::string observed;
  transport.observeBase([&](long status, std::string const& body) {
    observed = std::to_string(status) + " " + body;
  });
  raw.setResponse(
      "HTTP/1.1 429 Too Many Requests\r\nRetry-After: 7\r\nContent-Length: 4\r\n"
      "Connection: close\r\n\r\nbusy");
  transport.download(base, memory());
  EXPECT_EQ(observed, "429 busy");
  EXPECT_EQ(transport.lastBaseAnswer().retryAfterS, 7);
  raw.setResponse(
      "HTTP/1.1 409 Conflict\r\nRetry-After: Thu, 31 Dec 2037 00:00:00 GMT\r\n"
      "Content-Length: 13\r\nConnection: close\r\n\r\n{\"message\":1}");
  EXPECT_TRUE(transport.post(raw.baseUrl() + "/feedback", memory("{}")));
  AgentTransport::Answer const answer = transport.lastAnswer();
  EXPECT_EQ(answer.status, 409);
  EXPECT_GT(answer.retryAfterS, 86400L * 365);  // a year libcurl reads with a 32-bit time_t
  EXPECT_EQ(answer.reply, "{\"message\":1}");
  EXPECT_EQ(answer.problem(), "HTTP 409");
  EXPECT_EQ(transport.lastBaseAnswer().status, 429);  // not the base resource
}

// The transport closes libcurl's sockets itself (it keeps track of them):
// none may stay open once it is gone, with connections kept or not.
TEST(AgentTransport, ClosesEveryConnection) {
  auto const openFiles = [] {
    std::size_t n = 0;
    for (auto const& entry : std::filesystem::directory_iterator("/proc/self/fd")) {
      (void)entry;
      ++n;
    }
    return n;
  };
  DdiServer server;
  server.serve("/doc", "{}");
  std::size_t const before = openFiles();
  for (bool const reuse : {true, false}) {
    AgentTransport::Settings settings = settingsFor(server);
    settings.reuseConnections = reuse;
    {
      AgentTransport transport(settings);
      for (int i = 0; i < 3; ++i)
        EXPECT_TRUE(transport.download(server.baseUrl() + "/doc", memory()));
      EXPECT_TRUE(transport.post(server.baseUrl() + "/post", memory("{}")));
    }
    // The server (in this process) closes its side once it sees the close.
    for (int i = 0; i < 200 && openFiles() != before; ++i)
      std::this_thread::sleep_for(std::chrono::milliseconds(10));
    EXPECT_EQ(openFiles(), before) << (reuse ? "kept connection" : "a connection per request");
  }
}

}  // namespace
