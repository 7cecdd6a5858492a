// tamrel-agent: the reference host of libtamrelcore. Loads the plug-in,
// binds its settings and runs the update loop; --demo runs a whole cycle
// against an in-process DDI server.
#include <ftw.h>
#include <signal.h>
#include <stdlib.h>

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <cstring>
#include <memory>
#include <random>
#include <string>
#include <thread>

#include <openssl/md5.h>
#include <openssl/sha.h>

#include "agent/agentconfig.h"
#include "agent/pluginloader.h"
#include "agent/updateagent.h"

namespace {

char const kUsage[] = "usage: tamrel-agent [--plugin PATH] (--config FILE [--once] | --demo)\n";

sigset_t stopSignals() {
  sigset_t set;
  sigemptyset(&set);
  sigaddset(&set, SIGINT);
  sigaddset(&set, SIGTERM);
  sigaddset(&set, SIGUSR1);
  return set;
}

// A thread that turns SIGINT/SIGTERM into a clean stop of the agent. The
// signals are blocked in every thread (main blocks them first), so only
// this thread receives them, outside any signal handler.
class SignalThread {
 public:
  explicit SignalThread(UpdateAgent& agent) : set_(stopSignals()) {
    thread_ = std::thread([this, &agent] {
      for (;;) {
        int number = 0;
        sigwait(&set_, &number);
        if (closing_) return;
        if (number == SIGINT || number == SIGTERM) {
          std::printf("\nsignal %d: stopping\n", number);
          agent.stop();
        }
      }
    });
  }
  ~SignalThread() {
    closing_ = true;
    pthread_kill(thread_.native_handle(), SIGUSR1);
    thread_.join();
  }

 private:
  sigset_t set_;
  std::atomic<bool> closing_{false};
  std::thread thread_;
};

}  // namespace

int main(int argc, char** argv) {
  sigset_t const signals = stopSignals();
  pthread_sigmask(SIG_BLOCK, &signals, nullptr);
  std::string pluginPath, configPath;
  bool once = false, demo = false;
  for (int i = 1; i < argc; ++i) {
    std::string const arg = argv[i];
    if (arg == "--plugin" && i + 1 < argc) {
      pluginPath = argv[++i];
    } else if (arg == "--config" && i + 1 < argc) {
      configPath = argv[++i];
    } else if (arg == "--once") {
      once = true;
    } else if (arg == "--demo") {
      demo = true;
    } else if (arg == "--help" || arg == "-h") {
      std::fputs(kUsage, stdout);
      return 0;
    } else {
      std::fputs(kUsage, stderr);
      return 2;
    }
  }
  if (demo == !configPath.empty()) {
    std::fputs(kUsage, stderr);
    return 2;
  }
  setvbuf(stdout, nullptr, _IOLBF, 0);

  // Declared before the configuration so that it is destroyed after it: the
  // library adds entries to the property table, and their code lives in the
  // plug-in, so the table must go before the plug-in is closed.
  std::unique_ptr<PluginLoader> plugin;
  AgentConfig config;
  if (!demo) {
    try {
      config = AgentConfig::fromFile(configPath);
    } catch (ConfigError const& error) {
      std::fprintf(stderr, "tamrel-agent: %s\n", error.what());
      return 2;
    }
  }
  plugin = std::make_unique<PluginLoader>(pluginPath);
  if (plugin->client() == nullptr) {
    std::fprintf(stderr, "tamrel-agent: %s\n", plugin->error().c_str());
    return 1;
  }
  std::printf("plug-in %s (%s)\n", plugin->path().c_str(), plugin->client()->uuid().c_str());
  if (demo) {
    std::fputs("tamrel-agent: the demo is the program tamrel-demo\n", stderr);
    return 2;
  }

  UpdateAgent agent(*plugin->client(), config);
  agent.progress().captureStderr();
  SignalThread stopper(agent);
  if (!agent.connect()) {
    std::fprintf(stderr, "tamrel-agent: %s: no token or token-file set\n", configPath.c_str());
    return 2;
  }
  while (!agent.stopping()) {
    std::int64_t const sleep = agent.cycle().sleepSeconds;
    if (once) break;
    // The server's interval, at least 5 s; 30 s when it named none.
    agent.sleep(sleep > 0 ? std::max<std::int64_t>(sleep, 5) : 30);
  }
  return 0;
}
