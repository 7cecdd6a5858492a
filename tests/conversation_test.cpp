// The DDI conversation end to end against the in-process test server.
#include <gtest/gtest.h>

#include <functional>
#include <memory>
#include <regex>
#include <string>
#include <vector>

#include "ddiserver/ddidocument.h"
#include "ddiserver/ddiserver.h"
#include "plugin/libtamrelcore.h"
#include "tests/support/capture_stderr.h"
#include "tests/support/settings.h"
#include "transport/curlmanager.h"

namespace {

using namespace tamrel::testing;
using namespace tamrel::ddiserver;

// A request as "METHOD path" followed by its body, the feedback time (checked
// for its format) replaced by "T".
std::string sent(RecordedRequest const& request) {
  static std::regex const time(
      R"("time":"20[0-9]{2}[01][0-9][0-3][0-9]T[0-2][0-9][0-5][0-9][0-6][0-9]")");
  return request.method + " " + request.path + " " +
         std::regex_replace(request.body, time, R"("time":"T")");
}

// A host's client with its own reading of deploymentBase documents: it counts
// them and changes the kept text, which the poll must set back.
class OwnReadingClient : public libtamrelcore {
 public:
  using libtamrelcore::libtamrelcore;
  bool parseDeploymentBase(std::string const& json,
                           hawkbit_query_t::deployment_t& deployment) const override {
    ++reads;
    bool const parsed = libtamrelcore::parseDeploymentBase(json, deployment);
    deployment.json = "changed by the host";
    return parsed;
  }
  mutable int reads = 0;
};

class Conversation : public ::testing::Test {
 protected:
  void SetUp() override { ASSERT_TRUE(client.connectProperties(table)); }

  std::string base() const { return server.baseUrl() + server.controllerPath(); }

  // Poll answers linking what is asked for.
  void answerPolls(bool deployment, bool cancel, bool config) {
    server.setControllerBase(controllerBaseJson(server.baseUrl(), server.controllerPath(),
                                                "00:05:00", deployment ? "17" : "",
                                                cancel ? "18" : "", config));
    server.setDeploymentBase("17", deploymentDocument());
    server.setCancelAction("18", cancelActionJson("18", "17"));
  }

  static std::string deploymentDocument() {
    DeploymentDocument deployment{"17", "forced", "forced", "", {}};
    deployment.chunks.push_back({"os", "1.0", "rootfs", {{"a.bin", 10, {}, {}}}, false});
    return deploymentBaseJson(deployment);
  }

  // A deployment of three chunks, the first one completed.
  static hawkbit_query_t::deployment_t reportable(execution_t execution, finished_t finished) {
    hawkbit_query_t::deployment_t deployment;
    deployment.id = "17";
    deployment.chunks.resize(3);
    deployment.chunks[0].completed = true;
    deployment.chunks[0].details = {"a.bin downloaded", "a.bin verified"};
    deployment.chunks[2].details = {"nothing to do"};
    deployment.execution = execution;
    deployment.finished = finished;
    return deployment;
  }

  DdiServer server;
  CurlManager transport;
  OwnReadingClient client{&transport};
  std::shared_ptr<lookup> table = serverSettings(server.baseUrl());
};

TEST_F(Conversation, FullPollFollowsLinksInOrder) {
  answerPolls(true, true, true);
  hawkbit_query_t const result = client.queryOnlineStatus();
  EXPECT_EQ(result.config.sleep, 300);
  EXPECT_EQ(result.config_data.url, base() + "/configData");
  EXPECT_EQ(result.deployment.id, "17");
  EXPECT_EQ(client.reads, 1);  // through the client's own reader, its text set back
  EXPECT_EQ(result.deployment.json, deploymentDocument());
  EXPECT_EQ(result.cancel_action.id, "18");
  EXPECT_TRUE(is_valid(result.cancel_action) && is_valid(result.deployment));

  auto const requests = server.requests();
  ASSERT_EQ(requests.size(), 3u);
  EXPECT_EQ(result.deployment.url, base() + "/deploymentBase/17?" + requests[1].query);
  std::string const paths[] = {"", "/deploymentBase/17", "/cancelAction/18"};
  for (std::size_t i = 0; i < 3; ++i) {
    EXPECT_EQ(sent(requests[i]), "GET " + server.controllerPath() + paths[i] + " ");
  }
}

TEST_F(Conversation, FeedbackAndConfigDataAsTheServerReadsThem) {
  // The names in the order of their enumerators, from 1 on.
  char const* const executions[] = {"closed",    "proceeding", "canceled",
                                    "scheduled", "rejected",   "resumed"};
  char const* const results[] = {"none", "success", "failure"};
  for (int e = 0; e < 6; ++e) {
    for (int r = 0; r < 3; ++r) {
      server.clearRequests();
      EXPECT_TRUE(client.sendUpdateFeedback(
          reportable(static_cast<execution_t>(e + 1), static_cast<finished_t>(r + 1))));
      ASSERT_EQ(server.requests().size(), 1u);
      EXPECT_EQ(sent(server.requests()[0]),
                "POST " + server.controllerPath() +
                    R"(/deploymentBase/17/feedback {"id":"17","time":"T","status":{"result":)"
                    R"({"progress":{"of":3,"cnt":1},"finished":")" +
                    results[r] + R"("},"execution":")" + executions[e] +
                    R"(","details":["a.bin downloaded","a.bin verified","nothing to do"]}})");
    }
  }

  server.clearRequests();
  answerPolls(false, false, true);
  client.queryOnlineStatus();
  answerPolls(false, false, false);
  client.queryOnlineStatus();  // the link of the earlier poll stays in use
  EXPECT_TRUE(client.sendConfigData({{"hw", "rev2"}, {"serial", "42"}, {"hw", "rev3"}}));
  EXPECT_TRUE(client.sendCancelActionFeedback(base() + "/cancelAction/18", "18", "closed",
                                              "success", "stopped"));
  auto const requests = server.requests();
  ASSERT_EQ(requests.size(), 4u);
  EXPECT_EQ(sent(requests[2]), "PUT " + server.controllerPath() +
                                   R"(/configData {"mode":"merge","data":{"hw":"rev2","serial":)"
                                   R"("42","hw":"rev3"},"id":"","time":"T","status":{"result":)"
                                   R"({"finished":"success"},"execution":"closed","details":[]}})");
  EXPECT_EQ(sent(requests[3]), "POST " + server.controllerPath() +
                                   R"(/cancelAction/18/feedback {"id":"18","time":"T","status":)"
                                   R"({"result":{"finished":"success"},"execution":"closed",)"
                                   R"("details":["stopped"]}})");
}

// An error status still counts as sent; a redirect is followed with the same
// POST; refusals send nothing.
TEST_F(Conversation, ServerAnswersAndRefusals) {
  Fault moved, gone;
  moved.redirectTo = "/moved";
  gone.status = 410;
  server.setFault(server.controllerPath() + "/deploymentBase/17/feedback", moved);
  server.setFault(server.controllerPath() + "/cancelAction/18/feedback", gone);
  hawkbit_query_t::deployment_t deployment = reportable(execution_t::closed, finished_t::failure);
  EXPECT_TRUE(client.sendUpdateFeedback(deployment));
  EXPECT_TRUE(client.sendCancelActionFeedback(base() + "/cancelAction/18", "1", "closed", "", ""));
  auto const requests = server.requests();
  ASSERT_EQ(requests.size(), 3u);
  EXPECT_EQ(requests[1].method + " " + requests[1].path, "POST /moved");
  EXPECT_EQ(requests[1].body, requests[0].body);

  CaptureStderr capture;
  deployment.finished = finished_t::uninitialized;
  EXPECT_FALSE(client.sendUpdateFeedback(deployment));
  deployment.finished = finished_t::success;
  deployment.execution = execution_t::uninitialized;
  EXPECT_FALSE(client.sendUpdateFeedback(deployment));
  deployment.execution = execution_t::closed;
  deployment.chunks.clear();  // nothing to report, silently
  EXPECT_FALSE(client.sendUpdateFeedback(deployment));
  EXPECT_FALSE(client.sendConfigData({}));  // no poll has named a configData link yet
  EXPECT_FALSE(client.sendCancelActionFeedback("", "1", "closed", "success", ""));
  EXPECT_EQ(capture.text(),
            "[E] libtamrelcore -> Unsupported software finishing status!\n"
            "[E] libtamrelcore -> Unsupported software execution status!\n"
            "[E] libtamrelcore -> configData not retrieved by the server\n"
            "[W] libtamrelcore -> Cannot send cancel action feedback - URL is missing\n");
  EXPECT_EQ(server.requests().size(), 3u);
}

TEST_F(Conversation, PollFailures) {
  static std::string const cutShort = deploymentDocument().substr(0, 150);
  struct Row {
    std::string poll;
    std::string log;  // after "Querying <url>"
    std::function<void(hawkbit_query_t const&)> check;
  };
  Row const rows[] = {
      {"", "[E] libtamrelcore -> Query response is empty. Unauthorized?\n", {}},
      {R"({"config":{"polling":{"sleep":"00:00:10"}}})",
       "[E] libtamrelcore -> Failed to parse response!\n",
       [](hawkbit_query_t const& r) { EXPECT_EQ(r.config.sleep, 10); }},
      {controllerBaseJson(server.baseUrl(), server.controllerPath(), "00:05:00", "17", "", false),
       "[I] libtamrelcore -> Detected update - fetching update data\n"
       "[E] libtamrelcore -> Unable to parse JSON: ",
       [](hawkbit_query_t const& r) {
         EXPECT_EQ(r.deployment.json, cutShort);  // kept for the host as it came
         EXPECT_TRUE(r.deployment.id.empty() && r.deployment.chunks.empty());
         EXPECT_TRUE(is_valid(r) && !is_valid(r.deployment));
       }},
  };
  server.setDeploymentBase("17", cutShort);
  std::string const head =
      "[I] libtamrelcore -> Querying server status\n[I] libtamrelcore -> Querying " + base() + "\n";
  for (Row const& row : rows) {
    server.setControllerBase(row.poll);
    CaptureStderr capture;
    hawkbit_query_t const result = client.queryOnlineStatus();
    EXPECT_EQ(capture.text().substr(0, head.size() + row.log.size()), head + row.log);
    if (row.check) row.check(result);
  }
}

// Each setting is read as itself or, winning, as the text of its "-file" link.
TEST(Binding, SettingPairs) {
  struct Row {
    std::vector<setting_t> entries;
    bool bound;
    char const* token;
    char const* url;
    char const* log;
  };
  auto const number = std::make_shared<value_container>(3);
  Row const rows[] = {
      // clang-format off
      {{{"token", text("abc")}, {"address", text("http://h/")}, {"tenant-id", text("Y")},
        {"controller-id", text("Z")}}, true, "abc", "http://h//Y/controller/v1/Z", ""},
      {{{"token", text("abc")}, {"token-file", fileText("fromfile")}, {"address", text("X")},
        {"address-file", fileText("L")}, {"tenant-id-file", fileText("T")},
        {"controller-id", text("Z")}}, true, "fromfile", "L/T/controller/v1/Z", ""},
      // A "-file" setting that is no link gives an empty value and no message.
      {{{"token-file", text("/etc/token")}, {"address", text("X")}, {"address-file", number},
        {"tenant-id", text("Y")}, {"controller-id", text("Z")}}, true, "", "X/Y/controller/v1/Z", ""},
      {{{"token", text("t")}, {"address-file", text("/etc/address")}, {"tenant-id", text("Y")},
        {"controller-id", text("Z")}}, true, "t", "", ""},
      {{{"token", text("t")}, {"address", text("X")}, {"tenant-id", text("Y")}}, true, "t", "",
       "[E] libtamrelcore -> No controller-id or controller-id-file specified\n"},
      {{}, false, "", "", "[E] libtamrelcore -> No token was found in the configuration\n"},
      // clang-format on
  };
  for (Row const& row : rows) {
    CurlManager transport;
    libtamrelcore client(&transport);
    auto const table = settings(row.entries);
    CaptureStderr capture;
    EXPECT_EQ(client.connectProperties(table), row.bound) << row.log;
    std::string names;  // the names asked for are added when missing
    for (auto const& entry : table->entries) names += " " + entry.first;
    EXPECT_NE(names.find(" download-retries download-timeout-s"), std::string::npos) << names;
    EXPECT_EQ(transport.targetToken, row.token);
    EXPECT_EQ(row.bound ? client.buildQueryUrl() : "", row.url);
    EXPECT_EQ(capture.text(), row.log);
  }
}

// A null table leaves the binding as it was; a table the host dropped makes
// every operation stop with a log line.
TEST(Binding, NullAndDroppedTables) {
  CurlManager transport;
  libtamrelcore client(&transport);
  {
    auto const table = serverSettings("http://h");
    EXPECT_TRUE(client.connectProperties(table));
    EXPECT_FALSE(client.connectProperties(nullptr));
    EXPECT_EQ(client.buildQueryUrl(), "http://h/DEFAULT/controller/v1/dev01");
  }
  hawkbit_query_t::deployment_t deployment;
  deployment.chunks.resize(1);
  CaptureStderr capture;
  EXPECT_FALSE(client.sendUpdateFeedback(deployment));
  EXPECT_FALSE(is_valid(client.queryOnlineStatus()));
  EXPECT_EQ(
      capture.text(),
      "[E] libtamrelcore -> Unable to find configuration. Cannot proceed with update feedback\n"
      "[I] libtamrelcore -> Querying server status\n"
      "[E] libtamrelcore -> No server config found\n");
}

}  // namespace
