// CurlManager over real HTTP against the in-process test server.
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <chrono>
#include <csignal>
#include <fstream>
#include <thread>

#include "io/fileio.h"
#include "io/memoryio.h"
#include "io/nullhash.h"
#include "tests/support/capture_stderr.h"
#include "testserver/dditestserver.h"
#include "testserver/rawcaptureserver.h"
#include "transport/curlmanager.h"

namespace {

using tamrel::testing::CaptureStderr;
using tamrel::testing::DdiTestServer;
using tamrel::testing::Fault;
using tamrel::testing::RawCaptureServer;
using Clock = std::chrono::steady_clock;

std::shared_ptr<curlbuffer> memoryBuffer(std::string const& content = std::string()) {
  return std::make_shared<curlbuffer>(std::make_unique<memoryio>(content),
                                      std::make_unique<nullhash>());
}

class Transport : public ::testing::Test {
 protected:
  DdiTestServer server;
  CurlManager manager;
};

TEST(TransportHeaders, ExactLinesInOrder) {
  RawCaptureServer raw;
  CurlManager manager;
  manager.setTargetToken("");  // no token: the line ends with the blank
  EXPECT_TRUE(manager.download(raw.baseUrl() + "/get", memoryBuffer()));
  manager.setTargetToken("old");
  manager.setTargetToken("tok");  // replaces the first
  EXPECT_TRUE(manager.post(raw.baseUrl() + "/post", memoryBuffer("{\"a\":1}")));
  EXPECT_TRUE(manager.put(raw.baseUrl() + "/put", memoryBuffer("")));
  ASSERT_TRUE(raw.waitForRequests(3, 5000));
  auto const seen = raw.requests();
  std::string const host = "Host: 127.0.0.1:" + std::to_string(raw.port());
  std::string const agent = "User-Agent: " + userAgent();
  EXPECT_EQ(agent,
            "User-Agent: libcurl/" + std::string(curl_version_info(CURLVERSION_NOW)->version));
  EXPECT_EQ(seen[0].requestLine, "GET /get HTTP/1.1");
  EXPECT_EQ(seen[0].headerLines,
            (std::vector<std::string>{host, agent, "Content-Type: application/json",
                                      "Accept: application/json", "charsets: utf-8",
                                      "Authorization: TargetToken "}));
  std::vector<std::string> const sent{"Accept: application/json",
                                      "Content-Type: application/json;charset=UTF-8",
                                      "Authorization: TargetToken tok"};
  EXPECT_EQ(seen[1].requestLine, "POST /post HTTP/1.1");
  EXPECT_EQ(seen[1].headerLines, (std::vector<std::string>{host, agent, sent[0], sent[1], sent[2],
                                                           "Content-Length: 7"}));
  EXPECT_EQ(seen[1].body, "{\"a\":1}");
  EXPECT_EQ(seen[2].requestLine, "PUT /put HTTP/1.1");
  EXPECT_EQ(seen[2].headerLines, (std::vector<std::string>{host, agent, sent[0], sent[1], sent[2],
                                                           "Content-Length: 0"}));
  EXPECT_EQ(seen[2].body, "");
}

TEST_F(Transport, ErrorStatusIsDataNotFailure) {
  server.serve("/missing", R"({"errorCode":"hawkbit.server.error.repo.entitiyNotFound"})", 404);
  auto buffer = memoryBuffer();
  EXPECT_TRUE(manager.download(server.baseUrl() + "/missing", buffer));
  EXPECT_EQ(buffer->result, 0);
  EXPECT_EQ(buffer->httpCode, 404);
  EXPECT_NE(buffer->sink->data().find("entitiyNotFound"), std::string::npos);

  Fault denied;
  denied.status = 500;
  denied.withBody = false;
  server.setFault("/feedback", denied);
  EXPECT_TRUE(manager.post(server.baseUrl() + "/feedback", memoryBuffer("{}")));
  EXPECT_TRUE(manager.put(server.baseUrl() + "/feedback", memoryBuffer("{}")));
}

TEST_F(Transport, ResumesFromTheSinkSize) {
  std::string const content(3000, 'r');
  std::string const url = server.addArtifact("/a", content);
  auto buffer = memoryBuffer();
  buffer->sink->write(content.data(), 1000);
  CaptureStderr capture;
  EXPECT_TRUE(manager.download(url, buffer));
  EXPECT_EQ(capture.text(), "[I] libtamrelcore -> Resuming file from 1000 bytes\n");
  EXPECT_EQ(server.requests().back().header("Range"), "bytes=1000-");
  EXPECT_EQ(buffer->httpCode, 206);
  EXPECT_EQ(buffer->sink->data(), content);

  auto fresh = memoryBuffer();
  std::vector<int> chunks;
  fresh->written.connect([&](int n) { chunks.push_back(n); });
  EXPECT_TRUE(manager.download(url, fresh));
  EXPECT_EQ(server.requests().back().header("Range"), "");
  int total = 0;
  for (int n : chunks) total += n;
  EXPECT_EQ(total, 3000);
}

TEST_F(Transport, ConcurrencyCancelOnlyReachesARunningDownload) {
  std::string const url = server.addArtifact("/slow", std::string(200000, 's'));
  Fault slow;
  slow.chunkBytes = 2000;
  slow.delayMs = 10;
  server.setFault("/slow", slow);

  manager.cancelTransfer();  // before the transfer: forgotten
  server.serve("/doc", "{}");
  EXPECT_TRUE(manager.download(server.baseUrl() + "/doc", memoryBuffer()));

  auto buffer = memoryBuffer();
  std::thread canceller([&] {
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    manager.cancelTransfer();
  });
  CaptureStderr capture;
  EXPECT_FALSE(manager.download(url, buffer));
  canceller.join();
  EXPECT_EQ(buffer->result, CURLE_ABORTED_BY_CALLBACK);
  EXPECT_LT(buffer->sink->size(), 200000u);
  EXPECT_NE(capture.text().find("[E] libtamrelcore -> Download failed: "), std::string::npos);
}

// A file-size limit stands in for a full disk: libcurl's write error, and
// the file holds exactly what fitted.
TEST_F(Transport, FullDiskGivesAWriteError) {
  char dirName[] = "/tmp/tamrel-full-XXXXXX";
  std::string const dir = mkdtemp(dirName);
  std::string const url = server.addArtifact("/big", std::string(100000, 'b'));
  std::string const log = dir + "/log";
  pid_t const child = fork();
  ASSERT_GE(child, 0);
  if (child == 0) {
    std::signal(SIGXFSZ, SIG_IGN);
    std::freopen(log.c_str(), "w", stderr);
    rlimit limit{30000, 30000};
    setrlimit(RLIMIT_FSIZE, &limit);
    CurlManager own;
    auto buffer = std::make_shared<curlbuffer>(std::make_unique<fileio>(dir + "/file"),
                                               std::make_unique<nullhash>());
    bool const ok = own.download(url, buffer);
    std::fflush(stderr);
    _exit(!ok && buffer->result == CURLE_WRITE_ERROR ? 0 : 1);
  }
  int status = 0;
  waitpid(child, &status, 0);
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
  std::ifstream file(dir + "/file", std::ios::binary | std::ios::ate);
  EXPECT_EQ(static_cast<long long>(file.tellg()), 30000);
  std::ifstream in(log);
  std::string const text((std::istreambuf_iterator<char>(in)), {});
  EXPECT_NE(text.find("[E] libtamrelcore -> Unable to write "), std::string::npos) << text;
  EXPECT_NE(text.find(std::string("[E] libtamrelcore -> Download failed: ") +
                      curl_easy_strerror(CURLE_WRITE_ERROR)),
            std::string::npos)
      << text;
  std::system(("rm -rf " + dir).c_str());
}

}  // namespace
