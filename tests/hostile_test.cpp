// A hostile or broken server: malformed documents through a real poll, hanging
// and misbehaving transports, and certificates that must not be accepted.
#include <fcntl.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/wait.h>
#include <unistd.h>

#include <curl/curl.h>
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <fstream>
#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "ddi/artifact_path.h"
#include "io/sha1sum.h"
#include "plugin/libtamrelcore.h"
#include "tests/support/capture_stderr.h"
#include "testserver/dditestserver.h"
#include "testserver/rawcaptureserver.h"
#include "transport/curlmanager.h"

#if __has_include(<valgrind/valgrind.h>)
#include <valgrind/valgrind.h>
#else
#define RUNNING_ON_VALGRIND 0
#endif

namespace {

using tamrel::testing::CaptureStderr;
using tamrel::testing::DdiTestServer;
using tamrel::testing::Fault;
using tamrel::testing::RawCaptureServer;
using artifact_t = hawkbit_query_t::deployment_t::chunk_t::artifact_t;
using std::chrono::milliseconds;

std::shared_ptr<lookup> settings(std::string const& address) {
  auto text = [](std::string const& v) { return std::make_shared<value_container>(v.c_str()); };
  return std::make_shared<lookup>(lookup{{"address", text(address)},
                                         {"tenant-id", text("DEFAULT")},
                                         {"controller-id", text("dev01")},
                                         {"token", text("s3cret")}});
}

std::string sha1Of(std::string const& data) {
  sha1sum h;
  h.write(data.data(), static_cast<unsigned int>(data.size()));
  return h.hash();
}

// A deployment the client will report on.
hawkbit_query_t::deployment_t reportable() {
  hawkbit_query_t::deployment_t d;
  d.id = "1";
  d.chunks.resize(1);
  d.execution = execution_t::proceeding;
  d.finished = finished_t::none;
  return d;
}

// True when every piece occurs in `text`, in this order.
bool inOrder(std::string const& text, std::vector<std::string> const& pieces) {
  std::size_t at = 0;
  for (auto const& piece : pieces) {
    at = text.find(piece, at);
    if (at == std::string::npos) return false;
    at += piece.size();
  }
  return true;
}

// The library has no time limits: a host bounds an operation by cancelling
// it from another thread. A cancel that lands between two transfers of one
// operation is forgotten, so the watchdog repeats it until the call is over.
struct Watchdog {
  Watchdog(libtamrelcore& client, int afterMs)
      : thread([this, &client, afterMs] {
          for (int waited = 0; !done; waited += 10) {
            if (waited >= afterMs) ++fired, client.cancelTransfer();
            std::this_thread::sleep_for(milliseconds(10));
          }
        }) {}
  ~Watchdog() { done = true, thread.join(); }
  std::atomic<bool> done{false};
  std::atomic<int> fired{0};
  std::thread thread;
};

// Long enough for a healthy exchange to finish first, also under valgrind.
int watchdogMs() { return RUNNING_ON_VALGRIND ? 6000 : 300; }

class Hostile : public ::testing::Test {
 protected:
  void SetUp() override {
    char name[] = "/tmp/tamrel-hostile-XXXXXX";
    dir = mkdtemp(name);
    content = std::string(100000, 'a') + "tail";
    server.addArtifact("/fw.bin", content);
    ASSERT_TRUE(client.connectProperties(table));
  }
  void TearDown() override { std::system(("rm -rf " + dir).c_str()); }

  std::string base() const { return server.baseUrl() + server.controllerPath(); }
  std::string linking(bool deployment, bool cancel) const {
    std::string const d = R"("deploymentBase":{"href":")" + base() + R"(/deploymentBase/1?c=7"})";
    std::string const c = R"("cancelAction":{"href":")" + base() + R"(/cancelAction/2"})";
    return R"({"config":{"polling":{"sleep":"00:05:00"}},"_links":{)" + (deployment ? d : "") +
           (deployment && cancel ? "," : "") + (cancel ? c : "") + "}}";
  }
  artifact_t artifactAt(std::string const& url) const {
    artifact_t a;
    a.filename = "fw.bin";
    a.size = content.size();
    a.destination = dir;
    a.hashes = {{"sha1", sha1Of(content)}};
    a.links = {{"download-http", url}};
    return a;
  }
  std::string onDisk(artifact_t const& a) const {
    std::ifstream in(get_full_artifact_file_path(a), std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), {});
  }

  DdiTestServer server;
  std::shared_ptr<lookup> table = settings(server.baseUrl());
  CurlManager transport;
  libtamrelcore client{&transport};
  std::string dir, content;
};

TEST_F(Hostile, DocumentsThroughARealPoll) {
  std::string const huge(8 << 20, 'x');
  std::string entries = R"({"key":"k","value":")" + std::string(4096, 'v') + "\"}";
  for (int i = 0; i < 11; ++i) entries += "," + entries;  // 2048 entries
  std::string const deep = std::string(5000, '[') + std::string(5000, ']');
  std::string const poll = linking(true, true);
  std::string const truncated = poll.substr(0, poll.size() - 30);
  auto chunk = [](std::string const& inner) {
    return R"({"id":"1","deployment":{"chunks":[)" + inner + "]}}";
  };
  auto artifacts = [](hawkbit_query_t const& r) { return r.deployment.chunks.at(0).artifacts; };
  struct Row {
    char const* name;
    std::string poll, deployment, cancel;
    std::vector<std::string> log;  // in this order
    std::function<void(hawkbit_query_t const&)> check;
  };
  // clang-format off
  Row const rows[] = {
      {"truncated poll", truncated, "", "",
       {"[E] libtamrelcore -> Unable to parse JSON: " + truncated + "\n",
        "[E] libtamrelcore -> Failed to parse response!\n"},
       [](hawkbit_query_t const& r) { EXPECT_FALSE(is_valid(r)); }},
      {"truncated documents", poll, chunk(R"({"part":"os","artifacts":[{"filename":"a)"),
       R"({"id":"2","cancelAction":{"stopId":"1"})",
       {"Detected update", "Unable to parse JSON: ", "Unable to parse JSON: ", "querying done"},
       [](hawkbit_query_t const& r) {
         EXPECT_EQ(r.config.sleep, 300);
         EXPECT_FALSE(r.deployment.json.empty());
         EXPECT_TRUE(r.deployment.id.empty() && r.deployment.chunks.empty());
         EXPECT_FALSE(is_valid(r.deployment) || is_valid(r.cancel_action));
       }},
      {"16 MiB parsed, 8 MiB unterminated", poll,
       chunk(R"({"part":")" + huge + R"(","metadata":[)" + entries + "]}"), R"({"id":")" + huge,
       {"Detected update", "Unable to parse JSON: xxxx", "querying done"},
       [&](hawkbit_query_t const& r) {
         EXPECT_EQ(r.deployment.chunks.at(0).part.size(), huge.size());
         EXPECT_EQ(r.deployment.chunks.at(0).metadata.size(), 2048u);
         EXPECT_TRUE(r.cancel_action.id.empty());
       }},
      {"900 levels parse, 5000 do not", poll,
       chunk(std::string(900, '[') + std::string(900, ']')), deep,
       {"Detected update", "Unable to parse JSON: [[[[", "querying done"},
       [](hawkbit_query_t const& r) {
         EXPECT_EQ(r.deployment.chunks.size(), 1u);
         EXPECT_TRUE(r.cancel_action.stop_id.empty());
       }},
      {"invalid UTF-8 kept, NUL cuts, lone surrogate fails", poll,
       chunk("{\"part\":\"\xc0\xaf\",\"artifacts\":[{\"filename\":\"fw\\u0000/../x\","
             "\"hashes\":{\"sha1\":\"\xed\xa0\x80\"}}]}"),
       R"({"id":"\ud800","cancelAction":{"stopId":"1"}})",
       {"Detected update", "Unable to parse JSON: \\ud800", "querying done"},
       [&](hawkbit_query_t const& r) {
         EXPECT_EQ(r.deployment.chunks.at(0).part, "\xc0\xaf");
         EXPECT_EQ(artifacts(r).at(0).filename, "fw");
         EXPECT_EQ(artifacts(r).at(0).hashes.at("sha1"), "\xed\xa0\x80");
         EXPECT_TRUE(r.cancel_action.stop_id.empty());
       }},
      {"wrong types in the poll",
       R"({"config":{"polling":"00:05:00","polling2":{"sleep":300}},"_links":{"configData":)"
       R"({"href":7},"deploymentBase":{"href":[]},"cancelAction":{"href":{}}}})", "", "",
       {"Failed to parse response!\n"},
       [](hawkbit_query_t const& r) {
         EXPECT_EQ(r.config.sleep, 0);
         EXPECT_TRUE(r.deployment.url.empty() && r.cancel_action.url.empty() &&
                     r.config_data.url.empty());
       }},
      {"wrong types in the documents", poll,
       R"({"id":17,"deployment":{"chunks":[{"part":1,"version":[],"name":{},"artifacts":[)"
       R"({"filename":2,"hashes":{"sha1":3,"md5":"m"},"size":"10","_links":{"download-http":)"
       R"({"href":4},"x":[1]}}],"metadata":[{"key":5,"value":null}]}]}})",
       R"({"id":1,"cancelAction":{"stopId":2}})", {"Detected update", "querying done"},
       [&](hawkbit_query_t const& r) {
         auto const& c = r.deployment.chunks.at(0);
         EXPECT_TRUE(r.deployment.id.empty() && c.part.empty() && c.version.empty());
         artifact_t expected;
         expected.hashes = {{"md5", "m"}};
         EXPECT_EQ(artifacts(r), std::vector<artifact_t>{expected});
         EXPECT_EQ(c.metadata.size(), 1u);
         EXPECT_TRUE(r.cancel_action.id.empty() && r.cancel_action.stop_id.empty());
       }},
      {"sizes and names the host must check", poll,
       chunk(R"({"artifacts":[{"filename":"../../etc/passwd","size":-1},)"
             R"({"filename":"/etc/shadow","size":3000000000},{"filename":"","size":1e300}]})"),
       "", {"Detected update", "querying done"},
       [&](hawkbit_query_t const& r) {
         std::vector<std::string> paths;
         std::vector<std::uint64_t> sizes;
         for (artifact_t a : artifacts(r)) {
           a.destination = "/data";
           paths.push_back(get_full_artifact_file_path(a));
           sizes.push_back(a.size);
         }
         EXPECT_EQ(paths, (std::vector<std::string>{"/data/../../etc/passwd", "/data//etc/shadow",
                                                    "/data/"}));
         EXPECT_EQ(sizes, (std::vector<std::uint64_t>{~0ull, 2147483647, 2147483647}));
       }},
      {"empty documents", poll, "", "{}", {"Detected update", "JSON tree broken", "querying done"},
       [](hawkbit_query_t const& r) { EXPECT_TRUE(r.deployment.json.empty()); }},
  };
  // clang-format on
  for (Row const& row : rows) {
    server.setControllerBase(row.poll);
    server.setDeploymentBase("1", row.deployment);
    server.setCancelAction("2", row.cancel);
    server.clearRequests();
    CaptureStderr capture;
    hawkbit_query_t const result = client.queryOnlineStatus();
    std::string const log = capture.text();
    EXPECT_TRUE(inOrder(log, row.log)) << row.name << ": " << log.substr(0, 400);
    EXPECT_EQ(server.requests().size(), row.poll == poll ? 3u : 1u) << row.name;
    SCOPED_TRACE(row.name);
    if (row.check) row.check(result);
  }
}

TEST_F(Hostile, HangingAndMisbehavingServers) {
  RawCaptureServer silent, loop, cut, excess;
  silent.setNeverAnswer(true);
  loop.setResponse(
      "HTTP/1.1 302 Found\r\nLocation: /again\r\nContent-Length: 0\r\nConnection: close\r\n\r\n");
  cut.setResponse("HTTP/1.1 200 OK\r\nContent-Le");
  excess.setResponse("HTTP/1.1 200 OK\r\nContent-Length: " + std::to_string(content.size()) +
                     "\r\n\r\n" + content + "and more than was announced");
  Fault trickle;  // a byte a second
  trickle.chunkBytes = 1;
  trickle.delayMs = 1000;
  server.addArtifact("/trickle", content);
  server.setFault("/trickle", trickle);
  server.setControllerBase(linking(true, false));
  server.setDeploymentBase("1", "{" + std::string(200, ' ') + "}");
  server.setFault(server.controllerPath() + "/deploymentBase/1", trickle);
  // libcurl before 8.3 follows redirects without limit.
  bool const endless = curl_version_info(CURLVERSION_NOW)->version_num < 0x080300;
  std::string const aborted = curl_easy_strerror(CURLE_ABORTED_BY_CALLBACK);
  struct Row {
    char const* name;
    std::string address;      // poll this server...
    std::string artifactUrl;  // ...or download from here
    bool hangs;
    download_errors_t outcome;
    std::vector<std::string> log;
  };
  // clang-format off
  Row const rows[] = {
      {"poll redirected forever", loop.baseUrl(), "", endless, download_ok,
       {"Download failed: ", "[E] libtamrelcore -> Failed: "}},
      {"poll never answered", silent.baseUrl(), "", true, download_ok,
       {"Download failed: " + aborted + "\n", "Failed: " + aborted + "\n"}},
      {"deploymentBase trickles", server.baseUrl(), "", true, download_ok,
       {"Download failed: " + aborted + "\n", "Detected update", "Server querying done\n"}},
      // libcurl takes a head cut short for a complete answer without a body.
      {"poll cut mid-header", cut.baseUrl(), "", false, download_ok,
       {"Query response is empty. Unauthorized?\n"}},
      {"poll longer than announced", excess.baseUrl(), "", false, download_ok,
       {"Unable to parse JSON: aaaa"}},
      {"artifact redirected forever", "", loop.baseUrl() + "/fw.bin", endless,
       endless ? download_aborted : download_failed, {"Failed to download: fw.bin ("}},
      {"artifact never answered", "", silent.baseUrl() + "/fw.bin", true, download_aborted,
       {"Failed to download: fw.bin ([42] " + aborted + ")\n"}},
      {"artifact trickles", "", server.baseUrl() + "/trickle", true, download_aborted,
       {"Failed to download: fw.bin ([42] "}},
      {"artifact cut mid-header", "", cut.baseUrl() + "/fw.bin", false, download_hash_error,
       {"Hash mis-match for: fw.bin\n"}},
      {"artifact longer than announced", "", excess.baseUrl() + "/fw.bin", false, download_ok,
       {"Download finished (fw.bin)\n"}},
  };
  // clang-format on
  for (Row const& row : rows) {
    artifact_t const artifact = artifactAt(row.artifactUrl);
    std::remove(get_full_artifact_file_path(artifact).c_str());
    auto const bound = settings(row.address);
    client.connectProperties(bound);
    CaptureStderr capture;
    download_errors_t outcome = download_ok;
    int fired = 0;
    {
      Watchdog watchdog(client, watchdogMs());
      if (row.artifactUrl.empty()) {
        client.queryOnlineStatus();
      } else {
        outcome = client.downloadArtifact("x", artifact);
      }
      fired = watchdog.fired;
    }
    std::string const log = capture.text();
    EXPECT_EQ(fired > 0, row.hangs) << row.name << ": " << log.substr(0, 2000);
    EXPECT_EQ(outcome, row.outcome) << row.name;
    EXPECT_TRUE(inOrder(log, row.log)) << row.name << ": " << log.substr(0, 2000);
    if (row.artifactUrl.empty()) continue;
    // Nothing a misbehaving server left behind passes verification.
    EXPECT_EQ(client.verifyArtifact(artifact), outcome == download_ok) << row.name;
    EXPECT_EQ(onDisk(artifact) == content, outcome == download_ok) << row.name;
  }
  EXPECT_TRUE(!endless || loop.requests().size() > 20) << "it kept following";
}

class Tls : public Hostile {};

TEST_F(Tls, UntrustedCertificateIsRefusedBeforeAnyRequest) {
  DdiTestServer::Options options;
  options.https = true;
  DdiTestServer secure(options);
  secure.setControllerBase(R"({"config":{"polling":{"sleep":"00:05:00"}}})");
  secure.addArtifact("/fw.bin", content);
  auto const bound = settings(secure.baseUrl());
  client.connectProperties(bound);
  std::string const refused = curl_easy_strerror(CURLE_PEER_FAILED_VERIFICATION);
  CaptureStderr capture;
  EXPECT_FALSE(is_valid(client.queryOnlineStatus()));
  EXPECT_EQ(client.downloadArtifact("x", artifactAt(secure.baseUrl() + "/fw.bin")),
            download_failed);
  EXPECT_FALSE(client.sendUpdateFeedback(reportable()));
  EXPECT_TRUE(inOrder(
      capture.text(),
      {"Download failed: " + refused + "\n", "[E] libtamrelcore -> Failed: " + refused + "\n",
       "Failed to download: fw.bin ([60] " + refused + ")\n", "Unable to POST data: " + refused}))
      << capture.text();
  EXPECT_TRUE(secure.requests().empty());
}

// Runs in a child process: trusts two test certificates by binding a bundle
// over the system one in a private mount namespace, then polls. 77: no
// namespace here; otherwise the number of failed checks.
int pollWithTrustedCertificates(std::string const& dir) {
  int const log = open((dir + "/child.log").c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
  dup2(log, 2);
  std::string const bundle = "/etc/ssl/certs/ca-certificates.crt";
  if (unshare(CLONE_NEWNS) != 0 || mount("none", "/", "none", MS_REC | MS_PRIVATE, nullptr) != 0)
    return 77;
  using tamrel::testing::writeSelfSignedCertificate;
  if (!writeSelfSignedCertificate(dir + "/ip.pem", dir + "/ip.key", "127.0.0.1") ||
      !writeSelfSignedCertificate(dir + "/other.pem", dir + "/other.key", "otherhost") ||
      std::system(("cat " + dir + "/ip.pem " + dir + "/other.pem > " + dir + "/bundle").c_str()) ||
      mount((dir + "/bundle").c_str(), bundle.c_str(), "none", MS_BIND, nullptr) != 0)
    return 77;
  DdiTestServer::Options ip;
  ip.https = true;
  ip.certFile = dir + "/ip.pem";
  ip.keyFile = dir + "/ip.key";
  DdiTestServer::Options other;
  other.https = true;
  other.certFile = dir + "/other.pem";
  other.keyFile = dir + "/other.key";
  DdiTestServer ipServer(ip), otherServer(other);
  // "otherhost" also names IP 127.0.0.1, so only the name "localhost" is wrong.
  std::string const urls[] = {ipServer.baseUrl(),
                              "https://localhost:" + std::to_string(otherServer.port()),
                              otherServer.baseUrl()};
  bool const accepted[] = {true, false, true};
  int failures = 0;
  for (int i = 0; i < 3; ++i) {
    for (DdiTestServer* s : {&ipServer, &otherServer}) {
      s->setControllerBase(R"({"config":{"polling":{"sleep":"00:05:00"}}})");
      s->clearRequests();
    }
    CurlManager transport;
    libtamrelcore client(&transport);
    auto const table = settings(urls[i]);
    client.connectProperties(table);
    bool const ok = is_valid(client.queryOnlineStatus());
    std::size_t const seen = ipServer.requests().size() + otherServer.requests().size();
    if (ok != accepted[i] || seen != (accepted[i] ? 1u : 0u)) {
      ++failures;
      std::fprintf(stderr, "check %d failed: %s accepted %d, %zu requests\n", i, urls[i].c_str(),
                   ok, seen);
    }
  }
  return failures;
}

// No fixture: the child is forked while no other thread (a server) runs, so
// it cannot inherit a lock held by one.
TEST(TlsTrust, TrustedCertificateIsAcceptedOnlyForItsName) {
  char name[] = "/tmp/tamrel-tls-XXXXXX";
  std::string const dir = mkdtemp(name);
  struct Cleanup {
    std::string dir;
    ~Cleanup() { std::system(("rm -rf " + dir).c_str()); }
  } const cleanup{dir};
  pid_t const child = fork();
  if (child == 0) _exit(pollWithTrustedCertificates(dir));
  int status = 0;
  ASSERT_EQ(waitpid(child, &status, 0), child);
  std::ifstream in(dir + "/child.log");
  std::string const log((std::istreambuf_iterator<char>(in)), {});
  ASSERT_TRUE(WIFEXITED(status)) << log;
  if (WEXITSTATUS(status) == 77) GTEST_SKIP() << "no private mount namespace here";
  EXPECT_EQ(WEXITSTATUS(status), 0) << log;
  EXPECT_NE(log.find("Download failed: " +
                     std::string(curl_easy_strerror(CURLE_PEER_FAILED_VERIFICATION))),
            std::string::npos)
      << log;
}

}  // namespace
