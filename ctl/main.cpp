// tamrel-ctl: follows and steers a running tamrel-agent through its control
// socket: shows its status, watches its events, makes it poll, holds and
// releases polling, answers consent and permits.
#include <cjson/cJSON.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>
#include <vector>

#include "agent/base/agentconfig.h"
#include "agent/base/jsontext.h"
#include "ctl/controlconnection.h"
#include "ctl/ctlexit.h"
#include "ctl/eventprinter.h"

namespace {

#ifndef TAMREL_VERSION
#define TAMREL_VERSION "unknown"
#endif

// How long a request waits for its answer; watch waits for ever.
int const kAnswerTimeoutMs = 10000;

char const kUsage[] =
    "usage: tamrel-ctl [--socket PATH | --config FILE] COMMAND [ARGUMENTS]\n"
    "       tamrel-ctl --help | -h | --version\n";

std::string help() {
  std::string text =
      std::string(kUsage) +
      "Follows and steers a running tamrel-agent through its control socket.\n"
      "  --socket PATH      the agent's control socket [" +
      AgentConfig::kShippedControlSocket +
      "]\n"
      "  --config FILE      the socket named by control-socket in the agent's\n"
      "                     configuration FILE\n"
      "commands:\n"
      "  status [--json]    what the agent is doing (--json: the agent's answer as\n"
      "                     sent, one JSON line)\n"
      "  watch              the agent's events, one line each, until it stops; a\n"
      "                     progress bar on a terminal\n"
      "  poll               poll the server now\n"
      "  hold               stop polling (what is in flight finishes first); kept\n"
      "                     across restarts\n"
      "  release [--interval N]\n"
      "                     resume polling, at once; N: the poll interval in\n"
      "                     seconds until the agent restarts\n"
      "  consent ACTION confirm|deny [REASON]\n"
      "                     answer an action waiting for consent (consent = socket)\n"
      "  permit ACTION download|install\n"
      "                     let a waiting action download or install (permit =\n"
      "                     socket)\n"
      "The protocol: /usr/share/doc/tamrel-agent/control.md.\n\nexit status:\n";
  for (CtlExitText const& entry : kCtlExitTexts)
    text += "  " + std::to_string(entry.code) + "  " + entry.meaning + "\n";
  return text;
}

int usage(char const* problem) {
  std::fprintf(stderr, "tamrel-ctl: %s\n%s", problem, kUsage);
  return kCtlUsage;
}

// The request line for `command` and its arguments; "" with `problem` set
// when they are not a request.
std::string requestLine(std::vector<std::string> const& words, std::string& problem) {
  JsonText::Document request(cJSON_CreateObject(), cJSON_Delete);
  cJSON* const object = request.get();
  std::string const& command = words[0];
  std::size_t const count = words.size() - 1;
  auto const text = [&](char const* key, std::string const& value) {
    cJSON_AddStringToObject(object, key, value.c_str());
  };
  text("request", command);
  if (command == "status" || command == "watch" || command == "poll" || command == "hold") {
    if (count != 0) problem = command + " takes no arguments";
  } else if (command == "release") {
    if (count == 2 && words[1] == "--interval") {
      char* end = nullptr;
      long const seconds = std::strtol(words[2].c_str(), &end, 10);
      if (words[2].empty() || *end != '\0' || seconds < 1)
        problem = "--interval takes a number of seconds";
      cJSON_AddNumberToObject(object, "interval", static_cast<double>(seconds));
    } else if (count != 0) {
      problem = "release takes only --interval N";
    }
  } else if (command == "consent") {
    if ((count != 2 && count != 3) || (words[2] != "confirm" && words[2] != "deny"))
      problem = "consent takes ACTION confirm|deny [REASON]";
    if (problem.empty()) {
      text("action", words[1]);
      text("answer", words[2]);
      if (count == 3) text("reason", words[3]);
    }
  } else if (command == "permit") {
    if (count != 2 || (words[2] != "download" && words[2] != "install"))
      problem = "permit takes ACTION download|install";
    if (problem.empty()) {
      text("action", words[1]);
      text("what", words[2]);
    }
  } else {
    problem = "unknown command '" + command + "'";
  }
  if (!problem.empty()) return "";
  std::unique_ptr<char, void (*)(void*)> printed(cJSON_PrintUnformatted(object), cJSON_free);
  return printed ? printed.get() : "";
}

}  // namespace

int main(int argc, char** argv) {
  std::string socketPath = AgentConfig::kShippedControlSocket, configPath;
  bool json = false, socketGiven = false;
  std::vector<std::string> words;
  for (int i = 1; i < argc; ++i) {
    std::string const arg = argv[i];
    if (arg == "--help" || arg == "-h") {
      std::fputs(help().c_str(), stdout);
      return kCtlDone;
    } else if (arg == "--version") {
      std::printf("tamrel-ctl %s\n", TAMREL_VERSION);
      return kCtlDone;
    } else if (words.empty() && arg == "--socket" && i + 1 < argc) {
      socketPath = argv[++i];
      socketGiven = true;
    } else if (words.empty() && arg == "--config" && i + 1 < argc) {
      configPath = argv[++i];
    } else if (arg == "--json" && !words.empty() && words[0] == "status") {
      json = true;
    } else if (words.empty() && arg.rfind("-", 0) == 0) {
      return usage(("unknown option '" + arg + "'").c_str());
    } else {
      words.push_back(arg);
    }
  }
  if (words.empty()) return usage("no command");
  if (socketGiven && !configPath.empty()) return usage("--socket or --config, not both");
  std::string problem;
  std::string const line = requestLine(words, problem);
  if (line.empty()) return usage(problem.c_str());
  if (!configPath.empty()) {
    try {
      socketPath = AgentConfig::fromFile(configPath).controlSocket;
    } catch (ConfigError const& error) {
      std::fprintf(stderr, "tamrel-ctl: %s\n", error.what());
      return kCtlUsage;
    }
    if (socketPath.empty()) {
      std::fprintf(stderr, "tamrel-ctl: %s sets no control-socket\n", configPath.c_str());
      return kCtlUsage;
    }
  }

  ControlConnection agent;
  problem = agent.open(socketPath);
  if (!problem.empty()) {
    std::fprintf(stderr, "tamrel-ctl: %s\n", problem.c_str());
    return kCtlUnreachable;
  }
  std::string answer;
  if (!agent.send(line) || !agent.readLine(answer, kAnswerTimeoutMs)) {
    std::fprintf(stderr, "tamrel-ctl: no answer from the agent at %s\n", socketPath.c_str());
    return kCtlUnreachable;
  }
  JsonText::Document document(cJSON_Parse(answer.c_str()), cJSON_Delete);
  cJSON const* const ok =
      document ? cJSON_GetObjectItemCaseSensitive(document.get(), "ok") : nullptr;
  if (!cJSON_IsBool(ok)) {
    std::fprintf(stderr, "tamrel-ctl: not an answer: %s\n", answer.c_str());
    return kCtlUnreachable;
  }
  if (cJSON_IsFalse(ok)) {
    std::fprintf(stderr, "tamrel-ctl: the agent refused: %s\n",
                 JsonText::member(document.get(), "error").c_str());
    return kCtlRefused;
  }
  EventPrinter printer(stdout, isatty(STDOUT_FILENO) == 1);
  if (words[0] == "status") {
    cJSON const* status = cJSON_GetObjectItemCaseSensitive(document.get(), "status");
    std::unique_ptr<char, void (*)(void*)> printed(
        status ? cJSON_PrintUnformatted(status) : nullptr, cJSON_free);
    if (json) {
      std::printf("%s\n", answer.c_str());
    } else if (!printed || !printer.status(printed.get())) {
      std::fprintf(stderr, "tamrel-ctl: the status answer holds no status: %s\n", answer.c_str());
      return kCtlUnreachable;
    }
  } else if (words[0] == "watch") {
    while (agent.readLine(answer, -1)) {
      if (!printer.event(answer)) std::printf("%s\n", answer.c_str());
    }
    printer.finish();
  }
  return kCtlDone;
}
