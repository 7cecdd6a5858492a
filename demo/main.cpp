// tamrel-demo: the agent's classes through whole cycles against an
// in-process DDI server: configuration data, a deployment of two chunks and
// three artifacts, a cancel request, then what the server received; an
// update that waits for the device's consent, confirmed by a consent
// command; a deployment of an "os" and an "app" module, each installed by
// the command for its type, which tell what they were given; a deployment
// followed by `tamrel-ctl watch` on the control socket, whose consent a UI
// gives through the socket.
#include <ftw.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <random>
#include <string>
#include <thread>

#include "agent/app/signalthread.h"
#include "agent/base/agentconfig.h"
#include "agent/base/console.h"
#include "agent/control/controlchannel.h"
#include "agent/control/controlserver.h"
#include "agent/lifecycle/updateagent.h"
#include "ddiserver/ddidocument.h"
#include "ddiserver/ddiserver.h"
#include "ddiserver/hawkbittarget.h"
#include "demo/demohawkbit.h"
#include "demo/uidemo.h"
#include "digest/digest.h"

namespace {

namespace ddiserver = tamrel::ddiserver;

char const kUsage[] = "usage: tamrel-demo\n";

void removeTree(char const* dir) {
  nftw(
      dir, [](char const* path, struct stat const*, int, FTW*) { return std::remove(path); }, 16,
      FTW_DEPTH | FTW_PHYS);
}

// Two chunks (an os and an app module), three artifacts of a few MiB, one of
// them with MD5 only.
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
    deployment.chunks.push_back({chunk == "app" ? "app" : "os", "2.0", chunk, {}, false});
    for (Item const& item : items) {
      if (chunk != item.chunk) continue;
      std::string content(item.size, '\0');
      for (char& c : content) c = static_cast<char>(random());
      deployment.chunks.back().artifacts.push_back(
          DemoHawkbit::artifactOf(server, item.name, content, item.sha1));
      // Paced (about 8 MiB/s) so that the progress bars can be watched.
      ddiserver::Fault paced;
      paced.chunkBytes = 128 << 10;
      paced.delayMs = 15;
      server.setFault(std::string("/artifacts/") + item.name, paced);
    }
  }
  return deployment;
}

// What the server makes of a request worth a note: a feedback's status
// and progress, a confirmation, the attributes sent.
std::string noteOf(ddiserver::RecordedRequest const& request) {
  std::string note;
  if (request.path.find("/confirmationBase/") != std::string::npos &&
      request.path.find("/feedback") != std::string::npos) {
    auto const sent = ddiserver::readConfirmationFeedback(request.body);
    note = std::string(sent.confirmed ? "confirmed" : "denied") + ", code " +
           std::to_string(sent.code);
  } else if (request.path.find("/feedback") != std::string::npos) {
    auto const sent = ddiserver::readFeedback(request.body);
    note = "feedback: " + sent.execution + "/" + sent.finished;
    if (sent.hasProgress) {
      note += ", " + std::to_string(sent.progress.cnt) + " of " + std::to_string(sent.progress.of);
    }
  } else if (request.method == "PUT") {
    for (auto const& [key, value] : ddiserver::readConfigData(request.body).data)
      note += (note.empty() ? "attributes " : ", ") + key + "=" + value;
  }
  return note;
}

// Prints every request the server received with its note, and the details
// a feedback gave on a line of its own.
void printRequests(ddiserver::DdiServer const& server) {
  std::string const controller = server.controllerPath();
  std::printf("== what the server received (~ is %s)\n", controller.c_str());
  for (auto const& request : server.requests()) {
    std::string path = request.path;
    if (path.compare(0, controller.size(), controller) == 0)
      path = "~" + path.substr(controller.size());
    std::string const note = noteOf(request);
    if (!note.empty()) path.resize(std::max<std::size_t>(path.size(), 34), ' ');
    std::printf("  %-4s %s%s%s\n", request.method.c_str(), path.c_str(), note.empty() ? "" : " ",
                note.c_str());
    std::string details;
    if (request.path.find("/feedback") != std::string::npos) {
      auto const lines = request.path.find("/confirmationBase/") != std::string::npos
                             ? ddiserver::readConfirmationFeedback(request.body).details
                             : ddiserver::readFeedback(request.body).details;
      for (auto const& line : lines) details += (details.empty() ? "" : " | ") + line;
    }
    if (!details.empty()) std::printf("       details %s\n", details.c_str());
  }
}

// One agent through one poll; false when it could not connect or was
// stopped.
bool runAgent(AgentConfig const& config) {
  ControlChannel channel;
  UpdateAgent agent(config, channel);
  SignalThread stopper(agent, channel);  // Ctrl-C stops the agent; the directory is removed
  if (!agent.connect()) return false;
  agent.cycle();
  return !agent.stopping();
}

// A deployment of two chunks, then a cancel request for it; true when both
// were closed with success.
bool deployAndCancel(std::string const& dir) {
  ddiserver::DdiServer server;
  server.setRequireToken("demo-token");
  std::string const base = server.baseUrl();
  server.setDeploymentBase("1", ddiserver::deploymentBaseJson(offer(server)));
  server.setControllerBase(
      ddiserver::controllerBaseJson(base, server.controllerPath(), "00:00:30", "1", "", true));
  AgentConfig config = DemoHawkbit::config(base, dir);
  config.attributes = {{"hw-revision", "2"}, {"serial", "demo-0001"}};
  std::printf("DDI test server on %s, downloads into %s\n", base.c_str(), dir.c_str());
  ControlChannel channel;
  UpdateAgent agent(config, channel);
  SignalThread stopper(agent, channel);
  if (!agent.connect()) return false;
  std::printf("== first poll: configuration request and a deployment\n");
  agent.cycle();
  if (agent.stopping()) return false;
  std::printf("== second poll: a cancel request\n");
  server.setCancelAction("2", ddiserver::cancelActionJson("2", "1"));
  server.setControllerBase(
      ddiserver::controllerBaseJson(base, server.controllerPath(), "00:00:30", "", "2", false));
  agent.cycle();
  if (agent.stopping()) return false;
  printRequests(server);
  int feedbacks = 0;
  bool const deployed = DemoHawkbit::closedWithSuccess(server, "/deploymentBase/1/", &feedbacks);
  bool const cancelled = DemoHawkbit::closedWithSuccess(server, "/cancelAction/2/");
  std::printf("summary: %zu requests, %d feedback messages; deployment 1 %s, cancel request 2 %s\n",
              server.requests().size(), feedbacks,
              deployed ? "closed/success" : "NOT closed/success",
              cancelled ? "closed/success" : "NOT closed/success");
  return deployed && cancelled;
}

// A server that holds new actions until the device agrees, as a hawkBit
// tenant with user consent does; the agent asks a consent command, which
// agrees. True when the action was confirmed by the command and then
// closed with success.
bool consent(std::string const& dir) {
  DemoHawkbit hawkbit(true);
  ddiserver::DeploymentDocument deployment;
  deployment.id = "3";
  deployment.chunks.push_back(
      {"os",
       "2.1",
       "rootfs",
       {DemoHawkbit::artifactOf(hawkbit.server, "rootfs.img", std::string(256 << 10, 'x'))}});
  hawkbit.target.assign(deployment);

  AgentConfig config = DemoHawkbit::config(hawkbit.server.baseUrl(), dir);
  mkdir(dir.c_str(), 0700);  // where the action is recorded
  config.consent = "command";
  config.consentCommand = "echo \"the driver agrees to action $1: $2 $3\"; exit 0";
  if (!runAgent(config)) return false;
  printRequests(hawkbit.server);
  bool confirmed = false;
  for (auto const& request : hawkbit.server.requests("POST")) {
    if (request.path.find("/confirmationBase/3/feedback") == std::string::npos) continue;
    auto const sent = ddiserver::readConfirmationFeedback(request.body);
    confirmed = sent.confirmed && sent.code == 0;
  }
  bool const closed = DemoHawkbit::closedWithSuccess(hawkbit.server, "/deploymentBase/3/");
  std::printf("summary: action 3 %s by the consent command, %s\n",
              confirmed ? "confirmed" : "NOT confirmed",
              closed ? "then closed/success" : "NOT closed/success");
  return confirmed && closed;
}

// The installer of one module type: a script that adds to `record` what it
// was given in its environment and arguments, and installs nothing.
bool writeInstaller(std::string const& path, std::string const& record) {
  std::ofstream out(path);
  out << "#!/bin/sh\n"
         "metadata=$(cat \"${TAMREL_CHUNK_METADATA:-/dev/null}\" 2> /dev/null)\n"
         "{\n"
         "  echo \"${0##*/} got part $TAMREL_CHUNK_PART: '$TAMREL_CHUNK_NAME' "
         "$TAMREL_CHUNK_VERSION, chunk $TAMREL_CHUNK_INDEX of $TAMREL_CHUNK_COUNT of action "
         "$TAMREL_ACTION_ID\"\n"
         "  echo \"    artifact $*\"\n"
         "  echo \"    metadata ${metadata:-none}\"\n"
         "} >> '"
      << record << "'\n";
  out.close();
  return out.good() && chmod(path.c_str(), 0755) == 0;
}

// The agent's configuration for the modules: a command per module type,
// written as a device maker writes it.
bool writeModulesConfig(std::string const& path, std::string const& base, std::string const& dir) {
  std::ofstream out(path);
  out << "address = " << base << "\ntenant-id = DEFAULT\ncontroller-id = dev01\n"
      << "token = demo-token\ndownload-dir = " << dir << "\nstate-dir = " << dir << "\n"
      << "install-command.os = " << dir << "/install-os \"$@\"\n"
      << "install-command.app = " << dir << "/install-app \"$@\"\n";
  out.close();
  // It holds the token: the agent reads it only when no one else may.
  return out.good() && chmod(path.c_str(), 0600) == 0;
}

// An "os" and an "app" module, each with metadata, installed by two
// commands. True when each command got its own module and the action was
// closed with success after a progress feedback per module.
bool modules(std::string const& dir) {
  DemoHawkbit hawkbit;
  ddiserver::DdiServer& server = hawkbit.server;
  ddiserver::DeploymentDocument deployment;
  deployment.id = "4";
  deployment.chunks.push_back(
      {"os",
       "2.2",
       "rootfs",
       {DemoHawkbit::artifactOf(server, "rootfs.img", std::string(512 << 10, 'o'))},
       false,
       {{"min-bootloader", "2024.01"}}});
  deployment.chunks.push_back(
      {"app",
       "1.4",
       "dashboard",
       {DemoHawkbit::artifactOf(server, "dashboard.tar", std::string(64 << 10, 'a'))},
       false,
       {{"service", "dashboard.service"}, {"restart", "yes"}}});
  hawkbit.target.assign(deployment);

  std::string const record = dir + "/installed", config = dir + "/agent.conf";
  mkdir(dir.c_str(), 0700);
  if (!writeInstaller(dir + "/install-os", record) ||
      !writeInstaller(dir + "/install-app", record) ||
      !writeModulesConfig(config, server.baseUrl(), dir)) {
    std::fprintf(stderr, "tamrel-demo: cannot write into %s\n", dir.c_str());
    return false;
  }
  try {
    if (!runAgent(AgentConfig::fromFile(config))) return false;
  } catch (ConfigError const& error) {
    std::fprintf(stderr, "tamrel-demo: %s\n", error.what());
    return false;
  }
  std::printf("== which command got what\n");
  std::ifstream in(record);
  std::string got;
  for (std::string line; std::getline(in, line);) {
    std::printf("  %s\n", line.c_str());
    got += line + "\n";
  }
  printRequests(server);
  bool const routed = got.find("install-os got part os: 'rootfs' 2.2") != std::string::npos &&
                      got.find("install-app got part app: 'dashboard' 1.4") != std::string::npos;
  std::string progress;
  for (ddiserver::Progress const& step : hawkbit.target.progress("4"))
    progress += ", " + std::to_string(step.cnt) + " of " + std::to_string(step.of);
  bool const closed = DemoHawkbit::closedWithSuccess(server, "/deploymentBase/4/");
  std::printf("summary: action 4: %s; proceeding feedback%s; %s\n",
              routed ? "os installed by install-os, app by install-app"
                     : "the modules did NOT reach their commands",
              progress.empty() ? " none" : progress.substr(1).c_str(),
              closed ? "closed/success" : "NOT closed/success");
  return routed && closed && !progress.empty();
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
  char dir[] = "/tmp/tamrel-demo-XXXXXX";
  if (mkdtemp(dir) == nullptr) return 1;
  bool ok = deployAndCancel(dir);
  if (ok) {
    std::printf("== an update waiting for the device's consent\n");
    ok = consent(std::string(dir) + "/consent");
  }
  if (ok) {
    std::printf("== a deployment of an os and an app module, each to the command for its type\n");
    ok = modules(std::string(dir) + "/modules");
  }
  if (ok) {
    std::printf(
        "== a deployment followed by a UI on the control socket, which gives the consent\n");
    ok = UiDemo::run(std::string(dir) + "/ui");
  }
  removeTree(dir);
  return ok ? 0 : 1;
}
