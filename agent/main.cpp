// tamrel-agent: the reference host of libtamrelcore. Loads the plug-in,
// binds its settings, checks the host and runs the update loop; --demo runs
// a whole cycle against an in-process DDI server.
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
#include "agent/console.h"
#include "agent/exitcode.h"
#include "agent/pluginloader.h"
#include "agent/startupcheck.h"
#include "agent/updateagent.h"
#include "testserver/dditestserver.h"

namespace {

#ifndef TAMREL_VERSION
#define TAMREL_VERSION "unknown"
#endif

char const kUsage[] =
    "usage: tamrel-agent [--plugin PATH] --config FILE [--once] [--download-only]\n"
    "       tamrel-agent --demo | --help | --version\n";

char const kHelp[] =
    "Polls a hawkBit server (DDI API), downloads, verifies and installs what it deploys.\n"
    "  --config FILE      the configuration (keys below)\n"
    "  --plugin PATH      the libtamrelcore plug-in [beside the program, then ../lib]\n"
    "  --once             poll once, handle what the server asks, exit with the status below\n"
    "  --download-only    without install-command: download and verify, report \"downloaded\"\n"
    "  --demo             a whole update against a built-in test server\n"
    "  --help, --version\n\n";

char const kExitCodes[] =
    "\nexit status:\n"
    "  0  nothing went wrong (also after SIGINT/SIGTERM)\n"
    "  1  a deployment failed or was refused (--once)\n"
    "  2  configuration error, or the host is not ready (directories, commands, plug-in)\n"
    "  3  the server could not be reached, refused the token, or a poll timed out (--once)\n"
    "  4  a POST/PUT to the server passed feedback-timeout-s\n"
    "Without --once the agent keeps running through 1 and 3.\n";

std::string hex(unsigned char const* bytes, std::size_t n) {
  static char const digits[] = "0123456789abcdef";
  std::string text;
  for (std::size_t i = 0; i < n; ++i) {
    text += digits[bytes[i] >> 4];
    text += digits[bytes[i] & 15];
  }
  return text;
}

// The string value of "key" in a JSON text, "" when absent (enough for the
// feedback documents the library sends).
std::string jsonText(std::string const& json, std::string const& key) {
  std::string const marker = "\"" + key + "\":\"";
  std::size_t const start = json.find(marker);
  if (start == std::string::npos) return std::string();
  std::size_t const from = start + marker.size();
  return json.substr(from, json.find('"', from) - from);
}

void removeTree(char const* dir) {
  nftw(
      dir, [](char const* path, struct stat const*, int, FTW*) { return std::remove(path); }, 16,
      FTW_DEPTH | FTW_PHYS);
}

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

// Two chunks, three artifacts of a few MiB, one of them with MD5 only.
int runDemo(libtamrelcore& client) {
  tamrel::testing::DdiTestServer server;
  server.setRequireToken("demo-token");
  std::string const base = server.baseUrl();
  std::mt19937 random(42);
  struct Item {
    char const *chunk, *name;
    std::size_t size;
    bool sha1;
  } const items[] = {{"rootfs", "rootfs.img", 4u << 20, true},
                     {"rootfs", "rootfs.sig", 1u << 20, true},
                     {"app", "app.tar", 3u << 20, false}};
  std::string chunks;
  for (char const* chunk : {"rootfs", "app"}) {
    std::string artifacts;
    for (Item const& item : items) {
      if (std::strcmp(item.chunk, chunk) != 0) continue;
      std::string content(item.size, '\0');
      for (char& c : content) c = static_cast<char>(random());
      unsigned char sha[SHA_DIGEST_LENGTH], md5[MD5_DIGEST_LENGTH];
      SHA1(reinterpret_cast<unsigned char const*>(content.data()), content.size(), sha);
      MD5(reinterpret_cast<unsigned char const*>(content.data()), content.size(), md5);
      std::string const path = std::string("/artifacts/") + item.name;
      std::string const url = server.addArtifact(path, content);
      // Paced (about 8 MiB/s) so that the progress bars can be watched.
      tamrel::testing::Fault paced;
      paced.chunkBytes = 128 << 10;
      paced.delayMs = 15;
      server.setFault(path, paced);
      std::string hashes = "\"md5\":\"" + hex(md5, sizeof md5) + "\"";
      if (item.sha1) hashes = "\"sha1\":\"" + hex(sha, sizeof sha) + "\"," + hashes;
      artifacts += std::string(artifacts.empty() ? "" : ",") + "{\"filename\":\"" + item.name +
                   "\",\"hashes\":{" + hashes + "},\"size\":" + std::to_string(item.size) +
                   ",\"_links\":{\"download-http\":{\"href\":\"" + url + "\"}}}";
    }
    chunks += std::string(chunks.empty() ? "" : ",") + "{\"part\":\"" + chunk +
              "\",\"version\":\"2.0\",\"name\":\"" + chunk + "\",\"artifacts\":[" + artifacts +
              "]}";
  }
  server.setDeploymentBase("1",
                           "{\"id\":\"1\",\"deployment\":{\"download\":\"forced\","
                           "\"update\":\"forced\",\"chunks\":[" +
                               chunks + "]}}");
  server.setControllerBase(tamrel::testing::controllerBaseJson(base, server.controllerPath(),
                                                               "00:00:30", "1", "", true));

  char dir[] = "/tmp/tamrel-demo-XXXXXX";
  if (mkdtemp(dir) == nullptr) return 1;
  AgentConfig config;
  config.downloadDir = dir;
  config.attributes = {{"hw-revision", "2"}, {"serial", "demo-0001"}};
  auto& table = *config.properties;
  *table["address"] = base;
  *table["tenant-id"] = "DEFAULT";
  *table["controller-id"] = "dev01";
  *table["token"] = "demo-token";

  UpdateAgent agent(client, config);
  agent.progress().captureStderr();
  SignalThread signals(agent);
  std::printf("DDI test server on %s, downloads into %s\n\n", base.c_str(), dir);
  if (!agent.connect()) return 1;
  std::printf("== first poll: configuration request and a deployment\n");
  agent.cycle();

  std::printf("\n== second poll: a cancel request\n");
  server.setCancelAction("2", R"({"id":"2","cancelAction":{"stopId":"1"}})");
  server.setControllerBase(tamrel::testing::controllerBaseJson(base, server.controllerPath(),
                                                               "00:00:30", "", "2", false));
  agent.cycle();

  std::printf("\n== what the server received\n");
  std::string const controller = server.controllerPath();
  std::printf("  (~ is %s)\n", controller.c_str());
  int feedbacks = 0;
  bool deployed = false, cancelled = false;
  for (auto const& request : server.requests()) {
    std::string path = request.path;
    if (path.compare(0, controller.size(), controller) == 0)
      path = "~" + path.substr(controller.size());
    std::string note, details;
    if (request.path.find("/feedback") != std::string::npos) {
      std::string const status =
          jsonText(request.body, "execution") + "/" + jsonText(request.body, "finished");
      note = "feedback: " + status;
      ++feedbacks;
      bool const closed = status == "closed/success";
      if (request.path.find("/deploymentBase/1/") != std::string::npos) deployed = closed;
      if (request.path.find("/cancelAction/2/") != std::string::npos) cancelled = closed;
      std::size_t const list = request.body.find("\"details\":[");
      if (list != std::string::npos && request.body.compare(list + 10, 2, "[]") != 0) {
        details = request.body.substr(list + 10, request.body.find(']', list) - list - 9);
      }
    } else if (request.method == "PUT") {
      std::size_t const data = request.body.find("\"data\":");
      if (data != std::string::npos) {
        note =
            "attributes " + request.body.substr(data + 7, request.body.find('}', data) - data - 6);
      }
    }
    if (!note.empty()) path.resize(std::max<std::size_t>(path.size(), 34), ' ');
    std::printf("  %-4s %s%s%s\n", request.method.c_str(), path.c_str(), note.empty() ? "" : " ",
                note.c_str());
    if (!details.empty()) std::printf("       details %s\n", details.c_str());
  }
  removeTree(dir);
  std::printf(
      "\nsummary: %zu requests, %d feedback messages; deployment 1 %s, cancel request 2 %s\n",
      server.requests().size(), feedbacks, deployed ? "closed/success" : "NOT closed/success",
      cancelled ? "closed/success" : "NOT closed/success");
  return deployed && cancelled ? 0 : 1;
}

}  // namespace

int main(int argc, char** argv) {
  sigset_t const signals = stopSignals();
  pthread_sigmask(SIG_BLOCK, &signals, nullptr);
  std::string pluginPath, configPath;
  bool once = false, demo = false, downloadOnly = false;
  for (int i = 1; i < argc; ++i) {
    std::string const arg = argv[i];
    if (arg == "--plugin" && i + 1 < argc) {
      pluginPath = argv[++i];
    } else if (arg == "--config" && i + 1 < argc) {
      configPath = argv[++i];
    } else if (arg == "--once") {
      once = true;
    } else if (arg == "--download-only") {
      downloadOnly = true;
    } else if (arg == "--demo") {
      demo = true;
    } else if (arg == "--help" || arg == "-h") {
      std::printf("%s%s%s%s", kUsage, kHelp, AgentConfig::keysHelp().c_str(), kExitCodes);
      return kExitOk;
    } else if (arg == "--version") {
      std::printf("tamrel-agent %s\n", TAMREL_VERSION);
      return kExitOk;
    } else {
      std::fprintf(stderr, "tamrel-agent: unknown option '%s'\n%s", arg.c_str(), kUsage);
      return kExitConfig;
    }
  }
  if (demo == !configPath.empty()) {
    std::fputs(kUsage, stderr);
    return kExitConfig;
  }
  Console::install();

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
      return kExitConfig;
    }
    config.downloadOnly = downloadOnly;
    std::string const problem = StartupCheck::run(config);
    if (!problem.empty()) {
      std::fprintf(stderr, "tamrel-agent: %s: %s\n", configPath.c_str(), problem.c_str());
      return kExitConfig;
    }
  }
  plugin = std::make_unique<PluginLoader>(pluginPath);
  if (plugin->client() == nullptr) {
    std::fprintf(stderr, "tamrel-agent: %s\n", plugin->error().c_str());
    return kExitConfig;
  }
  std::printf("tamrel-agent %s, plug-in %s (%s)\n", TAMREL_VERSION, plugin->path().c_str(),
              plugin->client()->uuid().c_str());
  if (demo) return runDemo(*plugin->client());

  UpdateAgent agent(*plugin->client(), config);
  agent.progress().captureStderr();
  SignalThread stopper(agent);
  if (!agent.connect()) {
    std::fprintf(stderr, "tamrel-agent: %s: the library refused the settings\n",
                 configPath.c_str());
    return kExitConfig;
  }
  int status = kExitOk;
  while (!agent.stopping()) {
    UpdateAgent::Cycle const cycle = agent.cycle();
    if (once) {
      status = cycle.status;
      break;
    }
    // Failures (1, 3) are reported and the next poll tries again.
    agent.sleep(cycle.sleepSeconds);
  }
  return agent.stopping() ? kExitOk : status;
}
