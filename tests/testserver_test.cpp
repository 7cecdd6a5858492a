// The in-process test server itself, driven by a plain httplib client and
// raw sockets, so the library's tests can trust what it serves and records.
#include <gtest/gtest.h>
#include <httplib.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <memory>
#include <string>
#include <vector>

#include "testserver/dditestserver.h"
#include "testserver/rawcaptureserver.h"

namespace {

using tamrel::testing::DdiTestServer;
using tamrel::testing::Fault;
using tamrel::testing::RawCaptureServer;

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
