// The agent's guarantees over random runs of the table: a simulated server
// and device, crashes that restart from the recorded text, records that
// cannot be written, feedback the server does not take, results it loses,
// and a local UI that gives consent and permits and holds polling.
#include "agent/lifecycle/actionmachine.h"

#include <gtest/gtest.h>

#include <map>
#include <optional>
#include <random>
#include <set>

namespace {

using Kind = ActionMachine::Kind;
using Work = ActionMachine::Work;
using Stage = ActionState::Stage;
using Event = ActionMachine::Event;

struct Sim {
  std::mt19937 random;
  // The server: actions 1..; the open one is offered, one at a time.
  int open = 1;
  std::set<int> closed;  // took a closing feedback
  // The device.
  std::string disk = ActionState().format();
  ActionState state;
  bool halted = false, rebooted = false;
  int boot = 0;
  std::map<std::string, int> installs;   // "action:chunk" -> runs
  std::map<std::string, bool> outcomes;  // kept by the lock's holder
  std::set<int> confirmedAfterBoot;      // actions confirmed in a later boot
  std::set<int> owed;                    // actions one of whose chunks asked for a reboot
  // The UI: permit = socket, consent = socket (the server holds each action
  // for consent), what it permitted, consented to, and its hold.
  bool ask = false, consent = false, held = false;
  std::set<std::string> permitted;  // "action:download", "action:install"
  std::set<int> consented;

  explicit Sim(unsigned seed) : random(seed), ask(seed % 2 == 0), consent(seed % 3 == 0) {}
  bool chance(int percent) { return static_cast<int>(random() % 100) < percent; }
  ActionMachine::Answer answer() {
    static ActionMachine::Answer const all[] = {
        ActionMachine::Answer::k2xx, ActionMachine::Answer::kGone, ActionMachine::Answer::kBusy,
        ActionMachine::Answer::kError, ActionMachine::Answer::kNone};
    return chance(60) ? all[0] : all[random() % 5];
  }
  static Event event(Kind kind, std::string const& id = std::string()) {
    Event e;
    e.kind = kind;
    e.actionId = id;
    e.chunks = {"os", "app", "jvm"};
    return e;
  }
  std::string tag() const { return state.actionId + ":" + std::to_string(state.chunk); }
  // How often chunk `c` of the recorded action was installed.
  int runs(std::size_t c) const {
    auto const found = installs.find(state.actionId + ":" + std::to_string(c));
    return found == installs.end() ? 0 : found->second;
  }

  void feed(Event e) {
    for (int steps = 0; steps < 32 && !halted; ++steps) {
      ActionState const before = state;
      if (e.kind == Kind::kOffered || e.kind == Kind::kDownloaded) e.ask = ask;
      ActionMachine::Step step = ActionMachine::next(state, e);
      // Only the UI's hold and release change the hold.
      if (e.kind != Kind::kHoldPolling && e.kind != Kind::kReleasePolling) {
        ASSERT_EQ(step.state.pollingHeld, before.pollingHeld);
      }
      // The agent adds the boot that installed it before recording it.
      if (step.state.stage == Stage::kAnnouncing && step.state.bootId.empty())
        step.state.bootId = std::to_string(boot);
      if (step.state.format() != state.format()) {
        if (chance(3)) {
          step = ActionMachine::next(state, event(Kind::kWriteFailed));
          ASSERT_EQ(step.work, Work::kHalt);
          ASSERT_EQ(step.state.format(), disk);
          halted = true;
          return;
        }
        disk = step.state.format();
      }
      state = step.state;
      int const id = state.actionId.empty() ? 0 : std::stoi(state.actionId);
      // One action in flight: nothing new starts beside an installed one.
      if (step.work == Work::kProceedAndDownload && before.actionId != state.actionId) {
        ASSERT_FALSE(before.stage >= Stage::kInstalling && before.stage <= Stage::kConfirming)
            << before.describe();
      }
      // Nothing is fetched or installed before the UI allowed it.
      if (step.work == Work::kProceedAndDownload || step.work == Work::kDownload ||
          step.work == Work::kInstall) {
        if (ask) {
          ASSERT_TRUE(permitted.count(state.actionId +
                                      (step.work == Work::kInstall ? ":install" : ":download")))
              << state.describe();
        }
        if (consent) {
          ASSERT_TRUE(consented.count(id)) << id;
        }
      }
      std::optional<Event> next;
      switch (step.work) {
        case Work::kProceedAndDownload:
        case Work::kAnnounce:
          next = event(Kind::kFeedback);
          next->answer = answer();
          break;
        case Work::kDownload:
          next = event(chance(10) ? Kind::kFailed : Kind::kDownloaded);
          break;
        case Work::kReportProgress:
          // Sent once the next chunk is recorded: every chunk before it
          // installed once, it not yet.
          for (std::size_t c = 0; c < state.chunk; ++c) ASSERT_EQ(runs(c), 1) << tag();
          ASSERT_EQ(runs(state.chunk), 0) << tag();
          if (chance(10)) return;  // crashed before the progress went out
          next = event(Kind::kFeedback);
          next->answer = answer();
          break;
        case Work::kInstall: {
          if (chance(10)) return;  // crashed before the command ran
          // No chunk is skipped.
          for (std::size_t c = 0; c < state.chunk; ++c) ASSERT_EQ(runs(c), 1) << tag();
          ++installs[tag()];
          bool const reboot = id % 3 == 0 && state.chunk == 0;
          if (reboot) owed.insert(id);
          outcomes[tag()] = reboot;
          if (chance(15)) return;  // crashed while it ran: its holder kept the outcome
          next = event(Kind::kCommandExited);
          next->exit = reboot ? ActionMachine::Exit::kReboot : ActionMachine::Exit::kOk;
          break;
        }
        case Work::kRecoverInstall:
          if (outcomes.count(tag())) {
            next = event(Kind::kRecovered);
            next->exit = outcomes[tag()] ? ActionMachine::Exit::kReboot : ActionMachine::Exit::kOk;
          } else {
            next = event(Kind::kNoOutcome);
          }
          break;
        case Work::kReboot:
          rebooted = true;
          return;
        case Work::kConfirm:
          if (state.bootId != std::to_string(boot)) confirmedAfterBoot.insert(id);
          next = event(Kind::kCommandExited);
          break;
        case Work::kReport: {
          // Recorded before reported.
          ActionState recorded;
          ASSERT_EQ(ActionState::parse(disk, recorded), "");
          ASSERT_EQ(recorded.stage, Stage::kReporting);
          ASSERT_NE(recorded.result, ActionState::Result::kNone);
          next = event(Kind::kFeedback);
          next->answer = closed.count(id) ? ActionMachine::Answer::kGone : answer();
          if (next->answer == ActionMachine::Answer::k2xx) {
            closed.insert(id);
            if (recorded.result == ActionState::Result::kSuccess) {
              // Success is never reported for work not done, nor before the
              // confirmation a reboot needs.
              for (std::size_t c = 0; c < 3; ++c)
                ASSERT_EQ(installs[state.actionId + ":" + std::to_string(c)], 1) << id;
              if (owed.count(id)) {
                ASSERT_TRUE(confirmedAfterBoot.count(id)) << id;
              }
            }
            open = *closed.rbegin() + 1;
          }
          break;
        }
        default:
          return;
      }
      e = *next;
    }
  }

  void restart() {
    if (rebooted) ++boot;
    rebooted = false;
    halted = false;
    ASSERT_EQ(ActionState::parse(disk, state), "") << disk;
    ASSERT_EQ(state.pollingHeld, held);
    bool const newBoot = !state.bootId.empty() && state.bootId != std::to_string(boot);
    feed(event(newBoot ? Kind::kStartNewBoot : Kind::kStartSameBoot));
  }

  void poll() {
    // Now and then the server loses the result it took last and offers the
    // action again (the device keeps that result until a poll shows it gone).
    if (state.stage == Stage::kClosed && chance(20)) {
      int const lost = std::stoi(state.actionId);
      closed.erase(lost);
      open = lost;
    }
    // A server offers its open action at every poll.
    if (closed.count(open)) {
      feed(event(Kind::kNotOffered));
    } else if (consent && !consented.count(open)) {
      feed(event(Kind::kConsentAsked, std::to_string(open)));
    } else {
      feed(event(Kind::kOffered, std::to_string(open)));
    }
  }

  // The UI answers what the action waits for, or holds or releases polling.
  void ui() {
    std::string const id = state.actionId;
    Event e = event(Kind::kPermitted, id);
    if (state.stage == Stage::kConsentNeeded) {
      consented.insert(std::stoi(id));
      e.kind = Kind::kConsentAnswered;
    } else if (state.stage == Stage::kAwaitingDownloadPermit) {
      permitted.insert(id + ":download");
    } else if (state.stage == Stage::kAwaitingInstallPermit) {
      permitted.insert(id + ":install");
      e.permit = ActionMachine::Permit::kInstall;
    } else {
      e = event(held ? Kind::kReleasePolling : Kind::kHoldPolling);
      feed(e);
      if (!halted) held = !held;
      return;
    }
    feed(e);
  }
};

TEST(ActionInvariants, RandomRunsWithCrashesAndFailedWrites) {
  for (unsigned seed = 1; seed <= 40; ++seed) {
    SCOPED_TRACE("seed " + std::to_string(seed));
    Sim sim(seed);
    for (int step = 0; step < 200; ++step) {
      if (sim.rebooted || sim.halted || sim.chance(8))
        sim.restart();
      else if (sim.chance(25))
        sim.ui();
      else
        sim.poll();
      if (testing::Test::HasFatalFailure()) return;
    }
    // Each chunk installed at most once, every run ends with progress.
    for (auto const& [tag, runs] : sim.installs) EXPECT_EQ(runs, 1) << tag;
    EXPECT_GT(sim.open, 3);
  }
}

}  // namespace
