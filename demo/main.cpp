// tamrel-demo: the agent's classes through a whole cycle against an
// in-process DDI server: configuration data, a deployment of two chunks and
// three artifacts, a cancel request, then what the server received; then an
// update that waits for the device's consent, confirmed by a consent command.
#include <ftw.h>
#include <sys/stat.h>

#include <algorithm>
#include <cstdio>
#include <random>
#include <string>

#include "agent/app/signalthread.h"
#include "agent/base/agentconfig.h"
#include "agent/base/console.h"
#include "agent/lifecycle/updateagent.h"
#include "ddiserver/ddidocument.h"
#include "ddiserver/ddiserver.h"
#include "ddiserver/hawkbittarget.h"
#include "digest/digest.h"

namespace {

namespace ddiserver = tamrel::ddiserver;

char const kUsage[] = "usage: tamrel-demo\n";

void removeTree(char const* dir) {
  nftw(
      dir, [](char const* path, struct stat const*, int, FTW*) { return std::remove(path); }, 16,
      FTW_DEPTH | FTW_PHYS);
}

// Two chunks, three artifacts of a few MiB, one of them with MD5 only.
ddiserver::DeploymentDocument offer(ddiserver::DdiServer& server) {
  struct Item {
    char const *chunk, *name;
    std::size_t size;
    bool sha1;
  } const items[] = {{"rootfs", "rootfs.img", 4u << 20, true},
                     {"rootfs", "rootfs.sig", 1u << 20, true},
                     {"app", "app.tar", 3u << 20, false}};
  std::mt19937 random(42);
  ddiserver::DeploymentDocument deployment;
  deployment.id = "1";
  for (std::string const chunk : {"rootfs", "app"}) {
    deployment.chunks.push_back({"os", "2.0", chunk, {}, false});
    for (Item const& item : items) {
      if (chunk != item.chunk) continue;
      std::string content(item.size, '\0');
      for (char& c : content) c = static_cast<char>(random());
      std::string const path = std::string("/artifacts/") + item.name;
      ddiserver::ArtifactDocument artifact;
      artifact.filename = item.name;
      artifact.size = item.size;
      using tamrel::Digest;
      artifact.hashes["md5"] = Digest::of(Digest::Kind::kMd5, content.data(), content.size());
      if (item.sha1) {
        artifact.hashes["sha1"] = Digest::of(Digest::Kind::kSha1, content.data(), content.size());
      }
      artifact.links["download-http"] = server.addArtifact(path, content);
      // Paced (about 8 MiB/s) so that the progress bars can be watched.
      ddiserver::Fault paced;
      paced.chunkBytes = 128 << 10;
      paced.delayMs = 15;
      server.setFault(path, paced);
      deployment.chunks.back().artifacts.push_back(artifact);
    }
  }
  return deployment;
}

// Prints what the server received; true when deployment 1 and cancel
// request 2 were both closed with success.
bool report(ddiserver::DdiServer const& server) {
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
      ddiserver::Feedback const feedback = ddiserver::readFeedback(request.body);
      std::string const status = feedback.execution + "/" + feedback.finished;
      note = "feedback: " + status;
      ++feedbacks;
      bool const closed = status == "closed/success";
      if (request.path.find("/deploymentBase/1/") != std::string::npos) deployed = closed;
      if (request.path.find("/cancelAction/2/") != std::string::npos) cancelled = closed;
      for (auto const& line : feedback.details) details += (details.empty() ? "" : " | ") + line;
    } else if (request.method == "PUT") {
      for (auto const& [key, value] : ddiserver::readConfigData(request.body).data) {
        note += (note.empty() ? "attributes " : ", ") + key + "=" + value;
      }
    }
    if (!note.empty()) path.resize(std::max<std::size_t>(path.size(), 34), ' ');
    std::printf("  %-4s %s%s%s\n", request.method.c_str(), path.c_str(), note.empty() ? "" : " ",
                note.c_str());
    if (!details.empty()) std::printf("       details %s\n", details.c_str());
  }
  std::printf("summary: %zu requests, %d feedback messages; deployment 1 %s, cancel request 2 %s\n",
              server.requests().size(), feedbacks,
              deployed ? "closed/success" : "NOT closed/success",
              cancelled ? "closed/success" : "NOT closed/success");
  return deployed && cancelled;
}

AgentConfig demoConfig(std::string const& base, std::string const& dir) {
  AgentConfig config;
  config.demo = true;
  config.downloadDir = dir;
  config.stateDir = dir;
  auto& table = *config.properties;
  *table["address"] = base;
  *table["tenant-id"] = "DEFAULT";
  *table["controller-id"] = "dev01";
  *table["token"] = "demo-token";
  return config;
}

// A server that holds new actions until the device agrees, as a hawkBit
// tenant with user consent does; the agent asks a consent command, which
// agrees. Prints the exchange; true when the action was confirmed by the
// command and then closed with success.
bool consent(std::string const& dir) {
  ddiserver::DdiServer server;
  server.setRequireToken("demo-token");
  ddiserver::HawkbitTarget::Options options;
  options.baseUrl = server.baseUrl();
  options.controllerPath = server.controllerPath();
  options.sleep = "00:00:30";
  options.confirmRequired = true;
  ddiserver::HawkbitTarget target(options);
  server.setHandler(
      [&target](ddiserver::RecordedRequest const& request, ddiserver::DdiServer::Answer& answer) {
        return target.answer(request, answer);
      });
  std::string const content(256 << 10, 'x');
  ddiserver::ArtifactDocument artifact;
  artifact.filename = "rootfs.img";
  artifact.size = content.size();
  using tamrel::Digest;
  artifact.hashes["sha1"] = Digest::of(Digest::Kind::kSha1, content.data(), content.size());
  artifact.hashes["md5"] = Digest::of(Digest::Kind::kMd5, content.data(), content.size());
  artifact.links["download-http"] = server.addArtifact("/artifacts/rootfs.img", content);
  ddiserver::DeploymentDocument deployment;
  deployment.id = "3";
  deployment.chunks.push_back({"os", "2.1", "rootfs", {artifact}, false});
  target.assign(deployment);

  AgentConfig config = demoConfig(server.baseUrl(), dir);
  mkdir(dir.c_str(), 0700);  // where the action is recorded
  config.consent = "command";
  config.consentCommand = "echo \"the driver agrees to action $1: $2 $3\"; exit 0";
  {
    ControlChannel channel;
    UpdateAgent agent(config, channel);
    SignalThread stopper(agent);
    if (!agent.connect()) return false;
    agent.cycle();
  }
  std::printf("== what the server received\n");
  std::string const controller = server.controllerPath();
  bool confirmed = false, closed = false;
  for (auto const& request : server.requests()) {
    std::string path = request.path;
    if (path.compare(0, controller.size(), controller) == 0)
      path = "~" + path.substr(controller.size());
    std::string note;
    if (path.rfind("~/confirmationBase/3/feedback", 0) == 0) {
      auto const sent = ddiserver::readConfirmationFeedback(request.body);
      note = std::string(sent.confirmed ? "confirmed" : "denied") + ", code " +
             std::to_string(sent.code) + ": " + (sent.details.empty() ? "" : sent.details[0]);
      confirmed = sent.confirmed && sent.code == 0;
    } else if (path.rfind("~/deploymentBase/3/feedback", 0) == 0) {
      auto const sent = ddiserver::readFeedback(request.body);
      note = "feedback: " + sent.execution + "/" + sent.finished;
      closed = note == "feedback: closed/success";
    }
    std::printf("  %-4s %s%s%s\n", request.method.c_str(), path.c_str(), note.empty() ? "" : "  ",
                note.c_str());
  }
  std::printf("summary: action 3 %s by the consent command, %s\n",
              confirmed ? "confirmed" : "NOT confirmed",
              closed ? "then closed/success" : "NOT closed/success");
  return confirmed && closed;
}

}  // namespace

int main(int argc, char** argv) {
  SignalThread::blockStopSignals();
  for (int i = 1; i < argc; ++i) {
    std::string const arg = argv[i];
    std::fputs(kUsage, arg == "--help" || arg == "-h" ? stdout : stderr);
    return arg == "--help" || arg == "-h" ? 0 : 2;
  }
  Console console;

  ddiserver::DdiServer server;
  server.setRequireToken("demo-token");
  std::string const base = server.baseUrl();
  server.setDeploymentBase("1", ddiserver::deploymentBaseJson(offer(server)));
  server.setControllerBase(
      ddiserver::controllerBaseJson(base, server.controllerPath(), "00:00:30", "1", "", true));

  char dir[] = "/tmp/tamrel-demo-XXXXXX";
  if (mkdtemp(dir) == nullptr) return 1;
  AgentConfig config = demoConfig(base, dir);
  config.attributes = {{"hw-revision", "2"}, {"serial", "demo-0001"}};

  bool ok = false;
  {
    ControlChannel channel;
    UpdateAgent agent(config, channel);
    SignalThread stopper(agent);  // Ctrl-C stops the agent; the directory is removed
    std::printf("DDI test server on %s, downloads into %s\n", base.c_str(), dir);
    bool const connected = agent.connect();
    if (connected) {
      std::printf("== first poll: configuration request and a deployment\n");
      agent.cycle();
    }
    if (connected && !agent.stopping()) {
      std::printf("== second poll: a cancel request\n");
      server.setCancelAction("2", ddiserver::cancelActionJson("2", "1"));
      server.setControllerBase(
          ddiserver::controllerBaseJson(base, server.controllerPath(), "00:00:30", "", "2", false));
      agent.cycle();
      std::printf("== what the server received\n");
      ok = report(server);
    }
  }
  if (ok) {
    std::printf("== an update waiting for the device's consent\n");
    ok = consent(std::string(dir) + "/consent");
  }
  removeTree(dir);
  return ok ? 0 : 1;
}
