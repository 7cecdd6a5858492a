#include "agent/lifecycle/actionstate.h"

#include <set>
#include <sstream>

namespace {

using Stage = ActionState::Stage;
using Result = ActionState::Result;

Stage const kStages[] = {Stage::kIdle,        Stage::kConsentNeeded, Stage::kAwaitingDownloadPermit,
                         Stage::kDownloading, Stage::kWaitingWindow, Stage::kAwaitingInstallPermit,
                         Stage::kInstalling,  Stage::kAnnouncing,    Stage::kRebooting,
                         Stage::kConfirming,  Stage::kReporting,     Stage::kClosed};
Result const kResults[] = {Result::kNone, Result::kSuccess, Result::kFailure, Result::kDownloaded};

// One line per value: line breaks and other control characters become blanks.
std::string oneLine(std::string text) {
  for (char& c : text) {
    if (static_cast<unsigned char>(c) < 0x20) c = ' ';
  }
  return text;
}

bool number(std::string const& text, std::size_t& value) {
  if (text.empty() || text.size() > 4 || text.find_first_not_of("0123456789") != std::string::npos)
    return false;
  value = std::stoul(text);
  return true;
}

}  // namespace

char const* ActionState::name(Stage stage) {
  switch (stage) {
    case Stage::kIdle:
      return "idle";
    case Stage::kConsentNeeded:
      return "consent-needed";
    case Stage::kAwaitingDownloadPermit:
      return "awaiting-download-permit";
    case Stage::kDownloading:
      return "downloading";
    case Stage::kWaitingWindow:
      return "waiting-window";
    case Stage::kAwaitingInstallPermit:
      return "awaiting-install-permit";
    case Stage::kInstalling:
      return "installing";
    case Stage::kAnnouncing:
      return "announcing";
    case Stage::kRebooting:
      return "rebooting";
    case Stage::kConfirming:
      return "confirming";
    case Stage::kReporting:
      return "reporting";
    case Stage::kClosed:
      return "closed";
  }
  return "?";
}

char const* ActionState::name(Result result) {
  switch (result) {
    case Result::kNone:
      return "none";
    case Result::kSuccess:
      return "success";
    case Result::kFailure:
      return "failure";
    case Result::kDownloaded:
      return "downloaded";
  }
  return "?";
}

std::string ActionState::describe() const {
  std::string text = name(stage);
  if (stage == Stage::kInstalling)
    text += " chunk " + std::to_string(chunk + 1) + " of " + std::to_string(chunks.size());
  if (stage == Stage::kReporting || stage == Stage::kClosed)
    text += std::string(" ") + name(result);
  return text;
}

std::string ActionState::format() const {
  std::ostringstream text;
  text << "state " << name(stage) << "\n";
  if (pollingHeld) text << "polling held\n";
  if (stage != Stage::kIdle) {
    text << "action " << oneLine(actionId) << "\n";
    for (std::size_t c = 0; c < chunks.size(); ++c) {
      text << "chunk " << oneLine(chunks[c]) << "\n";
      if (c < parts.size() && c < versions.size())
        text << "part " << oneLine(parts[c]) << "\nversion " << oneLine(versions[c]) << "\n";
    }
    if (stage == Stage::kInstalling) text << "at " << chunk << "\n";
    if (rebootOwed) text << "reboot\n";
    if (result != Result::kNone) text << "result " << name(result) << "\n";
    if (!bootId.empty()) text << "boot " << oneLine(bootId) << "\n";
    if (!held.empty()) text << "held " << oneLine(held) << "\n";
    // The details are cut so that the record stays readable.
    for (auto const& detail : details) {
      std::string const line = "detail " + oneLine(detail) + "\n";
      if (static_cast<std::size_t>(text.tellp()) + line.size() + 4 > kMaxRecordBytes) break;
      text << line;
    }
  }
  text << "end\n";
  return text.str();
}

std::string ActionState::parse(std::string const& text, ActionState& state) {
  state = ActionState();
  std::set<std::string> seen;
  bool complete = false, stageSeen = false, announced = false;
  std::istringstream in(text);
  for (std::string line; std::getline(in, line);) {
    if (complete) return "text after \"end\"";
    std::size_t const space = line.find(' ');
    std::string const key = line.substr(0, space);
    std::string const value = space == std::string::npos ? "" : line.substr(space + 1);
    // Lists may repeat; every other key holds one value.
    if (key != "chunk" && key != "part" && key != "version" && key != "detail" &&
        !seen.insert(key).second)
      return "\"" + key + "\" given twice";
    bool known = true;
    if (key == "state") {
      known = false;
      for (Stage s : kStages) {
        if (value == name(s)) state.stage = s, known = stageSeen = true;
      }
    } else if (key == "action") {
      state.actionId = value;
    } else if (key == "chunk") {
      state.chunks.push_back(value);
    } else if (key == "part") {
      state.parts.push_back(value);
    } else if (key == "version") {
      state.versions.push_back(value);
    } else if (key == "at") {
      known = number(value, state.chunk);
    } else if (key == "reboot" && value.empty()) {
      state.rebootOwed = true;
    } else if (key == "result") {
      known = false;
      for (Result r : kResults) {
        if (value == name(r) && r != Result::kNone) state.result = r, known = true;
      }
    } else if (key == "boot") {
      state.bootId = value;
    } else if (key == "polling") {
      known = value == "held";
      state.pollingHeld = known;
    } else if (key == "held") {
      state.held = value;
    } else if (key == "announced" && value.empty()) {
      announced = true;  // the older pending-reboot record
    } else if (key == "detail") {
      state.details.push_back(value);
    } else if (key == "end") {
      complete = true;
    } else {
      known = false;
    }
    if (!known) return "unknown line \"" + line.substr(0, 40) + "\"";
  }
  if (!complete) return "incomplete";
  if (!stageSeen) {
    // The older record of an action installed and waiting for its reboot
    // (or its result): what the agent wrote before it kept stages.
    if (state.result != Result::kNone)
      state.stage = Stage::kReporting;
    else
      state.stage = announced ? Stage::kRebooting : Stage::kAnnouncing;
  } else if (announced) {
    return "unknown line \"announced\"";
  }
  if (state.stage == Stage::kIdle)
    return seen.size() == (state.pollingHeld ? 3u : 2u) ? "" : "text in an idle record";
  // An action waiting for consent may not have named its chunks yet.
  if (state.actionId.empty() || (state.chunks.empty() && state.stage != Stage::kConsentNeeded))
    return "incomplete";
  if (state.parts.size() != state.versions.size() ||
      (!state.parts.empty() && state.parts.size() != state.chunks.size()))
    return "parts and versions do not match the chunks";
  if (state.stage == Stage::kInstalling && state.chunk >= state.chunks.size())
    return "chunk index past the chunks";
  bool const resultStage = state.stage == Stage::kReporting || state.stage == Stage::kClosed;
  if (resultStage && state.result == Result::kNone) return "no result";
  return std::string();
}
