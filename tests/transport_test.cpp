// CurlManager over real HTTP against the in-process test server.
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>

#include "ddiserver/ddiserver.h"
#include "io/memoryio.h"
#include "io/nullhash.h"
#include "plugin/libtamrelcore.h"
#include "tests/support/capture_stderr.h"
#include "tests/support/rawcaptureserver.h"
#include "tests/support/temp_dir.h"
#include "transport/curlmanager.h"

namespace {

namespace fs = std::filesystem;
using tamrel::ddiserver::DdiServer;
using tamrel::ddiserver::Fault;
using tamrel::testing::CaptureStderr;
using tamrel::testing::RawCaptureServer;

std::shared_ptr<curlbuffer> memoryBuffer(std::string const& content = std::string()) {
  return std::make_shared<curlbuffer>(std::make_unique<memoryio>(content),
                                      std::make_unique<nullhash>());
}

class Transport : public ::testing::Test {
 protected:
  DdiServer server;
  CurlManager manager;
};

TEST_F(Transport, HeadersAreExactLinesInOrder) {
  RawCaptureServer raw;
  manager.setTargetToken("");  // no token: the line ends with the blank
  EXPECT_TRUE(manager.download(raw.baseUrl() + "/get", memoryBuffer()));
  manager.setTargetToken("tok");  // replaces the first
  EXPECT_TRUE(manager.post(raw.baseUrl() + "/post", memoryBuffer("{\"a\":1}")));
  EXPECT_TRUE(manager.put(raw.baseUrl() + "/put", memoryBuffer("")));
  auto const seen = raw.requests();
  auto const text = [](tamrel::testing::RawRequest const& request) {
    std::string all = request.requestLine;
    for (std::string const& line : request.headerLines) all += "|" + line;
    return all + "|" + request.body;
  };
  std::string const common = "|Host: 127.0.0.1:" + std::to_string(raw.port()) +
                             "|User-Agent: libcurl/" + curl_version_info(CURLVERSION_NOW)->version;
  std::string const json = "|Accept: application/json|Content-Type: application/json;charset=UTF-8";
  EXPECT_EQ(text(seen[0]), "GET /get HTTP/1.1" + common +
                               "|Content-Type: application/json|Accept: application/json"
                               "|charsets: utf-8|Authorization: TargetToken |");
  EXPECT_EQ(text(seen[1]), "POST /post HTTP/1.1" + common + json +
                               "|Authorization: TargetToken tok|Content-Length: 7|{\"a\":1}");
  EXPECT_EQ(text(seen[2]), "PUT /put HTTP/1.1" + common + json +
                               "|Authorization: TargetToken tok|Content-Length: 0|");
}

TEST_F(Transport, PostStaysPostAfterARedirect) {
  Fault moved;
  moved.redirectTo = "/moved";
  server.setFault("/feedback", moved);
  EXPECT_TRUE(manager.post(server.baseUrl() + "/feedback", memoryBuffer("{}")));
  auto const last = server.requests().back();
  EXPECT_EQ(last.method + " " + last.path + " " + last.body, "POST /moved {}");
}

// A cancel reaches only a download already running (here: from its first
// bytes); what it left in the sink is resumed by the next download.
TEST_F(Transport, CancelStopsARunningDownloadWhichThenResumes) {
  std::string const content = std::string(100000, 'a') + std::string(100000, 'b');
  std::string const url = server.addArtifact("/a", content);
  Fault slow;  // pieces apart in time, so that the cancel lands mid-body
  slow.chunkBytes = 2000;
  slow.delayMs = 10;
  server.setFault("/a", slow);
  manager.cancelTransfer();  // before the transfer: forgotten
  server.serve("/doc", "{}");
  EXPECT_TRUE(manager.download(server.baseUrl() + "/doc", memoryBuffer()));

  auto buffer = memoryBuffer();
  bool armed = true;
  buffer->written.connect([&](int) {
    if (armed) manager.cancelTransfer();
  });
  {
    CaptureStderr capture;
    EXPECT_FALSE(manager.download(url, buffer));
    EXPECT_NE(capture.text().find("[E] libtamrelcore -> Download failed: "), std::string::npos);
  }
  EXPECT_EQ(buffer->result, CURLE_ABORTED_BY_CALLBACK);
  std::string const kept = std::to_string(buffer->sink->size());
  EXPECT_LT(buffer->sink->size(), content.size());
  armed = false;
  server.clearFault("/a");
  CaptureStderr capture;
  EXPECT_TRUE(manager.download(url, buffer));
  EXPECT_EQ(capture.text(), "[I] libtamrelcore -> Resuming file from " + kept + " bytes\n");
  EXPECT_EQ(server.requests().back().header("Range"), "bytes=" + kept + "-");
  EXPECT_EQ(buffer->sink->data(), content);
}

// A server's URL or redirect to file:// or gopher:// reads, writes and sends
// nothing: the gopher URL smuggles an HTTP request to a listener.
TEST_F(Transport, OnlyHttpAndHttpsAreSpoken) {
  tamrel::testing::TempDir const tmp;
  fs::path const dir = tmp.path(), secret = dir / "secret";
  std::ofstream(secret) << "secret";
  RawCaptureServer listener;
  std::string const gopher = "gopher://127.0.0.1:" + std::to_string(listener.port()) +
                             "/_GET%20/smuggled%20HTTP/1.1%0D%0A%0D%0A";
  Fault toFile, toGopher;
  toFile.redirectTo = "file://" + secret.string();
  toGopher.redirectTo = gopher;
  server.setFault("/to-file", toFile);
  server.setFault("/to-gopher", toGopher);
  std::string const urls[] = {toFile.redirectTo, "file://" + (dir / "out").string(), gopher,
                              server.baseUrl() + "/to-file", server.baseUrl() + "/to-gopher"};
  for (std::string const& url : urls) {
    auto body = memoryBuffer();
    EXPECT_FALSE(manager.download(url, body)) << url;
    EXPECT_EQ(body->sink->data(), "") << url;
    EXPECT_FALSE(manager.post(url, memoryBuffer("{}"))) << url;
    EXPECT_FALSE(manager.put(url, memoryBuffer("{}"))) << url;
  }
  EXPECT_FALSE(fs::exists(dir / "out"));
  EXPECT_EQ(fs::file_size(secret), 6u);  // "secret", not overwritten
  EXPECT_TRUE(listener.requests().empty());
}

// /dev/full takes no byte: a block written through at once fails in the
// transfer, a short body only when flushed; either is a failed download, not
// one judged by its digest.
TEST_F(Transport, FullDiskIsAFailedDownload) {
  std::pair<std::size_t, char const*> const rows[] = {
      {100000, "[E] libtamrelcore -> Unable to write "},
      {600, "[E] libtamrelcore -> Unable to write buffered data to file: /dev/full\n"},
  };
  libtamrelcore client(&manager);
  for (auto const& [size, line] : rows) {
    std::string const content(size, 'f');
    hawkbit_query_t::deployment_t::chunk_t::artifact_t const artifact{
        "full",
        size,
        "/dev",
        "",
        {{"sha1", "x"}},
        {{"download-http", server.addArtifact("/f" + std::to_string(size), content)}}};
    CaptureStderr capture;
    EXPECT_EQ(client.downloadArtifact("x", artifact), download_failed) << size;
    std::string const log = capture.text();
    EXPECT_NE(log.find(line), std::string::npos) << log;
    EXPECT_NE(log.find("Failed to download: full ([23] "), std::string::npos) << log;
  }
}

}  // namespace
