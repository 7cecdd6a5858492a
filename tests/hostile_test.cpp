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
#include "io/sha1sum.h"
#include "plugin/libtamrelcore.h"
#include "tests/support/capture_stderr.h"
#include "tests/support/settings.h"
#include "tests/support/temp_dir.h"
#include "tests/support/valgrind.h"
#include "testserver/dditestserver.h"
#include "testserver/rawcaptureserver.h"
#include "transport/curlmanager.h"

namespace {

using namespace tamrel::testing;
using artifact_t = hawkbit_query_t::deployment_t::chunk_t::artifact_t;

// The library has no time limits: a host bounds an operation by cancelling
// it from another thread. A cancel that lands between two transfers of one
// operation is forgotten, so the watchdog repeats it until the call is over.
struct Watchdog {
  Watchdog(libtamrelcore& client, int afterMs)
      : thread([this, &client, afterMs] {
          for (int waited = 0; !done; waited += 10) {
            if (waited >= afterMs) ++fired, client.cancelTransfer();
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
          }
        }) {}
  ~Watchdog() { done = true, thread.join(); }
  std::atomic<bool> done{false};
  std::atomic<int> fired{0};
  std::thread thread;
};

class Hostile : public ::testing::Test {
 protected:
  artifact_t artifactAt(std::string const& url) const {
    sha1sum hash;
    hash.write(content.data(), static_cast<unsigned int>(content.size()));
    artifact_t a;
    a.filename = "fw.bin";
    a.size = content.size();
    a.destination = dir.path();
    a.hashes = {{"sha1", hash.hash()}};
    a.links = {{"download-http", url}};
    return a;
  }

  DdiTestServer server;
  CurlManager transport;
  libtamrelcore client{&transport};
  TempDir dir;
  std::string const content = std::string(100000, 'a') + "tail";
};

TEST_F(Hostile, HangingAndMisbehavingServers) {
  RawCaptureServer silent, cut;
  silent.setNeverAnswer(true);
  cut.setResponse("HTTP/1.1 200 OK\r\nContent-Le");
  Fault trickle;  // a byte a second
  trickle.chunkBytes = 1;
  trickle.delayMs = 1000;
  server.addArtifact("/trickle", content);
  server.setFault("/trickle", trickle);
  server.setControllerBase(
      controllerBaseJson(server.baseUrl(), server.controllerPath(), "00:05:00", "1", "", false));
  server.setDeploymentBase("1", "{" + std::string(200, ' ') + "}");
  server.setFault(server.controllerPath() + "/deploymentBase/1", trickle);
  std::string const aborted = curl_easy_strerror(CURLE_ABORTED_BY_CALLBACK);
  struct Row {
    std::string address;      // poll this server...
    std::string artifactUrl;  // ...or download from here
    bool hangs;
    download_errors_t outcome;
    std::string log;
  };
  Row const rows[] = {
      // clang-format off
      {server.baseUrl(), "", true, download_ok, aborted + "\n[I] libtamrelcore -> Detected update"},
      {"", silent.baseUrl() + "/fw.bin", true, download_aborted, "fw.bin ([42] " + aborted + ")\n"},
      {"", server.baseUrl() + "/trickle", true, download_aborted, "fw.bin ([42] "},
      {"", cut.baseUrl() + "/fw.bin", false, download_hash_error, "Hash mis-match for: fw.bin\n"},
      // clang-format on
  };
  // Long enough for a healthy exchange to finish first, also under valgrind.
  int const watchdogMs = underValgrind() ? 6000 : 300;
  for (Row const& row : rows) {
    artifact_t const artifact = artifactAt(row.artifactUrl);
    std::remove(get_full_artifact_file_path(artifact).c_str());
    auto const bound = serverSettings(row.address);
    client.connectProperties(bound);
    CaptureStderr capture;
    download_errors_t outcome = download_ok;
    int fired = 0;
    {
      Watchdog watchdog(client, watchdogMs);
      if (row.artifactUrl.empty()) {
        client.queryOnlineStatus();
      } else {
        outcome = client.downloadArtifact("x", artifact);
      }
      fired = watchdog.fired;
    }
    std::string const where = row.address + row.artifactUrl + ": " + capture.text();
    EXPECT_EQ(fired > 0, row.hangs) << where;
    EXPECT_EQ(outcome, row.outcome) << where;
    EXPECT_NE(capture.text().find(row.log), std::string::npos) << where;
    if (row.artifactUrl.empty()) continue;
    // Nothing a misbehaving server left behind passes verification.
    EXPECT_EQ(client.verifyArtifact(artifact), outcome == download_ok) << where;
    EXPECT_EQ(readFile(get_full_artifact_file_path(artifact)) == content, outcome == download_ok)
        << where;
  }
}

TEST_F(Hostile, UntrustedCertificateIsRefusedBeforeAnyRequest) {
  DdiTestServer::Options options;
  options.https = true;
  DdiTestServer secure(options);
  secure.setControllerBase(R"({"config":{"polling":{"sleep":"00:05:00"}}})");
  auto const bound = serverSettings(secure.baseUrl());
  client.connectProperties(bound);
  std::string const refused = curl_easy_strerror(CURLE_PEER_FAILED_VERIFICATION);
  CaptureStderr capture;
  EXPECT_FALSE(is_valid(client.queryOnlineStatus()));
  EXPECT_EQ(client.downloadArtifact("x", artifactAt(secure.baseUrl() + "/fw.bin")),
            download_failed);
  EXPECT_FALSE(client.sendCancelActionFeedback(secure.baseUrl(), "1", "closed", "success", ""));
  for (std::string const line :
       {"Failed: ", "Failed to download: fw.bin ([60] ", "Unable to POST data: "}) {
    EXPECT_NE(capture.text().find(line + refused), std::string::npos) << capture.text();
  }
  EXPECT_TRUE(secure.requests().empty());
}

// Runs in a child process: trusts a test certificate for the name
// "otherhost" and the address 127.0.0.1 by binding it over the system bundle
// in a private mount namespace. Returns 77 when there is no namespace here,
// otherwise the number of failed checks.
int talkWithATrustedCertificate(std::string const& dir) {
  int const log = open((dir + "/child.log").c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
  dup2(log, 2);
  DdiTestServer::Options options;
  options.https = true;
  options.certFile = dir + "/cert.pem";
  options.keyFile = dir + "/cert.key";
  if (unshare(CLONE_NEWNS) != 0 || mount("none", "/", "none", MS_REC | MS_PRIVATE, nullptr) != 0 ||
      !writeSelfSignedCertificate(options.certFile, options.keyFile, "otherhost") ||
      mount(options.certFile.c_str(), "/etc/ssl/certs/ca-certificates.crt", "none", MS_BIND,
            nullptr) != 0)
    return 77;
  DdiTestServer secure(options);
  // Every link of the poll names the same server as "localhost", a name its
  // certificate does not carry.
  std::string const wrongName = "https://localhost:" + std::to_string(secure.port());
  secure.setControllerBase(
      controllerBaseJson(wrongName, secure.controllerPath(), "00:05:00", "1", "", true));
  CurlManager transport;
  libtamrelcore client(&transport);
  auto const table = serverSettings(secure.baseUrl());
  client.connectProperties(table);
  int failures = 0;
  auto check = [&](bool ok, char const* what) {
    if (!ok) ++failures, std::fprintf(stderr, "check failed: %s\n", what);
  };
  hawkbit_query_t const result = client.queryOnlineStatus();
  check(is_valid(result.config), "the certificate's address is accepted");
  check(result.deployment.id.empty(), "GET to a wrong name refused");
  check(!client.sendConfigData({{"k", "v"}}), "PUT to a wrong name refused");
  check(!client.sendCancelActionFeedback(wrongName, "1", "closed", "success", ""),
        "POST to a wrong name refused");
  check(secure.requests().size() == 1, "only the poll reached the server");
  return failures;
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
