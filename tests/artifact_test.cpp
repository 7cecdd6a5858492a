// Artifact download and verification against the in-process test server.
#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <functional>
#include <future>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "ddi/artifact_path.h"
#include "ddiserver/ddiserver.h"
#include "io/md5sum.h"
#include "io/sha1sum.h"
#include "plugin/libtamrelcore.h"
#include "tests/support/capture_stderr.h"
#include "tests/support/temp_dir.h"
#include "transport/curlmanager.h"

namespace {

using namespace tamrel::testing;
using namespace tamrel::ddiserver;
using artifact_t = hawkbit_query_t::deployment_t::chunk_t::artifact_t;

std::string patterned(std::size_t n) {
  std::string text(n, '\0');
  for (std::size_t i = 0; i < n; ++i) text[i] = static_cast<char>((i * 7919 + i / 251) & 0xff);
  return text;
}

template <typename Hash>
std::string digest(std::string const& data) {
  Hash h;
  h.write(data.data(), static_cast<unsigned int>(data.size()));
  return h.hash();
}

// The client's download signals as readable lines in emission order.
struct SignalLog {
  explicit SignalLog(libtamrelcore& client) {
    client.downloadStarted.connect(
        [this](std::string l, std::string f) { events.push_back("started " + l + " " + f); });
    client.downloadFinished.connect(
        [this](std::string l, std::string f, download_errors_t e, unsigned int s) {
          events.push_back("finished " + l + " " + f + " " + std::to_string(e) + " " +
                           std::to_string(s));
        });
    client.downloadProgress.connect([this](std::string, std::string, int p) {
      percents.push_back(p);
      events.push_back("progress " + std::to_string(p));
    });
    client.downloadBytes.connect([this](int n) {
      bytes += n;
      events.push_back("bytes " + std::to_string(n));
    });
  }
  std::vector<std::string> events;
  std::vector<int> percents;
  long long bytes = 0;
};

class Artifacts : public ::testing::Test {
 protected:
  void SetUp() override {
    artifact.filename = "fw.bin";
    artifact.size = content.size();
    artifact.destination = dir.path();
    artifact.hashes = {{"sha1", digest<sha1sum>(content)}, {"md5", digest<md5sum>(content)}};
    artifact.links = {{"download-http", url}, {"download", "https://unused.invalid/fw.bin"}};
  }
  std::string onDisk() const { return readFile(path()); }
  void putOnDisk(std::string const& data) const { writeFile(path(), data); }
  std::string path() const { return get_full_artifact_file_path(artifact); }
  std::string lastRange() const { return server.requests().back().header("Range"); }

  DdiServer server;
  CurlManager transport;
  libtamrelcore client{&transport};
  TempDir dir;
  std::string content = patterned(100000);
  std::string url = server.addArtifact("/artifacts/fw.bin", content);
  artifact_t artifact;
};

TEST_F(Artifacts, WholeDownloadReportsEverySignal) {
  Fault pieces;  // many writes smaller than one percent
  pieces.chunkBytes = 500;
  server.setFault("/artifacts/fw.bin", pieces);
  SignalLog log(client);
  EXPECT_EQ(client.downloadArtifact("chunk-1", artifact), download_ok);
  EXPECT_EQ(onDisk(), content);
  EXPECT_EQ(log.events.front(), "started chunk-1 fw.bin");
  EXPECT_EQ(log.events.back(), "finished chunk-1 fw.bin 0 200");
  EXPECT_EQ(log.bytes, 100000);
  ASSERT_FALSE(log.percents.empty());
  EXPECT_EQ(log.percents.back(), 100);
  // Each percentage once, rising, never 0.
  EXPECT_TRUE(std::is_sorted(log.percents.begin(), log.percents.end(), std::less_equal<int>()) &&
              log.percents.front() > 0);
  EXPECT_TRUE(client.verifyArtifact(artifact));

  putOnDisk(content.substr(0, 500));  // resuming from under one percent: no 0 % either
  log.events.clear();
  EXPECT_EQ(client.downloadArtifact("chunk-1", artifact), download_ok);
  EXPECT_EQ(log.events.at(0) + "|" + log.events.at(1), "bytes 500|started chunk-1 fw.bin");

  artifact.size = 0;  // an empty artifact has no percentages
  artifact.hashes = {{"sha1", digest<sha1sum>("")}};
  artifact.links["download-http"] = server.addArtifact("/artifacts/empty.bin", "");
  log.percents.clear();
  EXPECT_EQ(client.downloadArtifact("x", artifact), download_ok);
  EXPECT_TRUE(log.percents.empty());
  EXPECT_EQ(onDisk(), "");
}

TEST_F(Artifacts, RefusalsEmitNoSignal) {
  SignalLog log(client);
  CaptureStderr capture;
  artifact_t changed = artifact;
  changed.destination.clear();
  EXPECT_EQ(client.downloadArtifact("x", changed), download_invalid);
  changed = artifact;
  changed.links.erase("download-http");
  EXPECT_EQ(client.downloadArtifact("x", changed), download_invalid);
  changed.links = artifact.links;
  changed.hashes = {{"sha256", "00"}};
  EXPECT_EQ(client.downloadArtifact("x", changed), download_hash_error);
  EXPECT_TRUE(log.events.empty());
  EXPECT_TRUE(server.requests().empty());
  EXPECT_EQ(capture.text(),
            "[E] libtamrelcore -> No destination path specified. Aborting...\n"
            "[E] libtamrelcore -> Unable to find: download-http\n"
            "[E] libtamrelcore -> No hash found. Aborting...\n");
}

// SHA-1 wins over MD5 and compares exactly.
TEST_F(Artifacts, DigestDecides) {
  artifact.hashes["md5"] = "0123456789abcdef0123456789abcdef";
  EXPECT_EQ(client.downloadArtifact("x", artifact), download_ok);
  for (auto& c : artifact.hashes["sha1"]) c = static_cast<char>(toupper(c));
  putOnDisk("");
  CaptureStderr capture;
  EXPECT_EQ(client.downloadArtifact("x", artifact), download_hash_error);
  EXPECT_NE(capture.text().find("[E] libtamrelcore -> Hash mis-match for: fw.bin\n"),
            std::string::npos);
  EXPECT_FALSE(client.verifyArtifact(artifact));

  artifact.hashes = {{"md5", digest<md5sum>(content)}};
  putOnDisk("");
  EXPECT_EQ(client.downloadArtifact("x", artifact), download_ok);

  Fault cut;  // a body cut short by the server is judged by its digest too
  cut.dropAfterBytes = 50000;
  server.setFault("/artifacts/fw.bin", cut);
  putOnDisk("");
  EXPECT_EQ(client.downloadArtifact("x", artifact), download_hash_error);
}

// Someone truncates the file while it is being written: the next chunk is a
// short write, and the download fails instead of ending with a corrupt file.
TEST_F(Artifacts, FileTruncatedMidDownloadFails) {
  bool truncated = false;
  client.downloadBytes.connect([&](int) {
    if (!truncated && std::filesystem::file_size(path()) > 0) {
      std::filesystem::resize_file(path(), 0);
      truncated = true;
    }
  });
  SignalLog log(client);
  CaptureStderr capture;
  EXPECT_EQ(client.downloadArtifact("x", artifact), download_failed);
  EXPECT_TRUE(truncated);
  EXPECT_EQ(log.events.back(), "finished x fw.bin 3 200");
  EXPECT_NE(capture.text().find("[E] libtamrelcore -> Unable to write "), std::string::npos);
  EXPECT_NE(capture.text().find("Failed to download: fw.bin ([23] "), std::string::npos);
}

TEST_F(Artifacts, VerificationChecksLengthBeforeHashing) {
  putOnDisk(content);
  std::vector<unsigned int> blocks;
  client.verifyBytes.connect([&](unsigned int n) { blocks.push_back(n); });
  CaptureStderr capture;
  for (std::uint64_t listed : {content.size() - 1, content.size() + 1}) {  // longer, shorter file
    artifact_t other = artifact;
    other.size = listed;
    EXPECT_FALSE(client.verifyArtifact(other)) << listed;
  }
  EXPECT_TRUE(blocks.empty());

  std::vector<unsigned int> percents;
  client.verifyProgress.connect([&](std::string, unsigned int p) { percents.push_back(p); });
  artifact.hashes.erase("sha1");
  EXPECT_TRUE(client.verifyArtifact(artifact));  // MD5 alone
  std::vector<unsigned int> expected(24, 4096);
  expected.push_back(100000 - 24 * 4096);
  EXPECT_EQ(blocks, expected);
  EXPECT_EQ(percents.back(), 100u);
  EXPECT_TRUE(std::is_sorted(percents.begin(), percents.end(), std::less_equal<unsigned int>()));
  EXPECT_EQ(capture.text(),
            "[E] libtamrelcore -> Downloaded artifact \"fw.bin\" does not match expected size. "
            "Expected 99999 bytes, got 100000 bytes\n"
            "[E] libtamrelcore -> Downloaded artifact \"fw.bin\" does not match expected size. "
            "Expected 100001 bytes, got 100000 bytes\n");
}

// Another thread cancels once the first bytes are stored, and the download
// goes on only after that, so the cancel lands mid-transfer. The next call
// asks only for the rest and reports what was on disk first.
TEST_F(Artifacts, ConcurrencyCancelledDownloadIsResumedByTheNextCall) {
  Fault pieces;  // nothing more arrives for a long while after the first piece
  pieces.chunkBytes = 4096;
  pieces.delayMs = 500;
  server.setFault("/artifacts/fw.bin", pieces);
  bool first = true;
  client.downloadBytes.connect([&](int) {
    if (std::exchange(first, false)) {
      std::async(std::launch::async, [&] { client.cancelTransfer(); }).wait();
    }
  });
  SignalLog log(client);
  EXPECT_EQ(client.downloadArtifact("x", artifact), download_aborted);
  EXPECT_EQ(log.events.back(), "finished x fw.bin 1 200");
  std::string const partial = std::to_string(onDisk().size());
  ASSERT_GT(onDisk().size(), 0u);
  ASSERT_LT(onDisk().size(), content.size());

  server.clearFault("/artifacts/fw.bin");
  log.events.clear();
  CaptureStderr capture;
  EXPECT_EQ(client.downloadArtifact("x", artifact), download_ok);
  EXPECT_EQ(onDisk(), content);
  EXPECT_EQ(lastRange(), "bytes=" + partial + "-");
  ASSERT_GE(log.events.size(), 4u);
  EXPECT_EQ(log.events[0], "bytes " + partial);
  EXPECT_EQ(log.events[1].rfind("progress ", 0), 0u);
  EXPECT_EQ(log.events[2], "started x fw.bin");
  EXPECT_EQ(log.events.back(), "finished x fw.bin 0 206");
  EXPECT_EQ(capture.text(), "[I] libtamrelcore -> Starting to download: fw.bin (" + url +
                                ")\n[I] libtamrelcore -> Resuming file from " + partial +
                                " bytes\n[I] libtamrelcore -> Download finished (fw.bin)\n");
}

// Two downloads of one artifact on one client run one after the other: the
// second finds the complete file and starts again, never appending to it.
TEST_F(Artifacts, ConcurrencySecondDownloadOfTheSameFileWaits) {
  Fault slow;
  slow.chunkBytes = 4096;
  slow.delayMs = 5;
  server.setFault("/artifacts/fw.bin", slow);
  std::thread second;
  download_errors_t secondOutcome = download_invalid;
  client.downloadBytes.connect([&](int) {
    if (!second.joinable()) {
      second = std::thread([&] { secondOutcome = client.downloadArtifact("y", artifact); });
    }
  });
  EXPECT_EQ(client.downloadArtifact("x", artifact), download_ok);
  second.join();
  EXPECT_EQ(secondOutcome, download_ok);
  EXPECT_EQ(onDisk(), content);
  ASSERT_EQ(server.requests().size(), 2u);
  EXPECT_EQ(lastRange(), "");
}

// A sparse file beyond 4 GiB is measured at its true length; another client's
// cancel stops the hashing after a few blocks, and is forgotten by the next
// verification.
TEST_F(Artifacts, ConcurrencyVerifyHugeSparseFileAndCancelFromAnotherClient) {
  std::uint64_t const huge = (1ULL << 32) + 4097;
  putOnDisk("");
  std::filesystem::resize_file(path(), huge);
  artifact.size = huge;

  libtamrelcore other(nullptr);
  int blocks = 0, percents = 0;  // three blocks are not one percent
  client.verifyProgress.connect([&](std::string, unsigned int) { ++percents; });
  client.verifyBytes.connect([&](unsigned int) {
    if (++blocks == 3) other.cancelVerifyArtifact();
  });
  CaptureStderr capture;
  EXPECT_FALSE(client.verifyArtifact(artifact));
  EXPECT_EQ(blocks, 3);
  EXPECT_EQ(percents, 0);
  EXPECT_EQ(capture.text(),
            "[I] libtamrelcore -> SHA-1 checksum generation aborted\n"
            "[W] libtamrelcore -> SHA-1 does not match\n");

  putOnDisk(content);
  artifact.size = content.size();
  EXPECT_TRUE(client.verifyArtifact(artifact));
}

}  // namespace
