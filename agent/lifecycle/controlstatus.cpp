#include "agent/lifecycle/controlstatus.h"

#include <cjson/cJSON.h>

#include <cstdio>
#include <memory>

#include "agent/base/console.h"
#include "agent/base/jsontext.h"

namespace {

using Stage = ActionState::Stage;

// What a stage waits for from the UI, "" for nothing.
char const* awaited(Stage stage) {
  switch (stage) {
    case Stage::kConsentNeeded:
      return "consent";
    case Stage::kAwaitingDownloadPermit:
      return "download";
    case Stage::kAwaitingInstallPermit:
      return "install";
    default:
      return "";
  }
}

}  // namespace

void ControlStatus::action(ActionState const& state,
                           hawkbit_query_t::deployment_t const* deployment) {
  channel_.set("state", JsonText::quoted(ActionState::name(state.stage)));
  bool const idle = state.stage == Stage::kIdle;
  channel_.set("action", idle ? "" : JsonText::quoted(state.actionId));
  std::string chunks = "[";
  if (deployment && deployment->id == state.actionId) {
    for (auto const& chunk : deployment->chunks)
      chunks += std::string(chunks.size() > 1 ? "," : "") +
                "{\"part\":" + JsonText::quoted(chunk.part) +
                ",\"name\":" + JsonText::quoted(chunk.name) +
                ",\"version\":" + JsonText::quoted(chunk.version) + "}";
  } else if (!idle) {
    for (auto const& name : state.chunks)
      chunks +=
          std::string(chunks.size() > 1 ? "," : "") + "{\"name\":" + JsonText::quoted(name) + "}";
  }
  // The recorded names stand in until a poll brings the parts and versions.
  if (!idle && (chunks.size() > 1 || state.chunks.empty())) channel_.set("chunks", chunks + "]");
  if (idle) channel_.set("chunks", "");
  channel_.set("polling", state.pollingHeld ? "false" : "true");
  channel_.await(state.actionId, awaited(state.stage));
}

void ControlStatus::progress(std::string const& name, std::uint64_t bytes, std::uint64_t total,
                             double rate, bool ended) {
  std::lock_guard<std::mutex> guard(lock_);
  auto const now = std::chrono::steady_clock::now();
  if (!ended && now - told_ < std::chrono::milliseconds(250)) return;
  told_ = now;
  unsigned long long const percent =
      total == 0 ? (ended ? 100 : 0) : (bytes >= total ? 100 : bytes * 100 / total);
  char members[160];
  std::snprintf(members, sizeof members,
                "\"bytes\":%llu,\"total\":%llu,\"rate\":%.0f,\"percent\":%llu",
                static_cast<unsigned long long>(bytes), static_cast<unsigned long long>(total),
                rate, percent);
  std::string const all = "\"name\":" + JsonText::quoted(name) + "," + members;
  channel_.set("download", "{" + all + "}");
  channel_.publish("progress", all);
}

void ControlStatus::last(char const* result) {
  channel_.set("last", "{\"result\":" + JsonText::quoted(result) + ",\"time\":" +
                           JsonText::quoted(Console::utcTime(std::time(nullptr))) + "}");
}

void ControlStatus::event(std::string const& name,
                          std::vector<std::pair<std::string, std::string>> const& members) {
  std::string text;
  for (auto const& member : members)
    text += (text.empty() ? "" : ",") + JsonText::quoted(member.first) + ":" +
            JsonText::quoted(member.second);
  channel_.publish(name, text);
}

void ControlStatus::stepped(ActionState const& before, ActionState const& state,
                            ActionMachine::Work work,
                            hawkbit_query_t::deployment_t const* deployment) {
  using Work = ActionMachine::Work;
  using Result = ActionState::Result;
  action(state, deployment);
  std::string const& id = state.actionId;
  bool const fresh = before.actionId != id || before.stage <= Stage::kConsentNeeded;
  if (fresh &&
      (state.stage == Stage::kDownloading || state.stage == Stage::kAwaitingDownloadPermit))
    event("offered", {{"action", id}});
  switch (work) {
    case Work::kAwaitConsent:
      event("consent-needed", {{"action", id}});
      break;
    case Work::kAwaitPermit:
      event("permit-needed",
            {{"action", id},
             {"permit", state.stage == Stage::kAwaitingInstallPermit ? "install" : "download"}});
      break;
    case Work::kReboot:
      event("reboot", {{"action", id}});
      break;
    default:
      break;
  }
  if (before.stage == Stage::kConfirming && state.stage == Stage::kReporting)
    event("confirmed", {{"action", id}, {"result", ActionState::name(state.result)}});
  if (before.stage != Stage::kReporting && state.stage == Stage::kReporting) {
    last(ActionState::name(state.result));
    if (state.result == Result::kFailure)
      event("error",
            {{"action", id},
             {"message", state.details.empty() ? "the action failed" : state.details.back()}});
  }
  if (before.stage == Stage::kReporting && state.stage == Stage::kClosed)
    event("closed", {{"action", id}, {"result", ActionState::name(state.result)}});
}
