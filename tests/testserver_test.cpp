// The in-process test server itself, driven by a plain httplib client and
// raw sockets, so the library's tests can trust what it serves and records.
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <httplib.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <memory>
#include <string>
#include <vector>

#include "testserver/dditestserver.h"
#include "testserver/rawcaptureserver.h"

namespace {

using tamrel::testing::controllerBaseJson;
using tamrel::testing::DdiTestServer;
using tamrel::testing::Fault;
using tamrel::testing::RawCaptureServer;

// Sends `request` on a fresh connection and returns all that comes back
// until the server closes.
std::string exchange(int port, std::string const& request) {
  int const fd = ::socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(static_cast<uint16_t>(port));
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  std::string reply;
  if (::connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0 &&
      ::send(fd, request.data(), request.size(), MSG_NOSIGNAL) ==
          static_cast<ssize_t>(request.size())) {
    char buffer[4096];
    ssize_t n;
    while ((n = ::recv(fd, buffer, sizeof buffer, 0)) > 0) reply.append(buffer, n);
  }
  ::close(fd);
  return reply;
}

TEST(DdiTestServer, ServesDocumentsAndRecordsEveryGet) {
  DdiTestServer server;
  server.setTarget("acme", "box7");
  server.setControllerBase(R"({"config":{}})");
  server.setDeploymentBase("4", R"({"id":"4"})");
  server.setCancelAction("5", R"({"id":"5"})");
  server.serve("/gone", "bye", 410, "text/plain");
  struct Case {
    std::string target;
    int status;
    std::string body;  // expected body, or a part of it for the 404
    std::string contentType;
  } const cases[] = {
      {"/acme/controller/v1/box7?x=1&y=2", 200, R"({"config":{}})", "application/hal+json"},
      {"/acme/controller/v1/box7/deploymentBase/4?c=9", 200, R"({"id":"4"})",
       "application/hal+json"},
      {"/acme/controller/v1/box7/cancelAction/5", 200, R"({"id":"5"})", "application/hal+json"},
      {"/gone", 410, "bye", "text/plain"},
      {"/nothing/here", 404, "entitiyNotFound", "application/json"},
  };
  httplib::Client client(server.baseUrl());
  for (auto const& c : cases) {
    auto res = client.Get(c.target.c_str());
    ASSERT_TRUE(res) << c.target;
    EXPECT_EQ(res->status, c.status) << c.target;
    EXPECT_NE(res->body.find(c.body), std::string::npos) << c.target << ": " << res->body;
    EXPECT_EQ(res->get_header_value("Content-Type"), c.contentType) << c.target;
  }
  auto const seen = server.requests();
  ASSERT_EQ(seen.size(), std::size(cases));
  EXPECT_EQ(seen[0].method, "GET");
  EXPECT_EQ(seen[0].path, "/acme/controller/v1/box7");
  EXPECT_EQ(seen[0].query, "x=1&y=2");
  EXPECT_EQ(seen[2].query, "");
  EXPECT_EQ(seen[4].path, "/nothing/here");
}

TEST(DdiTestServer, RecordsPostAndPutWithBodiesAndClientHeadersOnly) {
  DdiTestServer server;
  httplib::Client client(server.baseUrl());
  auto post = client.Post("/fb?a=b", {{"X-Trace", "t1"}}, R"({"status":1})", "application/json");
  ASSERT_TRUE(post);
  EXPECT_EQ(post->status, 200);
  EXPECT_EQ(post->body, "");
  auto put = client.Put("/cfg", "{}", "application/json");
  ASSERT_TRUE(put);
  EXPECT_EQ(put->status, 200);

  auto const posts = server.requests("POST");
  ASSERT_EQ(posts.size(), 1u);
  EXPECT_EQ(posts[0].path, "/fb");
  EXPECT_EQ(posts[0].query, "a=b");
  EXPECT_EQ(posts[0].body, R"({"status":1})");
  EXPECT_EQ(posts[0].header("x-trace"), "t1");
  EXPECT_EQ(posts[0].header("content-type"), "application/json");
  EXPECT_EQ(posts[0].header("Absent"), "");
  for (auto const& [name, value] : posts[0].headers) {
    EXPECT_EQ(name.find("REMOTE_"), std::string::npos) << name;
    EXPECT_EQ(name.find("LOCAL_"), std::string::npos) << name;
  }
  ASSERT_EQ(server.requests("PUT").size(), 1u);
  EXPECT_EQ(server.requests().size(), 2u);
  server.clearRequests();
  EXPECT_TRUE(server.requests().empty());
}

TEST(DdiTestServer, ArtifactRanges) {
  DdiTestServer server;
  std::string const url = server.addArtifact("/art/fw.bin", "0123456789");
  EXPECT_EQ(url, server.baseUrl() + "/art/fw.bin");
  server.addArtifact("/art/empty.bin", "");
  struct Case {
    std::string path, range;
    int status;
    std::string body, contentRange;
  } const cases[] = {
      {"/art/fw.bin", "", 200, "0123456789", ""},
      {"/art/fw.bin", "bytes=0-3", 206, "0123", "bytes 0-3/10"},
      {"/art/fw.bin", "bytes=7-", 206, "789", "bytes 7-9/10"},
      {"/art/fw.bin", "bytes=5-100", 206, "56789", "bytes 5-9/10"},
      {"/art/fw.bin", "bytes=-3", 206, "789", "bytes 7-9/10"},
      {"/art/fw.bin", "bytes=-30", 206, "0123456789", "bytes 0-9/10"},
      {"/art/fw.bin", "bytes=10-", 416, "", "bytes */10"},
      {"/art/fw.bin", "bytes=-0", 416, "", "bytes */10"},
      {"/art/empty.bin", "", 200, "", ""},
      {"/art/empty.bin", "bytes=0-", 416, "", "bytes */0"},
  };
  httplib::Client client(server.baseUrl());
  for (auto const& c : cases) {
    httplib::Headers headers;
    if (!c.range.empty()) headers.emplace("Range", c.range);
    auto res = client.Get(c.path.c_str(), headers);
    ASSERT_TRUE(res) << c.range;
    EXPECT_EQ(res->status, c.status) << c.range;
    EXPECT_EQ(res->body, c.body) << c.range;
    EXPECT_EQ(res->get_header_value("Content-Range"), c.contentRange) << c.range;
    EXPECT_EQ(res->get_header_value("Accept-Ranges"), "bytes") << c.range;
    if (c.status != 416) {
      EXPECT_EQ(res->get_header_value("Content-Length"), std::to_string(c.body.size()));
      EXPECT_EQ(res->get_header_value("Content-Type"), "application/octet-stream");
    }
  }
  EXPECT_EQ(server.requests().back().header("Range"), "bytes=0-");

  Fault ignore;
  ignore.ignoreRange = true;
  server.setFault("/art/fw.bin", ignore);
  auto res = client.Get("/art/fw.bin", {{"Range", "bytes=4-"}});
  ASSERT_TRUE(res);
  EXPECT_EQ(res->status, 200);
  EXPECT_EQ(res->body, "0123456789");
  EXPECT_FALSE(res->has_header("Content-Range"));
}

TEST(DdiTestServer, StatusFaultsOverrideEveryMethodUntilCleared) {
  DdiTestServer server;
  server.serve("/doc", "{}");
  struct Case {
    std::string name;
    Fault fault;
    int status;
    bool emptyBody;
  };
  Fault withBody, bare, empty;
  withBody.status = 503;
  bare.status = 410;
  bare.withBody = false;
  empty.emptyBody = true;
  Case const cases[] = {
      {"status with body", withBody, 503, false},
      {"status without body", bare, 410, true},
      {"empty 200", empty, 200, true},
  };
  httplib::Client client(server.baseUrl());
  for (auto const& c : cases) {
    server.setFault("/doc", c.fault);
    httplib::Result results[] = {client.Get("/doc"), client.Post("/doc", "{}", "text/plain"),
                                 client.Put("/doc", "{}", "text/plain")};
    for (auto const& res : results) {
      ASSERT_TRUE(res) << c.name;
      EXPECT_EQ(res->status, c.status) << c.name;
      EXPECT_EQ(res->body.empty(), c.emptyBody) << c.name << ": " << res->body;
      if (!c.emptyBody) {
        EXPECT_NE(res->body.find(R"("errorCode")"), std::string::npos);
      }
    }
  }
  server.clearFault("/doc");
  auto res = client.Get("/doc");
  ASSERT_TRUE(res);
  EXPECT_EQ(res->status, 200);
  EXPECT_EQ(res->body, "{}");
  EXPECT_EQ(server.requests().size(), 10u);  // faulted answers are recorded too
}

TEST(DdiTestServer, DropAfterBytesCutsTheBodyButAnnouncesItAll) {
  DdiTestServer server;
  std::string content(50000, '\0');
  for (size_t i = 0; i < content.size(); ++i) content[i] = static_cast<char>(i * 7);
  server.addArtifact("/big", content);
  Fault drop;
  drop.dropAfterBytes = 12345;
  server.setFault("/big", drop);
  httplib::Client client(server.baseUrl());
  for (std::string const range : {"", "bytes=30000-"}) {
    std::string announced, received;
    httplib::Headers headers;
    if (!range.empty()) headers.emplace("Range", range);
    auto res = client.Get(
        "/big", headers,
        [&](httplib::Response const& r) {
          announced = r.get_header_value("Content-Length");
          return true;
        },
        [&](char const* data, size_t n) {
          received.append(data, n);
          return true;
        });
    EXPECT_FALSE(res) << range;  // the connection closed early
    size_t const from = range.empty() ? 0 : 30000;
    EXPECT_EQ(announced, std::to_string(content.size() - from)) << range;
    EXPECT_EQ(received, content.substr(from, 12345)) << range;
  }
}

TEST(DdiTestServer, SlowStreamDeliversEverythingInDelayedPieces) {
  DdiTestServer server;
  server.addArtifact("/slow", std::string(1000, 's'));
  Fault slow;
  slow.chunkBytes = 200;
  slow.delayMs = 40;
  server.setFault("/slow", slow);
  httplib::Client client(server.baseUrl());
  auto const start = std::chrono::steady_clock::now();
  auto res = client.Get("/slow");
  auto const elapsed = std::chrono::steady_clock::now() - start;
  ASSERT_TRUE(res);
  EXPECT_EQ(res->body, std::string(1000, 's'));
  EXPECT_GE(elapsed, std::chrono::milliseconds(5 * 40));
}

TEST(DdiTestServer, RedirectsIncludingToItself) {
  DdiTestServer server;
  server.serve("/target", "here");
  Fault moved, loop;
  moved.redirectTo = "/target";
  loop.redirectTo = "/loop";
  server.setFault("/moved", moved);
  server.setFault("/loop", loop);
  httplib::Client client(server.baseUrl());
  auto res = client.Get("/moved");
  ASSERT_TRUE(res);
  EXPECT_EQ(res->status, 302);
  EXPECT_EQ(res->get_header_value("Location"), "/target");

  client.set_follow_location(true);
  res = client.Get("/moved");
  ASSERT_TRUE(res);
  EXPECT_EQ(res->body, "here");
  res = client.Get("/loop");
  EXPECT_EQ(res.error(), httplib::Error::ExceedRedirectCount);
  EXPECT_GT(server.requests().size(), 5u);
  EXPECT_EQ(server.requests().back().path, "/loop");
}

TEST(DdiTestServer, RequiredTokenRefusesOtherAuthorization) {
  DdiTestServer server;
  server.serve("/doc", "{}");
  server.setRequireToken("s3cret");
  struct Case {
    std::string authorization;
    int status;
  } const cases[] = {{"", 401},
                     {"TargetToken wrong", 401},
                     {"GatewayToken s3cret", 401},
                     {"TargetToken s3cret", 200}};
  httplib::Client client(server.baseUrl());
  for (auto const& c : cases) {
    httplib::Headers headers;
    if (!c.authorization.empty()) headers.emplace("Authorization", c.authorization);
    auto res = client.Get("/doc", headers);
    ASSERT_TRUE(res);
    EXPECT_EQ(res->status, c.status) << c.authorization;
    EXPECT_EQ(res->body, c.status == 200 ? "{}" : "") << c.authorization;
  }
  EXPECT_EQ(server.requests().size(), std::size(cases));
}

TEST(DdiTestServer, HttpsWithGeneratedOrGivenCertificate) {
  char dirName[] = "/tmp/ts-test-XXXXXX";
  std::string const dir = mkdtemp(dirName);
  DdiTestServer::Options given;
  given.https = true;
  given.certFile = dir + "/cert.pem";
  given.keyFile = dir + "/key.pem";
  ASSERT_TRUE(tamrel::testing::writeSelfSignedCertificate(given.certFile, given.keyFile));
  DdiTestServer::Options generated;
  generated.https = true;
  for (auto const& options : {given, generated}) {
    DdiTestServer server(options);
    server.serve("/doc", "{}");
    EXPECT_EQ(server.baseUrl().rfind("https://127.0.0.1:", 0), 0u);
    httplib::SSLClient trusting("127.0.0.1", server.port());
    trusting.set_ca_cert_path(server.certFile().c_str());
    trusting.enable_server_certificate_verification(true);
    auto res = trusting.Get("/doc");
    ASSERT_TRUE(res) << httplib::to_string(res.error());
    EXPECT_EQ(res->body, "{}");
    httplib::SSLClient untrusting("127.0.0.1", server.port());
    untrusting.enable_server_certificate_verification(true);
    EXPECT_FALSE(untrusting.Get("/doc"));
    EXPECT_EQ(server.requests().size(), 1u);
  }
  std::system(("rm -rf " + dir).c_str());
}

// Clients in the tests often outlive the server; their idle keep-alive
// connections must not hold up its destruction.
TEST(DdiTestServer, StopsAtOnceDespiteIdleKeepAliveConnections) {
  DdiTestServer::Options tls;
  tls.https = true;
  for (auto const& options : {DdiTestServer::Options{}, tls}) {
    std::unique_ptr<httplib::ClientImpl> client;
    auto server = std::make_unique<DdiTestServer>(options);
    server->serve("/doc", "{}");
    if (options.https) {
      client = std::make_unique<httplib::SSLClient>("127.0.0.1", server->port());
    } else {
      client = std::make_unique<httplib::ClientImpl>("127.0.0.1", server->port());
    }
    client->enable_server_certificate_verification(false);
    client->set_keep_alive(true);
    ASSERT_TRUE(client->Get("/doc"));
    auto const start = std::chrono::steady_clock::now();
    server.reset();
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(1000));
  }
}

TEST(DdiTestServer, ControllerBaseJsonLinksOnlyWhatIsAsked) {
  std::string const base = "http://h:1/T/controller/v1/c";
  auto link = [&](std::string const& name, std::string const& tail) {
    return "\"" + name + R"(":{"href":")" + base + tail + "\"}";
  };
  EXPECT_EQ(controllerBaseJson("http://h:1", "/T/controller/v1/c", "00:01:00", "5", "6", true),
            R"({"config":{"polling":{"sleep":"00:01:00"}},"_links":{)" +
                link("deploymentBase", "/deploymentBase/5?c=-2122565939") + "," +
                link("cancelAction", "/cancelAction/6") + "," + link("configData", "/configData") +
                "}}");
  EXPECT_EQ(controllerBaseJson("http://h:1", "/T/controller/v1/c", "00:00:10", "", "", false),
            R"({"config":{"polling":{"sleep":"00:00:10"}}})");
  EXPECT_EQ(controllerBaseJson("http://h:1", "/T/controller/v1/c", "00:00:10", "", "", true),
            R"({"config":{"polling":{"sleep":"00:00:10"}},"_links":{"configData":{"href":")" +
                base + R"(/configData"}}})");
}

TEST(RawCaptureServer, KeepsHeaderLinesExactlyAndInOrder) {
  RawCaptureServer raw;
  std::string const reply = exchange(raw.port(),
                                     "POST /x?y=1 HTTP/1.1\r\nHost: a\r\nzeta: 1\r\n"
                                     "Alpha:  two \r\nContent-Length: 5\r\n\r\nhello");
  EXPECT_EQ(reply.rfind("HTTP/1.1 200 OK\r\n", 0), 0u);
  EXPECT_EQ(reply.substr(reply.size() - 2), "{}");
  ASSERT_EQ(raw.requests().size(), 1u);
  auto const request = raw.requests()[0];
  EXPECT_EQ(request.requestLine, "POST /x?y=1 HTTP/1.1");
  EXPECT_EQ(request.headerLines,
            (std::vector<std::string>{"Host: a", "zeta: 1", "Alpha:  two ", "Content-Length: 5"}));
  EXPECT_EQ(request.body, "hello");
}

TEST(RawCaptureServer, CannedSilentAndCutAnswersOverSeveralConnections) {
  RawCaptureServer raw;
  httplib::Client client(raw.baseUrl());
  client.set_read_timeout(0, 300000);

  raw.setResponse("HTTP/1.1 204 No Content\r\nConnection: close\r\n\r\n");
  auto res = client.Post("/a", "data", "text/plain");
  ASSERT_TRUE(res);
  EXPECT_EQ(res->status, 204);

  raw.setResponse("HTTP/1.1 200 OK\r\nContent-Le");
  EXPECT_FALSE(client.Get("/b"));

  raw.setNeverAnswer(true);
  EXPECT_EQ(client.Get("/c").error(), httplib::Error::Read);

  ASSERT_TRUE(raw.waitForRequests(3, 2000));
  auto const seen = raw.requests();
  EXPECT_EQ(seen[0].requestLine, "POST /a HTTP/1.1");
  EXPECT_EQ(seen[0].body, "data");
  EXPECT_EQ(seen[1].requestLine, "GET /b HTTP/1.1");
  EXPECT_EQ(seen[2].requestLine, "GET /c HTTP/1.1");
}

}  // namespace
