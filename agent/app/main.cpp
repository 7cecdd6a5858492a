// tamrel-agent: the reference host of libtamrelcore. Reads its settings,
// checks the host and runs the update loop with the library embedded.
#include <fcntl.h>
#include <stdlib.h>
#include <sys/file.h>
#include <unistd.h>

#include <cerrno>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "agent/app/agentlock.h"
#include "agent/app/signalthread.h"
#include "agent/app/startupcheck.h"
#include "agent/app/systemdnotify.h"
#include "agent/base/agentconfig.h"
#include "agent/base/console.h"
#include "agent/base/exitcode.h"
#include "agent/base/heartbeat.h"
#include "agent/base/log.h"
#include "agent/base/memorybudget.h"
#include "agent/control/controlchannel.h"
#include "agent/control/controlserver.h"
#include "agent/control/controlsocketfile.h"
#include "agent/lifecycle/updateagent.h"
#include "agent/server/credentialcheck.h"

namespace {

#ifndef TAMREL_VERSION
#define TAMREL_VERSION "unknown"
#endif

char const kUsage[] =
    "usage: tamrel-agent --config FILE [--once] [--download-only]\n"
    "       tamrel-agent --config FILE --report-installed NAME VERSION\n"
    "       tamrel-agent --help | -h | --version\n";

char const kHelp[] =
    "Polls a hawkBit server (DDI API), downloads, verifies and installs what it deploys.\n"
    "  --config FILE      the configuration (keys below)\n"
    "  --once             poll once, handle what the server asks, exit with the status below\n"
    "  --download-only    without install-command: download and verify, report \"downloaded\"\n"
    "  --report-installed NAME VERSION\n"
    "                     tell the server the device runs this distribution set (installed\n"
    "                     without it); exit 0 when the server accepted it, 3 when not\n"
    "  --help, -h, --version\n"
    "Lines go to standard output; under systemd (JOURNAL_STREAM) each starts with its\n"
    "syslog priority for journald, elsewhere with the UTC time. SIGINT and SIGTERM stop\n"
    "the agent cleanly; SIGUSR1 makes it poll now (as tamrel-ctl poll); SIGHUP is ignored.\n\n";

std::string exitCodesHelp() {
  std::string text = "\nexit status:\n";
  for (ExitCodeText const& entry : kExitCodeTexts) {
    text += "  " + std::to_string(entry.code) + "  " + entry.meaning + "\n";
  }
  return text + "Without --once the agent keeps running through 1 and 3.\n";
}

}  // namespace

int main(int argc, char** argv) {
  SignalThread::blockStopSignals();
  MemoryBudget::install();
  SystemdNotify notify(SystemdNotify::fromEnvironment(), &Heartbeat::ageMs);
  std::string configPath;
  bool once = false, downloadOnly = false;
  std::vector<std::string> installed;  // --report-installed NAME VERSION
  for (int i = 1; i < argc; ++i) {
    std::string const arg = argv[i];
    if (arg == "--config" && i + 1 < argc) {
      configPath = argv[++i];
    } else if (arg == "--once") {
      once = true;
    } else if (arg == "--download-only") {
      downloadOnly = true;
    } else if (arg == "--report-installed" && i + 2 < argc) {
      installed = {argv[i + 1], argv[i + 2]};
      i += 2;
    } else if (arg == "--help" || arg == "-h") {
      std::printf("%s%s%s%s", kUsage, kHelp, AgentConfig::keysHelp().c_str(),
                  exitCodesHelp().c_str());
      return kExitOk;
    } else if (arg == "--version") {
      std::printf("tamrel-agent %s\n", TAMREL_VERSION);
      return kExitOk;
    } else {
      std::fprintf(stderr, "tamrel-agent: unknown option '%s'\n%s", arg.c_str(), kUsage);
      return kExitConfig;
    }
  }
  if (configPath.empty()) {
    std::fputs(kUsage, stderr);
    return kExitConfig;
  }
  Console console;

  AgentConfig config;
  try {
    config = AgentConfig::fromFile(configPath);
  } catch (ConfigError const& error) {
    Log::error("%s", error.what());
    return kExitConfig;
  }
  Log::Level level = Log::Level::kInfo;
  Log::parseLevel(config.logLevel, level);
  Log::setLevel(level);
  config.downloadOnly = downloadOnly;
  CredentialCheck const credentials(config);
  for (std::string const& warning : credentials.warnings()) Log::warning("%s", warning.c_str());
  if (!credentials.error().empty()) {
    Log::error("%s", credentials.error().c_str());
    return kExitConfig;
  }
  // Reporting a version needs only the server settings. The host comes
  // last: its check is the one that creates directories.
  std::string const problem = installed.empty() ? checkHost(config) : std::string();
  if (!problem.empty()) {
    Log::error("%s", problem.c_str());
    return kExitConfig;
  }
  // Reporting a version may run beside the agent; nothing else may.
  AgentLock lock;
  if (installed.empty()) {
    std::string const busy = lock.take(config.stateDir);
    if (!busy.empty()) {
      Log::error("%s", busy.c_str());
      return kExitConfig;
    }
  }
  if (!credentials.expired().empty()) Log::error("%s", credentials.expired().c_str());
  Log::info("tamrel-agent %s", TAMREL_VERSION);

  // The control socket serves from here to the end of main, the update
  // loop's stop included; the loop takes its requests from the start.
  ControlChannel channel;
  UpdateAgent agent(config, channel);
  ControlServer control(channel);
  if (installed.empty() && !config.controlSocket.empty()) {
    ControlServer::Settings settings;
    settings.path = config.controlSocket;
    settings.clients = static_cast<std::size_t>(config.controlClients);
    settings.group = getegid();
    std::string problem;
    if (!config.controlGroup.empty() &&
        !ControlSocketFile::group(config.controlGroup, settings.group)) {
      problem = configPath + ":" + std::to_string(config.lines["control-group"]) +
                ": control-group: no group '" + config.controlGroup + "'";
    }
    if (problem.empty()) problem = control.start(settings);
    if (!problem.empty()) {
      Log::error("%s", problem.c_str());
      return kExitConfig;
    }
  }
  SignalThread stopper(agent, channel);
  if (!installed.empty()) return agent.reportInstalled(installed[0], installed[1]);
  if (!agent.connect()) {
    Log::error("%s: the library refused the settings", configPath.c_str());
    return kExitConfig;
  }
  notify.ready();
  int status = kExitOk;
  // Polling held (and recorded so) by a local UI: no poll until released.
  if (!once) agent.wait(0);
  while (!agent.stopping()) {
    Heartbeat::beat();
    UpdateAgent::Cycle const cycle = agent.cycle();
    if (once) {
      status = cycle.status;
      break;
    }
    // Failures (1, 3) are reported and the next poll tries again.
    agent.wait(cycle.sleepSeconds);
  }
  notify.stopping();
  return agent.stopping() ? kExitOk : status;
}
