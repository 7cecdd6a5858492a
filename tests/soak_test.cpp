// A long run of one client: poll, update feedback and config data, over and
// over. Descriptors and memory must stay flat and nothing unexpected may be
// logged. TAMREL_SOAK_CYCLES sets the length (`make soak` runs 2000).
#include <sys/resource.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <thread>

#include "ddiserver/ddidocument.h"
#include "ddiserver/ddiserver.h"
#include "plugin/libtamrelcore.h"
#include "tests/support/capture_stderr.h"
#include "tests/support/settings.h"
#include "tests/support/valgrind.h"
#include "transport/curlmanager.h"

namespace {

std::size_t openDescriptors() {
  auto const fds = std::filesystem::directory_iterator("/proc/self/fd");
  return static_cast<std::size_t>(std::distance(begin(fds), end(fds)));
}

// Peak resident memory so far, in KiB: a leak raises it.
long residentKiB() {
  rusage usage{};
  getrusage(RUSAGE_SELF, &usage);
  return usage.ru_maxrss;
}

TEST(Soak, PollFeedbackAndConfigDataStayFlat) {
  char const* setting = std::getenv("TAMREL_SOAK_CYCLES");
  int const cycles = setting ? std::max(std::atoi(setting), 20) : 200;

  tamrel::ddiserver::DdiServer server;
  server.setControllerBase(tamrel::ddiserver::controllerBaseJson(
      server.baseUrl(), server.controllerPath(), "00:05:00", "7", "", true));
  tamrel::ddiserver::DeploymentDocument deployment{"7", "forced", "forced", "", {}};
  deployment.chunks.push_back(
      {"os",
       "1",
       "fw",
       {{"fw.bin", 1, {{"sha1", "00"}}, {{"download-http", "http://x/fw.bin"}}}},
       false});
  server.setDeploymentBase("7", tamrel::ddiserver::deploymentBaseJson(deployment));
  auto const table = tamrel::testing::serverSettings(server.baseUrl());
  CurlManager transport;
  libtamrelcore client(&transport);
  ASSERT_TRUE(client.connectProperties(table));

  std::size_t fdsBefore = 0;
  long rssBefore = 0;
  auto const start = std::chrono::steady_clock::now();
  tamrel::testing::CaptureStderr capture;
  // The baseline is taken after a tenth of the cycles, once caches are warm.
  for (int i = 0; i < cycles; ++i) {
    if (i == cycles / 10) fdsBefore = openDescriptors(), rssBefore = residentKiB();
    hawkbit_query_t result = client.queryOnlineStatus();
    ASSERT_TRUE(is_valid(result.deployment)) << "cycle " << i;
    result.deployment.execution = execution_t::proceeding;
    result.deployment.finished = finished_t::none;
    ASSERT_TRUE(client.sendUpdateFeedback(result.deployment));
    ASSERT_TRUE(client.sendConfigData({{"cycle", std::to_string(i)}}));
    ASSERT_EQ(server.requests().size(), 4u) << "cycle " << i;
    server.clearRequests();  // the server's record would grow otherwise
  }
  double const seconds =
      std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
  // The server closes its end of a connection a moment after the client.
  std::size_t fdsAfter = openDescriptors();
  for (int i = 0; i < 200 && fdsAfter > fdsBefore; ++i) {
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
    fdsAfter = openDescriptors();
  }
  long const rssAfter = residentKiB();
  std::printf("[soak] %d cycles in %.1f s; descriptors %zu -> %zu; RSS %ld -> %ld KiB\n", cycles,
              seconds, fdsBefore, fdsAfter, rssBefore, rssAfter);
  EXPECT_LE(fdsAfter, fdsBefore);
// Sanitizers hold freed memory (quarantine, shadow, history) on purpose; an
// emulator counts its translated code in the process's size.
#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__) && !defined(TAMREL_EMULATED)
  if (!tamrel::testing::underValgrind()) {
    EXPECT_LE(rssAfter - rssBefore, 2048) << "KiB grown";
  }
#endif

  // Four information lines a cycle, nothing else.
  std::string const log = capture.text();
  EXPECT_EQ(std::count(log.begin(), log.end(), '\n'), 4 * cycles);
  for (char const* tag : {"[E]", "[W]"}) {
    EXPECT_EQ(log.find(tag), std::string::npos) << log.substr(0, 2000);
  }
}

}  // namespace
