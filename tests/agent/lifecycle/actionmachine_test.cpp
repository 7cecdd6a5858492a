// The action's table, walked whole: every stage against every event, the
// next stage and the work. Pairs not listed keep the stage and do nothing.
#include "agent/lifecycle/actionmachine.h"

#include <gtest/gtest.h>

#include <map>
#include <sstream>

namespace {

using Kind = ActionMachine::Kind;
using Exit = ActionMachine::Exit;
using Offer = ActionMachine::Offer;
using Answer = ActionMachine::Answer;
using Stage = ActionState::Stage;

std::map<std::string, ActionMachine::Event> events() {
  std::map<std::string, ActionMachine::Event> all;
  auto add = [&](std::string const& name, Kind kind, std::string const& id = "7") {
    ActionMachine::Event& e = all[name];
    e.kind = kind;
    e.actionId = id;
    e.chunks = {"os", "app"};
    return &e;
  };
  add("start-same", Kind::kStartSameBoot);
  add("start-new", Kind::kStartNewBoot);
  add("offered", Kind::kOffered);
  add("offered-wait", Kind::kOffered)->offer = Offer::kWait;
  add("offered-dlonly", Kind::kOffered)->offer = Offer::kDownloadOnly;
  add("offered-skip", Kind::kOffered)->offer = Offer::kSkip;
  add("offered-other", Kind::kOffered, "8");
  add("not-offered", Kind::kNotOffered, "");
  add("cancel", Kind::kCancel);
  add("cancel-other", Kind::kCancel, "8");
  add("downloaded", Kind::kDownloaded);
  add("downloaded-wait", Kind::kDownloaded)->offer = Offer::kWait;
  add("downloaded-dlonly", Kind::kDownloaded)->offer = Offer::kDownloadOnly;
  add("failed", Kind::kFailed);
  add("exit-ok", Kind::kCommandExited);
  add("exit-reboot", Kind::kCommandExited)->exit = Exit::kReboot;
  add("exit-failed", Kind::kCommandExited)->exit = Exit::kFailed;
  add("exit-stopped", Kind::kCommandExited)->exit = Exit::kStopped;
  add("recovered-ok", Kind::kRecovered);
  add("recovered-reboot", Kind::kRecovered)->exit = Exit::kReboot;
  add("no-outcome", Kind::kNoOutcome);
  for (auto const& answer : {std::make_pair("2xx", Answer::k2xx),
                             {"gone", Answer::kGone},
                             {"busy", Answer::kBusy},
                             {"5xx", Answer::kError},
                             {"none", Answer::kNone}})
    add(std::string("fb-") + answer.first, Kind::kFeedback)->answer = answer.second;
  add("stop", Kind::kStop);
  add("write-failed", Kind::kWriteFailed);
  // What a local UI brings in.
  add("offered-ask", Kind::kOffered)->ask = true;
  add("downloaded-ask", Kind::kDownloaded)->ask = true;
  add("hold", Kind::kHoldPolling, "");
  add("release", Kind::kReleasePolling, "");
  add("consent-asked", Kind::kConsentAsked);
  add("consent-asked-other", Kind::kConsentAsked, "8");
  add("consent-answered", Kind::kConsentAnswered);
  add("permit-download", Kind::kPermitted);
  add("permit-install", Kind::kPermitted)->permit = ActionMachine::Permit::kInstall;
  return all;
}

ActionState at(Stage stage, std::size_t chunk = 0, bool owed = false) {
  ActionState state;
  state.stage = stage;
  if (stage == Stage::kIdle) return state;
  state.actionId = "7";
  state.chunks = {"os", "app"};
  state.chunk = chunk;
  state.rebootOwed = owed;
  if (stage >= Stage::kReporting) state.result = ActionState::Result::kSuccess;
  return state;
}

struct Row {
  Stage stage;
  char const* events;  // space-separated
  char const* next;    // ActionState::describe(), plus " #8" for another action
  char const* work;
};

// Everything but the default (same stage, no work).
Row const kTable[] = {
    {Stage::kIdle, "offered offered-wait offered-dlonly", "downloading", "proceed and download"},
    {Stage::kIdle, "offered-other", "downloading #8", "proceed and download"},
    {Stage::kIdle, "cancel cancel-other", "idle", "accept cancel"},
    {Stage::kIdle, "offered-ask", "awaiting-download-permit", "await permit"},
    {Stage::kIdle, "consent-asked", "consent-needed", "await consent"},
    {Stage::kIdle, "consent-asked-other", "consent-needed #8", "await consent"},

    {Stage::kConsentNeeded, "start-same start-new", "consent-needed", "await consent"},
    {Stage::kConsentNeeded, "consent-asked-other", "consent-needed #8", "await consent"},
    {Stage::kConsentNeeded, "consent-answered not-offered offered-skip", "idle", "none"},
    {Stage::kConsentNeeded, "offered offered-wait offered-dlonly", "downloading",
     "proceed and download"},
    {Stage::kConsentNeeded, "offered-other", "downloading #8", "proceed and download"},
    {Stage::kConsentNeeded, "offered-ask", "awaiting-download-permit", "await permit"},
    {Stage::kConsentNeeded, "cancel", "idle", "accept cancel"},
    {Stage::kConsentNeeded, "cancel-other", "consent-needed", "accept cancel"},

    {Stage::kAwaitingDownloadPermit, "start-same start-new", "awaiting-download-permit",
     "await permit"},
    {Stage::kAwaitingDownloadPermit, "offered-other", "downloading #8", "proceed and download"},
    {Stage::kAwaitingDownloadPermit, "not-offered", "idle", "drop"},
    {Stage::kAwaitingDownloadPermit, "permit-download", "downloading", "proceed and download"},
    {Stage::kAwaitingDownloadPermit, "failed", "reporting failure", "report"},
    {Stage::kAwaitingDownloadPermit, "cancel", "idle", "accept cancel"},
    {Stage::kAwaitingDownloadPermit, "cancel-other", "awaiting-download-permit", "accept cancel"},

    {Stage::kAwaitingInstallPermit, "start-same start-new", "awaiting-install-permit",
     "await permit"},
    {Stage::kAwaitingInstallPermit, "offered-other", "downloading #8", "proceed and download"},
    {Stage::kAwaitingInstallPermit, "not-offered", "idle", "drop"},
    {Stage::kAwaitingInstallPermit, "permit-install", "installing chunk 1 of 2", "install"},
    {Stage::kAwaitingInstallPermit, "failed", "reporting failure", "report"},
    {Stage::kAwaitingInstallPermit, "cancel", "idle", "accept cancel"},
    {Stage::kAwaitingInstallPermit, "cancel-other", "awaiting-install-permit", "accept cancel"},

    {Stage::kDownloading, "offered offered-ask offered-wait offered-dlonly", "downloading",
     "download"},
    {Stage::kDownloading, "offered-other", "downloading #8", "proceed and download"},
    {Stage::kDownloading, "not-offered fb-gone", "idle", "drop"},
    {Stage::kDownloading, "cancel", "idle", "accept cancel"},
    {Stage::kDownloading, "cancel-other", "downloading", "accept cancel"},
    {Stage::kDownloading, "downloaded", "installing chunk 1 of 2", "install"},
    {Stage::kDownloading, "downloaded-wait", "waiting-window", "report waiting"},
    {Stage::kDownloading, "downloaded-ask", "awaiting-install-permit", "await permit"},
    {Stage::kDownloading, "downloaded-dlonly", "reporting downloaded", "report"},
    {Stage::kDownloading, "failed", "reporting failure", "report"},
    {Stage::kDownloading, "fb-2xx fb-busy fb-5xx fb-none", "downloading", "download"},
    {Stage::kDownloading, "stop", "downloading", "report interrupted"},

    {Stage::kWaitingWindow, "offered offered-ask offered-dlonly", "downloading", "download"},
    {Stage::kWaitingWindow, "offered-other", "downloading #8", "proceed and download"},
    {Stage::kWaitingWindow, "not-offered fb-gone", "idle", "drop"},
    {Stage::kWaitingWindow, "cancel", "idle", "accept cancel"},
    {Stage::kWaitingWindow, "cancel-other", "waiting-window", "accept cancel"},
    {Stage::kWaitingWindow, "failed", "reporting failure", "report"},

    {Stage::kInstalling,
     "start-same start-new offered offered-ask offered-wait offered-dlonly offered-skip",
     "installing chunk 1 of 2", "recover install"},
    {Stage::kInstalling, "offered-other", "installing chunk 1 of 2", "hold"},
    {Stage::kInstalling, "cancel", "installing chunk 1 of 2", "reject cancel"},
    {Stage::kInstalling, "cancel-other", "installing chunk 1 of 2", "accept cancel"},
    // The next chunk is recorded, then the progress is sent, then it installs.
    {Stage::kInstalling, "exit-ok exit-reboot recovered-ok recovered-reboot",
     "installing chunk 2 of 2", "report progress"},
    {Stage::kInstalling, "exit-failed failed", "reporting failure", "report"},
    {Stage::kInstalling, "exit-stopped stop", "installing chunk 1 of 2", "report interrupted"},
    {Stage::kInstalling, "no-outcome fb-2xx fb-gone fb-busy fb-5xx fb-none",
     "installing chunk 1 of 2", "install"},

    {Stage::kAnnouncing,
     "start-same offered offered-ask offered-wait offered-dlonly offered-skip not-offered",
     "announcing", "announce"},
    {Stage::kAnnouncing, "start-new", "confirming", "confirm"},
    {Stage::kAnnouncing, "offered-other", "announcing", "hold"},
    {Stage::kAnnouncing, "cancel", "announcing", "reject cancel"},
    {Stage::kAnnouncing, "cancel-other", "announcing", "accept cancel"},
    {Stage::kAnnouncing, "fb-2xx", "rebooting", "reboot"},
    {Stage::kAnnouncing, "fb-gone fb-busy fb-5xx fb-none", "announcing", "reboot"},

    {Stage::kRebooting,
     "start-same offered offered-ask offered-wait offered-dlonly offered-skip not-offered",
     "rebooting", "reboot"},
    {Stage::kRebooting, "start-new", "confirming", "confirm"},
    {Stage::kRebooting, "offered-other", "rebooting", "hold"},
    {Stage::kRebooting, "cancel", "rebooting", "reject cancel"},
    {Stage::kRebooting, "cancel-other", "rebooting", "accept cancel"},

    {Stage::kConfirming,
     "start-same start-new offered offered-ask offered-wait offered-dlonly offered-skip",
     "confirming", "confirm"},
    {Stage::kConfirming, "offered-other", "confirming", "hold"},
    {Stage::kConfirming, "cancel", "confirming", "reject cancel"},
    {Stage::kConfirming, "cancel-other", "confirming", "accept cancel"},
    {Stage::kConfirming, "exit-ok", "reporting success", "report"},
    {Stage::kConfirming, "exit-reboot exit-failed", "reporting failure", "report"},

    {Stage::kReporting,
     "start-same start-new offered offered-ask offered-wait offered-dlonly offered-skip",
     "reporting success", "report"},
    {Stage::kReporting, "not-offered", "idle", "none"},
    {Stage::kReporting, "offered-other", "downloading #8", "proceed and download"},
    {Stage::kReporting, "fb-2xx", "closed success", "none"},
    {Stage::kReporting, "consent-asked-other", "consent-needed #8", "await consent"},
    {Stage::kReporting, "cancel", "reporting success", "reject cancel"},
    {Stage::kReporting, "cancel-other", "reporting success", "accept cancel"},

    {Stage::kClosed, "offered offered-ask offered-wait offered-dlonly offered-skip",
     "reporting success", "report"},
    {Stage::kClosed, "offered-other", "downloading #8", "proceed and download"},
    {Stage::kClosed, "not-offered", "idle", "none"},
    {Stage::kClosed, "consent-asked-other", "consent-needed #8", "await consent"},
    {Stage::kClosed, "cancel cancel-other", "closed success", "accept cancel"},
};

std::string shown(ActionState const& state) {
  return state.describe() + (state.actionId == "8" ? " #8" : "");
}

TEST(ActionMachine, EveryStageAgainstEveryEvent) {
  auto const all = events();
  std::map<std::pair<Stage, std::string>, Row const*> listed;
  for (Row const& row : kTable) {
    std::istringstream names(row.events);
    for (std::string name; names >> name;) {
      ASSERT_TRUE(all.count(name)) << name;
      ASSERT_TRUE(listed.emplace(std::make_pair(row.stage, name), &row).second) << name;
    }
  }
  for (int s = 0; s <= static_cast<int>(Stage::kClosed); ++s) {
    ActionState const state = at(static_cast<Stage>(s));
    for (auto const& [name, event] : all) {
      SCOPED_TRACE(shown(state) + " + " + name);
      ActionMachine::Step const step = ActionMachine::next(state, event);
      auto const row = listed.find({state.stage, name});
      if (name == "write-failed") {
        EXPECT_EQ(step.state.format(), state.format());
        EXPECT_STREQ(ActionMachine::name(step.work), "halt");
      } else if (name == "hold" || name == "release") {
        // Holding polling changes nothing but itself, in every stage.
        ActionState held = state;
        held.pollingHeld = name == "hold";
        EXPECT_EQ(step.state.format(), held.format());
        EXPECT_STREQ(ActionMachine::name(step.work), "none");
      } else if (row == listed.end()) {
        EXPECT_EQ(step.state.format(), state.format());
        EXPECT_STREQ(ActionMachine::name(step.work), "none");
      } else {
        EXPECT_EQ(shown(step.state), row->second->next);
        EXPECT_STREQ(ActionMachine::name(step.work), row->second->work);
      }
    }
  }
}

// The last chunk decides between the report and the reboot; a reboot any
// chunk asked for is taken after the last one, even when that one failed.
TEST(ActionMachine, LastChunkAndTheOwedReboot) {
  auto const all = events();
  struct Case {
    bool owed;
    char const* event;
    char const* next;
    char const* work;
    ActionState::Result result;
  } const cases[] = {
      {false, "exit-ok", "reporting success", "report", ActionState::Result::kSuccess},
      {false, "exit-reboot", "announcing", "announce", ActionState::Result::kNone},
      {false, "exit-failed", "reporting failure", "report", ActionState::Result::kFailure},
      {true, "exit-ok", "announcing", "announce", ActionState::Result::kNone},
      {true, "recovered-ok", "announcing", "announce", ActionState::Result::kNone},
      {true, "exit-failed", "announcing", "announce", ActionState::Result::kFailure},
  };
  for (Case const& c : cases) {
    SCOPED_TRACE(std::string(c.event) + (c.owed ? " (reboot owed)" : ""));
    ActionMachine::Step const step =
        ActionMachine::next(at(Stage::kInstalling, 1, c.owed), all.at(c.event));
    EXPECT_EQ(step.state.describe(), c.next);
    EXPECT_STREQ(ActionMachine::name(step.work), c.work);
    EXPECT_EQ(step.state.result, c.result);
  }
  // A chunk refused after the slot switch: the confirmation cannot make it good.
  ActionState failed = at(Stage::kConfirming);
  failed.result = ActionState::Result::kFailure;
  EXPECT_EQ(ActionMachine::next(failed, all.at("exit-ok")).state.describe(), "reporting failure");
}

// The record reads back as written, the older record is understood, and
// anything else is refused.
TEST(ActionState, RecordTextRoundTripsAndRefusesTheRest) {
  ActionState state = at(Stage::kInstalling, 1, true);
  state.bootId = "b0";
  state.held = "9";
  state.details = {"line\nwith break"};
  state.parts = {"rootfs", "app"};
  state.versions = {"2.0", "1.1"};
  ActionState read;
  ASSERT_EQ(ActionState::parse(state.format(), read), "");
  EXPECT_EQ(read.format(), state.format());
  EXPECT_EQ(read.details.front(), "line with break");
  struct Case {
    char const* text;
    char const* problem;  // "" with the stage read
  } const cases[] = {
      {"action 1\nchunk fw\nboot b\nannounced\nend\n", "rebooting"},
      {"action 1\nchunk fw\nboot b\nend\n", "announcing"},
      {"action 1\nchunk fw\nresult failure\nend\n", "reporting failure"},
      {"state idle\nend\n", "idle"},
      {"state idle\npolling held\nend\n", "idle"},
      {"state idle\npolling off\nend\n", "unknown line \"polling off\""},
      {"state consent-needed\naction 1\nend\n", "consent-needed"},
      {"state installing\naction 1\nchunk fw\nat 1\nend\n", "chunk index past the chunks"},
      {"state reporting\naction 1\nchunk fw\nend\n", "no result"},
      {"state rebooting\naction 1\nchunk fw\npart os\nend\n",
       "parts and versions do not match the chunks"},
      {"state closed\naction 1\naction 2\nchunk fw\nresult success\nend\n",
       "\"action\" given twice"},
      {"state rebooting\naction 1\nchunk fw\nend\nx\n", "text after \"end\""},
      {"state rebooting\naction 1\nchunk fw\n", "incomplete"},
      {"state sleeping\nend\n", "unknown line \"state sleeping\""},
  };
  for (Case const& c : cases) {
    std::string const problem = ActionState::parse(c.text, read);
    EXPECT_EQ(problem.empty() ? read.describe() : problem, c.problem) << c.text;
  }
}

}  // namespace
