// A hostile or broken server: hanging and misbehaving transports, and
// certificates that must not be accepted.
#include <fcntl.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/wait.h>
#include <unistd.h>

#include <curl/curl.h>
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <memory>
#include <string>
#include <thread>

#include "ddi/artifact_path.h"
#include "ddiserver/certificates.h"
#include "ddiserver/ddiserver.h"
#include "plugin/libtamrelcore.h"
#include "tests/support/capture_stderr.h"
#include "tests/support/rawcaptureserver.h"
#include "tests/support/settings.h"
#include "tests/support/temp_dir.h"
#include "tests/support/valgrind.h"
#include "transport/curlmanager.h"

namespace {

using namespace tamrel::testing;
using namespace tamrel::ddiserver;
using artifact_t = hawkbit_query_t::deployment_t::chunk_t::artifact_t;

// Cancels the client's transfers from another thread from `afterMs` on until
// it is destroyed: a cancel that lands between two transfers of one
// operation is forgotten, so it is repeated.
struct Watchdog {
  Watchdog(libtamrelcore& client, int afterMs)
      : thread([this, &client, afterMs] {
          for (int waited = 0; !done; waited += 10) {
            if (waited >= afterMs) client.cancelTransfer();
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
          }
        }) {}
  ~Watchdog() { done = true, thread.join(); }
  std::atomic<bool> done{false};
  std::thread thread;
};

class Hostile : public ::testing::Test {
 protected:
  artifact_t artifactAt(std::string const& url) const {
    artifact_t a;
    a.filename = "fw.bin";
    a.size = 1000;
    a.destination = dir.path();
    a.hashes = {{"sha1", "00"}};
    a.links = {{"download-http", url}};
    return a;
  }

  DdiServer server;
  CurlManager transport;
  libtamrelcore client{&transport};
  TempDir dir;
};

// The library has no time limits of its own: a host bounds an operation on a
// hanging server by cancelling it.
TEST_F(Hostile, HangingServersAreBoundedByTheHost) {
  RawCaptureServer silent, cut;
  silent.setNeverAnswer(true);
  cut.setResponse("HTTP/1.1 200 OK\r\nContent-Le");
  Fault trickle;  // a byte a second
  trickle.chunkBytes = 1;
  trickle.delayMs = 1000;
  server.setControllerBase(
      controllerBaseJson(server.baseUrl(), server.controllerPath(), "00:05:00", "1", "", false));
  server.setDeploymentBase("1", "{" + std::string(200, ' ') + "}");
  server.setFault(server.controllerPath() + "/deploymentBase/1", trickle);
  auto const bound = serverSettings(server.baseUrl());
  client.connectProperties(bound);
  std::string const aborted = curl_easy_strerror(CURLE_ABORTED_BY_CALLBACK);
  CaptureStderr capture;
  {
    // Long enough for a healthy exchange to finish first, also under valgrind.
    Watchdog watchdog(client, underValgrind() ? 6000 : 300);
    EXPECT_EQ(client.queryOnlineStatus().config.sleep, 300);  // the poll goes on
    EXPECT_EQ(client.downloadArtifact("x", artifactAt(silent.baseUrl() + "/fw.bin")),
              download_aborted);
  }
  std::string const log = capture.text();
  std::size_t const cancelled = log.find("Download failed: " + aborted + "\n");
  EXPECT_LT(cancelled, log.find("Server querying done")) << log;
  EXPECT_NE(log.find("Failed to download: fw.bin ([42] " + aborted + ")\n"), std::string::npos);

  // A head cut short ends the transfer; the digest rejects what is there.
  artifact_t const artifact = artifactAt(cut.baseUrl() + "/fw.bin");
  EXPECT_EQ(client.downloadArtifact("x", artifact), download_hash_error);
  EXPECT_FALSE(client.verifyArtifact(artifact));
}

TEST_F(Hostile, UntrustedCertificateIsRefusedBeforeAnyRequest) {
  DdiServer::Options options;
  options.https = true;
  DdiServer secure(options);
  secure.setControllerBase(R"({"config":{"polling":{"sleep":"00:05:00"}}})");
  auto const bound = serverSettings(secure.baseUrl());
  client.connectProperties(bound);
  std::string const refused = curl_easy_strerror(CURLE_PEER_FAILED_VERIFICATION);
  CaptureStderr capture;
  EXPECT_FALSE(is_valid(client.queryOnlineStatus()));
  EXPECT_FALSE(client.sendCancelActionFeedback(secure.baseUrl(), "1", "closed", "success", ""));
  for (std::string const line : {"Failed: ", "Unable to POST data: "}) {
    EXPECT_NE(capture.text().find(line + refused), std::string::npos) << capture.text();
  }
  EXPECT_TRUE(secure.requests().empty());
}

// Runs in a child process: trusts a test certificate for the name
// "otherhost" and the address 127.0.0.1 by binding it over the system bundle
// in a private mount namespace. Returns 77 when there is no namespace here,
// otherwise a bit for each failed check: 1 the address was refused, 2 a GET,
// 4 a PUT, 8 a POST to the wrong name went through, 16 the server saw more
// than the poll.
int talkWithATrustedCertificate(std::string const& dir) {
  int const log = open((dir + "/child.log").c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
  dup2(log, 2);
  DdiServer::Options options;
  options.https = true;
  options.certFile = dir + "/cert.pem";
  options.keyFile = dir + "/cert.key";
  if (unshare(CLONE_NEWNS) != 0 || mount("none", "/", "none", MS_REC | MS_PRIVATE, nullptr) != 0 ||
      !Certificates::writeSelfSigned(options.certFile, options.keyFile, "otherhost") ||
      mount(options.certFile.c_str(), "/etc/ssl/certs/ca-certificates.crt", "none", MS_BIND,
            nullptr) != 0)
    return 77;
  DdiServer secure(options);
  // Every link of the poll names the same server as "localhost", a name its
  // certificate does not carry.
  std::string const wrongName = "https://localhost:" + std::to_string(secure.port());
  secure.setControllerBase(
      controllerBaseJson(wrongName, secure.controllerPath(), "00:05:00", "1", "", true));
  CurlManager transport;
  libtamrelcore client(&transport);
  auto const table = serverSettings(secure.baseUrl());
  client.connectProperties(table);
  hawkbit_query_t const result = client.queryOnlineStatus();
  return (is_valid(result.config) ? 0 : 1) | (result.deployment.id.empty() ? 0 : 2) |
         (client.sendConfigData({{"k", "v"}}) ? 4 : 0) |
         (client.sendCancelActionFeedback(wrongName, "1", "closed", "success", "") ? 8 : 0) |
         (secure.requests().size() == 1 ? 0 : 16);
}

// No fixture: the child is forked while no other thread (a server) runs, so
// it cannot inherit a lock held by one.
TEST(TlsTrust, TrustedCertificateIsAcceptedOnlyForItsName) {
  TempDir const dir;
  pid_t const child = fork();
  if (child == 0) _exit(talkWithATrustedCertificate(dir.path()));
  int status = 0;
  ASSERT_EQ(waitpid(child, &status, 0), child);
  std::string const log = readFile(dir.path() + "/child.log");
  ASSERT_TRUE(WIFEXITED(status)) << log;
  if (WEXITSTATUS(status) == 77) GTEST_SKIP() << "no private mount namespace here";
  EXPECT_EQ(WEXITSTATUS(status), 0) << log;
}

}  // namespace
