// What the update loop tells a local UI: the status members an action's
// record gives, and download progress passed on at most four times a second.
#include "agent/lifecycle/controlstatus.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace {

using Stage = ActionState::Stage;

std::vector<std::string> events(ControlChannel const& channel) {
  std::vector<std::string> out;
  std::uint64_t dropped = 0;
  channel.events(0, 1000, out, dropped);
  return out;
}

TEST(ControlStatus, RecordedStageGivesStateChunksAndWhatTheUiIsAskedFor) {
  struct Case {
    Stage stage;
    bool held;
    char const* has;  // in the status line
    bool waiting;
  } const cases[] = {
      {Stage::kIdle, true, "\"polling\":false,\"state\":\"idle\"}", false},
      {Stage::kConsentNeeded, false, "\"waiting\":{\"action\":\"7\",\"for\":\"consent\"}", true},
      {Stage::kAwaitingDownloadPermit, false, "\"for\":\"download\"", true},
      {Stage::kAwaitingInstallPermit, false, "\"for\":\"install\"", true},
      {Stage::kDownloading, false, "\"chunks\":[{\"name\":\"os\\\"1\"}]", false},
  };
  for (Case const& c : cases) {
    ControlChannel channel;
    ControlStatus status(channel);
    ActionState state;
    state.stage = c.stage;
    state.pollingHeld = c.held;
    if (c.stage != Stage::kIdle) state.actionId = "7", state.chunks = {"os\"1"};
    status.action(state, nullptr);
    std::string const line = channel.status();
    EXPECT_NE(line.find(c.has), std::string::npos) << line;
    EXPECT_EQ(line.find("\"waiting\"") != std::string::npos, c.waiting) << line;
  }
  // The offered deployment adds each chunk's part and version.
  ControlChannel channel;
  ControlStatus status(channel);
  ActionState state;
  state.stage = Stage::kDownloading;
  state.actionId = "7";
  state.chunks = {"os"};
  hawkbit_query_t::deployment_t deployment;
  deployment.id = "7";
  deployment.chunks.resize(1);
  deployment.chunks[0].part = "bApp";
  deployment.chunks[0].name = "os";
  deployment.chunks[0].version = "2.1";
  status.action(state, &deployment);
  EXPECT_NE(channel.status().find("[{\"part\":\"bApp\",\"name\":\"os\",\"version\":\"2.1\"}]"),
            std::string::npos);
}

TEST(ControlStatus, ProgressAtMostFourASecondAndAlwaysAtTheEnd) {
  ControlChannel channel;
  ControlStatus status(channel);
  for (std::uint64_t bytes = 0; bytes < 1000; ++bytes) status.progress("a", bytes, 1000, 5, false);
  status.progress("a", 1200, 1000, 5, true);  // more than announced
  status.progress("b", 0, 0, 0, true);        // no size known
  std::vector<std::string> const sent = events(channel);
  ASSERT_EQ(sent.size(), 3u);
  EXPECT_NE(sent[0].find("\"bytes\":0,\"total\":1000,\"rate\":5,\"percent\":0"), std::string::npos);
  EXPECT_NE(sent[1].find("\"percent\":100"), std::string::npos) << sent[1];
  EXPECT_NE(sent[2].find("\"name\":\"b\",\"bytes\":0,\"total\":0,\"rate\":0,\"percent\":100"),
            std::string::npos)
      << sent[2];
  EXPECT_NE(channel.status().find("\"download\":{\"name\":\"b\""), std::string::npos);
}

}  // namespace
