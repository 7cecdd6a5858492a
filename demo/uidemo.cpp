#include "demo/uidemo.h"

#include <unistd.h>

#include <sys/stat.h>
#include <atomic>
#include <chrono>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <thread>

#include "agent/app/signalthread.h"
#include "agent/control/controlchannel.h"
#include "agent/control/controlserver.h"
#include "agent/lifecycle/updateagent.h"
#include "demo/demohawkbit.h"

namespace ddiserver = tamrel::ddiserver;

std::string UiDemo::ctlPath() {
  char self[PATH_MAX] = {};
  ssize_t const size = readlink("/proc/self/exe", self, sizeof self - 1);
  std::string path = size > 0 ? std::string(self, static_cast<std::size_t>(size)) : "";
  return path.substr(0, path.rfind('/') + 1) + "tamrel-ctl";
}

bool UiDemo::run(std::string const& dir) {
  DemoHawkbit hawkbit(true);
  ddiserver::DeploymentDocument deployment;
  deployment.id = "5";
  deployment.chunks.push_back(
      {"os",
       "2.3",
       "rootfs",
       {DemoHawkbit::artifactOf(hawkbit.server, "rootfs.img", std::string(2 << 20, 'c'))}});
  hawkbit.target.assign(deployment);
  mkdir(dir.c_str(), 0700);
  AgentConfig config = DemoHawkbit::config(hawkbit.server.baseUrl(), dir);
  config.consent = "socket";
  config.controlSocket = dir + "/agent.sock";
  std::string const ctl = ctlPath(), socket = " --socket '" + config.controlSocket + "'";
  if (access(ctl.c_str(), X_OK) != 0) {
    std::fprintf(stderr, "tamrel-demo: no %s (build it: make build)\n", ctl.c_str());
    return false;
  }

  ControlChannel channel;
  UpdateAgent agent(config, channel);
  SignalThread stopper(agent, channel);
  std::atomic<bool> watching{false}, closed{false};
  std::thread ui;
  {
    ControlServer server(channel);
    ControlServer::Settings settings;
    settings.path = config.controlSocket;
    settings.group = getegid();
    std::string const problem = server.start(settings);
    if (!problem.empty()) {
      std::fprintf(stderr, "tamrel-demo: %s\n", problem.c_str());
      return false;
    }
    FILE* const watch = popen((ctl + socket + " watch").c_str(), "r");
    if (watch == nullptr) return false;
    std::printf("ui> tamrel-ctl watch\n");
    ui = std::thread([&] {
      // read(), not the stream's functions: those would hold its lock while
      // they wait, and the agent's fflush(NULL) would wait for it.
      std::string input;
      char text[1024];
      for (;;) {
        std::string::size_type const end = input.find('\n');
        if (end == std::string::npos) {
          ssize_t const got = read(fileno(watch), text, sizeof text);
          if (got <= 0) break;
          input.append(text, static_cast<std::size_t>(got));
          continue;
        }
        std::string const line = input.substr(0, end + 1);
        input.erase(0, end + 1);
        if (line.find("  demo-watching") != std::string::npos) {
          watching = true;
          continue;
        }
        // The event's time is the line's own, shown once.
        std::string::size_type const timed = line.find("Z  ");
        std::printf("ui| %s", line.substr(timed == 19 ? 22 : 0).c_str());
        std::fflush(stdout);
        std::string::size_type const at = line.find("  consent-needed  ");
        std::string::size_type const id = line.find("action=", at == std::string::npos ? 0 : at);
        if (at != std::string::npos && id != std::string::npos) {
          std::string const action = line.substr(id + 7, line.find_first_of(" \n", id) - id - 7);
          std::printf("ui> tamrel-ctl consent %s confirm\n", action.c_str());
          std::fflush(stdout);
          if (std::system((ctl + socket + " consent " + action + " confirm").c_str()) != 0)
            std::printf("ui: the consent was refused\n");
        }
        if (line.find("  closed  ") != std::string::npos) closed = true;
      }
    });
    // Events reach only a watcher that is there: wait until it sees one.
    for (int i = 0; i < 500 && !watching; ++i) {
      channel.publish("demo-watching");
      std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    if (watching && agent.connect()) {
      // Polls until the action is closed: the consent ends the wait at once.
      for (int cycles = 0; cycles < 6 && !closed && !agent.stopping(); ++cycles) {
        UpdateAgent::Cycle const cycle = agent.cycle();
        if (DemoHawkbit::closedWithSuccess(hawkbit.server, "/deploymentBase/5/")) break;
        agent.wait(cycle.sleepSeconds);
      }
    }
    // The watcher sees the closing event before the socket closes.
    for (int i = 0; i < 500 && watching && !closed; ++i)
      std::this_thread::sleep_for(std::chrono::milliseconds(10));
    server.stop();
    ui.join();
    pclose(watch);
  }
  bool confirmed = false;
  for (auto const& request : hawkbit.server.requests("POST")) {
    if (request.path.find("/confirmationBase/5/feedback") == std::string::npos) continue;
    confirmed = ddiserver::readConfirmationFeedback(request.body).confirmed;
  }
  bool const done = DemoHawkbit::closedWithSuccess(hawkbit.server, "/deploymentBase/5/");
  std::printf("summary: action 5 %s through the control socket, %s; the watcher %s\n",
              confirmed ? "confirmed" : "NOT confirmed",
              done ? "closed/success" : "NOT closed/success",
              closed ? "saw it closed" : "did NOT see it closed");
  return confirmed && done && closed;
}
