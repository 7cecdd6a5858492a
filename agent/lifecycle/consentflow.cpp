#include "agent/lifecycle/consentflow.h"

#include "agent/base/deploymentplan.h"
#include "agent/base/jsontext.h"
#include "agent/base/log.h"
#include "agent/commands/chunkenvironment.h"
#include "agent/commands/command.h"
#include "agent/transfer/deploymentdownload.h"
#include "ddi/document_parsers.h"
#include "io/memoryio.h"

#include <cjson/cJSON.h>

#include <cstdio>
#include <memory>

namespace {

using Printed = std::unique_ptr<char, void (*)(void*)>;

std::string linkIn(cJSON const* document, char const* name) {
  cJSON const* links = cJSON_GetObjectItemCaseSensitive(document, "_links");
  return JsonText::member(cJSON_GetObjectItemCaseSensitive(links, name), "href");
}

std::string print(cJSON const* tree) {
  Printed const printed(cJSON_PrintUnformatted(tree), cJSON_free);
  return printed ? printed.get() : std::string();
}

std::string controllerId(AgentConfig const& config) {
  std::string id;
  for (auto const& entry : *config.properties) {
    if (entry.first == "controller-id" && entry.second->is_string()) id = entry.second->string();
    if (entry.first == "controller-id-file" && entry.second->is_link()) {
      id = entry.second->link().text;
    }
  }
  return id;
}

// The action id in a link ".../confirmationBase/<id>?c=...".
std::string actionId(std::string const& link) {
  std::string const path = link.substr(0, link.find_first_of("?#"));
  return path.substr(path.rfind('/') + 1);
}

}  // namespace

ConsentFlow::ConsentFlow(AgentConfig const& config, AgentTransport& transport,
                         ServerRequest const& server, DocumentReader const& reader,
                         std::atomic<bool> const& stop)
    : config_(config), transport_(transport), server_(server), reader_(reader), stop_(stop) {}

std::string ConsentFlow::link(std::string const& document, char const* name) {
  JsonText::Document const root(cJSON_Parse(document.c_str()), cJSON_Delete);
  return linkIn(root.get(), name);
}

ConsentFlow::Outcome ConsentFlow::answer(std::string const& base) {
  // An answer other than 200 (or too large to keep) shows nothing.
  if (base.empty()) return Outcome::kNone;
  std::string const linked = link(base, "confirmationBase");
  bool const keep = config_.autoConfirm != "server" && !kept_;
  if (linked.empty() && !keep) return Outcome::kNone;
  // Without a link (at start) the overview is read from its usual place.
  std::string const url = linked.empty() ? baseUrl_ + "/confirmationBase" : linked;
  Overview overview;
  std::string const problem = reader_.read(url, [&](std::string const& body) {
    JsonText::Document const root(cJSON_Parse(body.c_str()), cJSON_Delete);
    cJSON const* state = cJSON_GetObjectItemCaseSensitive(root.get(), "autoConfirm");
    if (!cJSON_IsObject(state)) return std::string("the confirmation state could not be read");
    overview.active = cJSON_IsTrue(cJSON_GetObjectItemCaseSensitive(state, "active"));
    overview.action = linkIn(root.get(), "confirmationBase");
    overview.activate = linkIn(root.get(), "activateAutoConfirm");
    overview.deactivate = linkIn(root.get(), "deactivateAutoConfirm");
    return std::string();
  });
  if (!problem.empty() && linked.empty()) {
    // A server without the flow: looked at again when a poll links it.
    kept_ = true;
    Log::warning("auto-confirm: the state could not be read: %s; left as it is", problem.c_str());
    return Outcome::kNone;
  }
  if (!problem.empty()) {
    Log::warning("confirmation: %s; nothing sent", problem.c_str());
    return Outcome::kUnreadable;
  }
  if (config_.autoConfirm != "server" && keepAutoConfirm(overview)) return Outcome::kConfirmed;
  if (overview.action.empty()) return linked.empty() ? Outcome::kNone : Outcome::kWaiting;
  return answerAction(overview.action);
}

bool ConsentFlow::keepAutoConfirm(Overview const& overview) {
  bool const wanted = config_.autoConfirm == "on";
  // Once per start, unless a poll links the flow again; a switch the server
  // did not take is tried again at the next poll.
  kept_ = true;
  if (overview.active == wanted) return false;
  std::string const& url = wanted ? overview.activate : overview.deactivate;
  char const* const verb = wanted ? "activate" : "deactivate";
  std::string host;
  if (url.empty()) {
    Log::warning("auto-confirm: the server offers no link to %s it", verb);
    return false;
  }
  if (!reader_.allowed(url, host)) {
    Log::warning("auto-confirm: not switched, the link names another host (%s; see trusted-hosts)",
                 DocumentReader::oneLine(host).c_str());
    return false;
  }
  std::string body;
  if (wanted) {
    JsonText::Document const request(cJSON_CreateObject(), cJSON_Delete);
    cJSON_AddStringToObject(request.get(), "initiator", controllerId(config_).c_str());
    if (!config_.autoConfirmRemark.empty())
      cJSON_AddStringToObject(request.get(), "remark", config_.autoConfirmRemark.c_str());
    body = print(request.get());
  }
  std::string const failure = post(url, body);
  kept_ = failure.empty();
  Log::info("auto-confirm: %s on the server (it was %s), %s", wanted ? "activated" : "deactivated",
            wanted ? "off" : "on", failure.empty() ? "done" : failure.c_str());
  return wanted && failure.empty();
}

ConsentFlow::Outcome ConsentFlow::answerAction(std::string const& link) {
  std::string const id = actionId(link);
  if (!DeploymentPlan::decimalId(id)) {
    // No request is built from an id that is not a number.
    Log::error("confirmation: refused, action id \"%s\" is not a decimal number; nothing sent",
               DocumentReader::oneLine(id).c_str());
    return Outcome::kRefused;
  }
  std::vector<std::string> args{id}, problems;
  hawkbit_query_t::deployment_t deployment;
  std::string const problem = reader_.read(link, [&](std::string const& body) {
    return readAction(body, id, args, problems, deployment);
  });
  if (!problem.empty()) {
    // Nothing is reported: the action may be readable at the next poll.
    Log::warning("confirmation of action %s: %s; nothing sent", id.c_str(), problem.c_str());
    return Outcome::kUnreadable;
  }
  Decision decision;
  if (!problems.empty()) {
    for (auto const& line : problems) Log::error("  refused: %s", line.c_str());
    if (!refused_.insert(id).second) {
      Log::warning("confirmation of action %s: refused again, denied once already", id.c_str());
      return Outcome::kRefused;
    }
    decision = {true, false, kRefusedDocument, "denied by tamrel-agent: " + problems.front()};
  } else {
    deployment.id = id;
    decision = ask(id, args, deployment);
  }
  if (!decision.send) return Outcome::kWaiting;
  JsonText::Document const feedback(cJSON_CreateObject(), cJSON_Delete);
  cJSON_AddStringToObject(feedback.get(), "confirmation",
                          decision.confirmed ? "confirmed" : "denied");
  cJSON_AddNumberToObject(feedback.get(), "code", decision.code);
  cJSON* details = cJSON_AddArrayToObject(feedback.get(), "details");
  cJSON_AddItemToArray(details, cJSON_CreateString(decision.detail.c_str()));
  for (std::size_t i = 1; i < problems.size(); ++i)
    cJSON_AddItemToArray(details, cJSON_CreateString(problems[i].c_str()));
  // The link carries a query ("?c=..."); the feedback resource is below the path.
  std::string const failure =
      post(link.substr(0, link.find_first_of("?#")) + "/feedback", print(feedback.get()));
  Log::info("confirmation of action %s: %s, feedback %s", id.c_str(),
            DocumentReader::oneLine(decision.detail).c_str(),
            failure.empty() ? "sent" : failure.c_str());
  if (failure.empty() && sent_ && config_.consent == "socket") sent_(id);
  if (!problems.empty()) return Outcome::kRefused;
  return decision.confirmed && failure.empty() ? Outcome::kConfirmed : Outcome::kWaiting;
}

std::string ConsentFlow::readAction(std::string const& body, std::string const& id,
                                    std::vector<std::string>& args,
                                    std::vector<std::string>& problems,
                                    hawkbit_query_t::deployment_t& deployment) {
  JsonText::Document const root(cJSON_Parse(body.c_str()), cJSON_Delete);
  cJSON* const action = cJSON_DetachItemFromObjectCaseSensitive(root.get(), "confirmation");
  if (!cJSON_IsObject(action) || JsonText::member(root.get(), "id") != id) {
    cJSON_Delete(action);
    return "the confirmation document could not be read (no action " + id + " in it)";
  }
  // Read as the deploymentBase it will become, with the same checks.
  cJSON_AddItemToObject(root.get(), "deployment", action);
  if (!parse_deployment_base(print(root.get()), deployment)) {
    return "the confirmation document could not be read";
  }
  problems = DeploymentPlan::read(deployment).problems();
  // cJSON ends its strings at a NUL, which the printed copy no longer shows.
  if (body.find("\\u0000") != std::string::npos)
    problems.push_back("the document holds a NUL character (\\u0000)");
  for (auto const& chunk : deployment.chunks) {
    if (!DeploymentDownload::safeName(chunk.name))
      problems.push_back("unsafe chunk name \"" + DocumentReader::oneLine(chunk.name) + "\"");
    for (auto const& artifact : chunk.artifacts) {
      if (!DeploymentDownload::safeName(artifact.filename))
        problems.push_back("unsafe artifact name \"" + DocumentReader::oneLine(artifact.filename) +
                           "\"");
    }
    args.push_back(chunk.name);
    args.push_back(chunk.version);
  }
  return std::string();
}

ConsentFlow::Decision ConsentFlow::ask(std::string const& id, std::vector<std::string> const& args,
                                       hawkbit_query_t::deployment_t const& deployment) {
  if (config_.consent == "auto") return {true, true, kConfirmedAuto, "confirmed: consent = auto"};
  if (config_.consent == "socket") {
    Verdict const verdict = asker_ ? asker_(args) : Verdict();
    if (verdict.kind == Verdict::Kind::kConfirm)
      return {true, true, kConfirmedThroughSocket, "confirmed through the control socket"};
    if (verdict.kind == Verdict::Kind::kDeny)
      return {true, false, kDeniedThroughSocket,
              "denied through the control socket" +
                  (verdict.reason.empty() ? "" : ": " + verdict.reason)};
    return {};
  }
  // The command's output, standard output included, is kept: its last line
  // is a denial's detail.
  CommandOptions options;
  options.stop = &stop_;
  options.deadlineMs = config_.consentTimeoutSeconds * 1000LL;
  // Every chunk's part, name, version and metadata, in a file for the run.
  ChunkEnvironment const environment(config_.downloadDir, deployment);
  options.environment = environment.variables();
  if (!environment.error().empty())
    Log::warning("confirmation of action %s: %s", id.c_str(), environment.error().c_str());
  CommandResult const result = runCommand("exec 1>&2\n" + config_.consentCommand, args, options);
  for (auto const& line : result.stderrTail) Log::info("  consent-command: %s", line.c_str());
  std::string const last = result.stderrTail.empty() ? "" : result.stderrTail.back();
  if (result.timedOut) {
    Log::warning(
        "confirmation of action %s: consent-command ran past %d s (consent-timeout-s), ended; "
        "asked again at the next poll, nothing sent",
        id.c_str(), config_.consentTimeoutSeconds);
  } else if (result.stopped) {
    Log::info("confirmation of action %s: consent-command ended, the agent stops", id.c_str());
  } else if (result.exitCode == 0) {
    return {true, true, kConfirmedByCommand, "confirmed by consent-command"};
  } else if (result.exitCode == 1) {
    return {true, false, kDeniedByCommand,
            "denied by consent-command" + (last.empty() ? "" : ": " + last)};
  } else if (result.exitCode == kAskAgain) {
    Log::info(
        "confirmation of action %s: consent-command asks to be asked again (exit 75); "
        "nothing sent",
        id.c_str());
  } else {
    Log::warning(
        "confirmation of action %s: consent-command %s, neither 0, 1 nor 75; asked again "
        "at the next poll, nothing sent",
        id.c_str(), result.describe().c_str());
  }
  return {};
}

std::string ConsentFlow::post(std::string const& url, std::string const& body) {
  return server_.send([&] {
    auto buffer = std::make_shared<curlbuffer>(std::make_unique<memoryio>(body));
    return transport_.post(url, buffer);
  });
}
