// Throughput, memory and parsing benchmarks. Every figure is printed next to
// a peer measured in the same run; contenders alternate run by run.
#include <cjson/cJSON.h>
#include <fcntl.h>
#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <functional>
#include <iostream>
#include <memory>
#include <string>
#include <vector>

#include "io/fileio.h"
#include "io/md5sum.h"
#include "io/sha1sum.h"
#include "plugin/libtamrelcore.h"
#include "transport/curlmanager.h"
#ifdef TAMREL_BENCH_WITH_SERVER
#include "ddiserver/ddiserver.h"
#endif
#ifdef TAMREL_BENCH_WITH_AGENT
#include "agent/server/agenttransport.h"
#endif

namespace {

using Clock = std::chrono::steady_clock;
using artifact_t = hawkbit_query_t::deployment_t::chunk_t::artifact_t;

double seconds(std::function<void()> const& work) {
  auto const start = Clock::now();
  work();
  return std::chrono::duration<double>(Clock::now() - start).count();
}

struct Stats {
  double median, low, high;
};

Stats stats(std::vector<double> v) {
  std::sort(v.begin(), v.end());
  return {v[v.size() / 2], v.front(), v.back()};
}

void row(char const* what, Stats const& ours, Stats const& peer, double mib, char const* goal) {
  std::printf("%-44s %8.3f s [%6.3f..%6.3f]  peer %8.3f s [%6.3f..%6.3f]  ratio %5.3f  ", what,
              ours.median, ours.low, ours.high, peer.median, peer.low, peer.high,
              ours.median / peer.median);
  if (mib > 0) std::printf("(%.0f vs %.0f MiB/s) ", mib / ours.median, mib / peer.median);
  std::printf("goal %s\n", goal);
  std::fflush(stdout);
}

std::string digestOf(std::string const& path, bool sha1) {
  std::ifstream in(path, std::ios::binary);
  std::unique_ptr<hashbase> h;
  if (sha1)
    h = std::make_unique<sha1sum>();
  else
    h = std::make_unique<md5sum>();
  std::vector<char> block(1 << 20);
  while (in) {
    in.read(block.data(), static_cast<std::streamsize>(block.size()));
    h->write(block.data(), static_cast<unsigned int>(in.gcount()));
  }
  return h->hash();
}

void run(std::string const& command) {
  if (std::system(command.c_str()) != 0) {
    std::fprintf(stderr, "command failed: %s\n", command.c_str());
    std::exit(1);
  }
}

long peakRssKiB() {
  std::ifstream status("/proc/self/status");
  std::string line;
  while (std::getline(status, line)) {
    if (line.rfind("VmHWM:", 0) == 0) return std::atol(line.c_str() + 6);
  }
  return -1;
}

// Silences the library's log lines (stderr) for the timed part.
struct QuietStderr {
  QuietStderr() {
    std::fflush(stderr);
    saved = dup(2);
    int null = open("/dev/null", O_WRONLY);
    dup2(null, 2);
    close(null);
  }
  ~QuietStderr() {
    std::fflush(stderr);
    dup2(saved, 2);
    close(saved);
  }
  int saved;
};

artifact_t makeArtifact(std::string const& url, std::string const& source, std::string const& dir,
                        bool sha1) {
  artifact_t a;
  a.filename = "artifact.bin";
  std::ifstream in(source, std::ios::binary | std::ios::ate);
  a.size = static_cast<std::uint64_t>(in.tellg());
  a.destination = dir;
  if (sha1)
    a.hashes["sha1"] = digestOf(source, true);
  else
    a.hashes["md5"] = digestOf(source, false);
  a.links["download-http"] = url;
  return a;
}

// 1, 2: download with hashing on the way vs curl then openssl.
void downloadVsCurl(std::string const& url, std::string const& source, std::string const& dir,
                    int runs) {
  libtamrelcore client(nullptr);
  double const mib =
      static_cast<double>(std::ifstream(source, std::ios::ate | std::ios::binary).tellg()) /
      1048576.0;
  for (bool sha1 : {true, false}) {
    artifact_t const a = makeArtifact(url, source, dir, sha1);
    std::string const file = dir + "/artifact.bin";
    std::string const peer = "curl -s -o " + dir + "/curl.bin " + url + " && openssl " +
                             (sha1 ? "sha1 " : "md5 ") + dir + "/curl.bin >/dev/null";
    std::vector<double> ours, theirs;
    for (int i = 0; i < runs; ++i) {
      std::remove(file.c_str());
      {
        QuietStderr quiet;
        ours.push_back(seconds([&] {
          if (client.downloadArtifact("bench", a) != download_ok) std::abort();
        }));
      }
      std::remove((dir + "/curl.bin").c_str());
      theirs.push_back(seconds([&] { run(peer); }));
    }
    row(sha1 ? "download+SHA-1 vs curl && openssl sha1" : "download+MD5 vs curl && openssl md5",
        stats(ours), stats(theirs), mib, "< 0.9");
  }
}

// 3: verification vs openssl and coreutils on the same file.
void verifyVsTools(std::string const& source, std::string const& dir, int runs) {
  libtamrelcore client(nullptr);
  double const mib =
      static_cast<double>(std::ifstream(source, std::ios::ate | std::ios::binary).tellg()) /
      1048576.0;
  run("cp " + source + " " + dir + "/artifact.bin");
  struct Peer {
    bool sha1;
    char const* name;
    std::string command;
  } const peers[] = {
      {true, "verify SHA-1 vs openssl sha1", "openssl sha1 " + dir + "/artifact.bin >/dev/null"},
      {true, "verify SHA-1 vs sha1sum", "sha1sum " + dir + "/artifact.bin >/dev/null"},
      {false, "verify MD5 vs openssl md5", "openssl md5 " + dir + "/artifact.bin >/dev/null"},
  };
  for (Peer const& peer : peers) {
    artifact_t const a = makeArtifact("", source, dir, peer.sha1);
    std::vector<double> ours, theirs;
    for (int i = 0; i < runs; ++i) {
      ours.push_back(seconds([&] {
        if (!client.verifyArtifact(a)) std::abort();
      }));
      theirs.push_back(seconds([&] { run(peer.command); }));
    }
    row(peer.name, stats(ours), stats(theirs), mib,
        "throughput >= 0.95 of the tool (ratio <= 1.05)");
  }
}

// 4: one download and one verification in this process; prints peak RSS.
void peakMemory(std::string const& url, std::string const& source, std::string const& dir) {
  libtamrelcore client(nullptr);
  artifact_t const a = makeArtifact(url, source, dir, true);
  long const before = peakRssKiB();
  {
    QuietStderr quiet;
    if (client.downloadArtifact("bench", a) != download_ok) std::abort();
  }
  if (!client.verifyArtifact(a)) std::abort();
  std::printf("peak-rss-kib %ld (before transfer %ld)\n", peakRssKiB(), before);
}

// 5: a resumed download (half on disk) vs a whole one, and what re-reading
// the half on disk into the digest costs next to hashing it with 1 MiB reads.
void resumeVsWhole(std::string const& url, std::string const& source, std::string const& dir,
                   int runs) {
  libtamrelcore client(nullptr);
  artifact_t const a = makeArtifact(url, source, dir, true);
  std::string const file = dir + "/artifact.bin";
  long long const half = static_cast<long long>(a.size / 2);
  std::vector<double> resumed, whole, rehash, hashHalf;
  for (int i = 0; i < runs; ++i) {
    run("head -c " + std::to_string(half) + " " + source + " > " + file);
    rehash.push_back(seconds([&] {
      fileio existing(file);
      existing.setHash(std::make_unique<sha1sum>());
    }));
    hashHalf.push_back(seconds([&] { digestOf(file, true); }));
    {
      QuietStderr quiet;
      resumed.push_back(seconds([&] {
        if (client.downloadArtifact("bench", a) != download_ok) std::abort();
      }));
    }
    std::remove(file.c_str());
    QuietStderr quiet;
    whole.push_back(seconds([&] {
      if (client.downloadArtifact("bench", a) != download_ok) std::abort();
    }));
  }
  row("resumed (half on disk) vs whole download", stats(resumed), stats(whole), 0,
      "about 0.5 + re-hash share");
  row("re-hash of the half vs hashing it (1 MiB reads)", stats(rehash), stats(hashHalf),
      static_cast<double>(half) / 1048576.0, "<= 1.05");
}

// 6: what key matching costs on top of parsing.
void parseCost(int runs) {
  std::string doc =
      R"({"id":"42","deployment":{"download":"forced","update":"forced","chunks":[{"part":"os","version":"1","name":"big","artifacts":[)";
  for (int i = 0; i < 1000; ++i) {
    if (i) doc += ",";
    doc +=
        R"({"filename":"file)" + std::to_string(i) +
        R"(.bin","hashes":{"sha1":"2fd4e1c67a2d28fced849ee1bb76e7391b93eb12","md5":"9e107d9d372bb6826bd81d3542a419d6","sha256":"d7a8fbb307d7809469ca9abcb0082e4f8d5651e46d3cdb762d02d0bf37c9e592"},"size":123456,"_links":{"download":{"href":"https://cdn.example.com/a/)" +
        std::to_string(i) + R"("},"download-http":{"href":"http://cdn.example.com/a/)" +
        std::to_string(i) + R"("},"md5sum":{"href":"https://cdn.example.com/a/)" +
        std::to_string(i) + R"(.MD5SUM"}}})";
  }
  doc += R"(],"metadata":[{"key":"k","value":"v"}]}]}})";
  libtamrelcore client(nullptr);
  std::vector<double> ours, bare;
  for (int i = 0; i < runs; ++i) {
    ours.push_back(seconds([&] {
      hawkbit_query_t::deployment_t d;
      if (!client.parseDeploymentBase(doc, d) || d.chunks[0].artifacts.size() != 1000) std::abort();
    }));
    bare.push_back(seconds([&] { cJSON_Delete(cJSON_Parse(doc.c_str())); }));
  }
  row("parseDeploymentBase (1000 artifacts) vs cJSON_Parse", stats(ours), stats(bare), 0,
      "shows the cost of matching");
}

#ifdef TAMREL_BENCH_WITH_SERVER
// 7: whole poll cycles (three GETs each) against the in-process DDI server,
// next to bare libcurl GETs of the same three documents.
void pollCycles(int cycles) {
  tamrel::ddiserver::DdiServer server;
  std::string const base = server.baseUrl() + server.controllerPath();
  server.setControllerBase(tamrel::ddiserver::controllerBaseJson(
      server.baseUrl(), server.controllerPath(), "00:05:00", "7", "8", true));
  server.setDeploymentBase(
      "7", R"({"id":"7","deployment":{"chunks":[{"part":"os","name":"n","version":"1",)"
           R"("artifacts":[{"filename":"f","size":1,"hashes":{"sha1":"x"},"_links":{}}]}]}})");
  server.setCancelAction("8", R"({"id":"8","cancelAction":{"stopId":"7"}})");
  libtamrelcore client(nullptr);
  auto table = std::make_shared<lookup>(
      lookup{{"address", std::make_shared<value_container>(server.baseUrl())},
             {"tenant-id", std::make_shared<value_container>("DEFAULT")},
             {"controller-id", std::make_shared<value_container>("dev01")},
             {"token", std::make_shared<value_container>("t")}});
  client.connectProperties(table);
  std::vector<std::string> const urls{base, base + "/deploymentBase/7", base + "/cancelAction/8"};
  auto bareGet = [](std::string const& url) {
    CURL* curl = curl_easy_init();
    curl_easy_setopt(curl, CURLOPT_URL, url.c_str());
    curl_easy_setopt(
        curl, CURLOPT_WRITEFUNCTION, +[](char*, size_t size, size_t n, void*) { return size * n; });
    curl_easy_perform(curl);
    curl_easy_cleanup(curl);
  };
  double ours = 0, bare = 0;
  {
    QuietStderr quiet;
    ours = seconds([&] {
      for (int i = 0; i < cycles; ++i) {
        if (!is_valid(client.queryOnlineStatus().cancel_action)) std::abort();
      }
    });
  }
  bare = seconds([&] {
    for (int i = 0; i < cycles; ++i) {
      for (auto const& url : urls) bareGet(url);
    }
  });
  std::printf("poll cycles/s %.0f (3 GETs each)  bare libcurl 3-GET cycles/s %.0f  ratio %.3f\n",
              cycles / ours, cycles / bare, bare / ours);
}
#endif

#ifdef TAMREL_BENCH_WITH_AGENT
// 11: polls of the controller base at ADDRESS (https, its certificate signed
// by CA) through the agent's transport, its connection kept, next to the
// same transport opening a new connection and TLS session for each;
// alternating, RUNS rounds of POLLS polls.
void httpsPolls(std::string const& address, std::string const& ca, int polls, int runs) {
  auto table =
      std::make_shared<lookup>(lookup{{"address", std::make_shared<value_container>(address)},
                                      {"tenant-id", std::make_shared<value_container>("DEFAULT")},
                                      {"controller-id", std::make_shared<value_container>("dev01")},
                                      {"token", std::make_shared<value_container>("t")}});
  auto measure = [&](bool reuse) {
    AgentTransport::Settings settings;
    settings.address = address;
    settings.caFile = ca;
    settings.reuseConnections = reuse;
    AgentTransport transport(settings);
    libtamrelcore client(&transport);
    client.connectProperties(table);
    QuietStderr quiet;
    return seconds([&] {
      for (int i = 0; i < polls; ++i) {
        if (!is_valid(client.queryOnlineStatus().config)) std::abort();
      }
    });
  };
  std::vector<double> kept, fresh;
  for (int run = 0; run < runs; ++run) {
    if (run % 2 == 0) kept.push_back(measure(true));
    fresh.push_back(measure(false));
    if (run % 2 == 1) kept.push_back(measure(true));
  }
  std::string const what = std::to_string(polls) + " polls over HTTPS, kept vs new connections";
  row(what.c_str(), stats(kept), stats(fresh), 0, "");
}
#endif

}  // namespace

int main(int argc, char** argv) {
  std::vector<std::string> args(argv + 1, argv + argc);
  if (args.empty()) {
    std::fprintf(stderr,
                 "usage: tamrel_bench download URL SOURCE DIR RUNS | verify SOURCE DIR RUNS |\n"
                 "       memory URL SOURCE DIR | resume URL SOURCE DIR RUNS | parse RUNS |\n"
                 "       poll CYCLES | https-polls ADDRESS CA POLLS RUNS\n");
    return 2;
  }
  std::string const& what = args[0];
  if (what == "download" && args.size() == 5)
    downloadVsCurl(args[1], args[2], args[3], std::stoi(args[4]));
  else if (what == "verify" && args.size() == 4)
    verifyVsTools(args[1], args[2], std::stoi(args[3]));
  else if (what == "memory" && args.size() == 4)
    peakMemory(args[1], args[2], args[3]);
  else if (what == "resume" && args.size() == 5)
    resumeVsWhole(args[1], args[2], args[3], std::stoi(args[4]));
  else if (what == "parse" && args.size() == 2)
    parseCost(std::stoi(args[1]));
#ifdef TAMREL_BENCH_WITH_SERVER
  else if (what == "poll" && args.size() == 2)
    pollCycles(std::stoi(args[1]));
#endif
#ifdef TAMREL_BENCH_WITH_AGENT
  else if (what == "https-polls" && args.size() == 5)
    httpsPolls(args[1], args[2], std::stoi(args[3]), std::stoi(args[4]));
#endif
  else
    return 2;
  return 0;
}
