// The DDI conversation end to end against the in-process test server.
#include <cjson/cJSON.h>
#include <gtest/gtest.h>

#include <functional>
#include <memory>
#include <regex>
#include <string>
#include <vector>

#include "plugin/libtamrelcore.h"
#include "tests/support/capture_stderr.h"
#include "tests/support/settings.h"
#include "testserver/dditestserver.h"
#include "transport/curlmanager.h"

namespace {

using tamrel::testing::CaptureStderr;
using tamrel::testing::DdiTestServer;
using tamrel::testing::Fault;
using tamrel::testing::fileText;
using tamrel::testing::settings;
using tamrel::testing::text;

// Keys of a JSON object in document order.
std::vector<std::string> keysOf(cJSON const* object) {
  std::vector<std::string> keys;
  for (cJSON const* m = object ? object->child : nullptr; m; m = m->next) keys.push_back(m->string);
  return keys;
}

struct Json {
  explicit Json(std::string const& text) : root(cJSON_Parse(text.c_str())) {}
  ~Json() { cJSON_Delete(root); }
  Json(Json const&) = delete;
  Json& operator=(Json const&) = delete;
  cJSON const* at(std::initializer_list<char const*> path) const {
    cJSON const* node = root;
    for (char const* key : path) node = cJSON_GetObjectItemCaseSensitive(node, key);
    return node;
  }
  std::string str(std::initializer_list<char const*> path) const {
    cJSON const* node = at(path);
    return cJSON_IsString(node) ? node->valuestring : "<missing>";
  }
  int number(std::initializer_list<char const*> path) const {
    cJSON const* node = at(path);
    return cJSON_IsNumber(node) ? node->valueint : -1;
  }
  cJSON* root;
};

bool isFeedbackTime(std::string const& value) {
  return std::regex_match(
      value, std::regex("20[0-9]{2}[01][0-9][0-3][0-9]T[0-2][0-9][0-5][0-9][0-6][0-9]"));
}

class Conversation : public ::testing::Test {
 protected:
  void SetUp() override { ASSERT_TRUE(client.connectProperties(table)); }

  std::string base() const { return server.baseUrl() + server.controllerPath(); }

  // A poll answer linking what is asked for.
  void answerPolls(std::string const& sleep, bool deployment, bool cancel, bool config) {
    server.setControllerBase(tamrel::testing::controllerBaseJson(
        server.baseUrl(), server.controllerPath(), sleep, deployment ? "17" : "",
        cancel ? "18" : "", config));
    server.setDeploymentBase("17", deploymentDocument());
    server.setCancelAction("18", R"({"id":"18","cancelAction":{"stopId":"17"}})");
  }

  static std::string deploymentDocument() {
    return R"({"id":"17","deployment":{"download":"forced","update":"forced","chunks":[)"
           R"({"part":"os","version":"1.0","name":"rootfs","artifacts":[{"filename":"a.bin",)"
           R"("hashes":{"sha1":"aa","md5":"bb"},"size":10,"_links":{"download-http":{"href":"http://x/a"}}}]},)"
           R"({"part":"bApp","version":"2.0","name":"app","artifacts":[],"metadata":[{"key":"k","value":"v"}]},)"
           R"({"part":"bApp","version":"3.0","name":"extra","artifacts":[]}]}})";
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

  DdiTestServer server;
  CurlManager transport;
  libtamrelcore client{&transport};
  std::shared_ptr<lookup> table = tamrel::testing::serverSettings(server.baseUrl());
};

TEST_F(Conversation, FullPollFollowsLinksInOrder) {
  answerPolls("00:05:00", true, true, true);
  CaptureStderr capture;
  hawkbit_query_t const result = client.queryOnlineStatus();
  EXPECT_EQ(capture.text(),
            "[I] libtamrelcore -> Querying server status\n"
            "[I] libtamrelcore -> Querying " +
                base() +
                "\n"
                "[I] libtamrelcore -> Detected update - fetching update data\n"
                "[I] libtamrelcore -> Server querying done\n");

  EXPECT_EQ(result.config.sleep, 300);
  EXPECT_EQ(result.config_data.url, base() + "/configData");
  EXPECT_EQ(result.deployment.url.rfind(base() + "/deploymentBase/17?c=", 0), 0u);
  EXPECT_EQ(result.deployment.id, "17");
  EXPECT_EQ(result.deployment.json, deploymentDocument());
  ASSERT_EQ(result.deployment.chunks.size(), 3u);
  EXPECT_EQ(result.deployment.chunks[0].artifacts.at(0).size, 10u);
  EXPECT_EQ(result.deployment.chunks[1].metadata.at(0).value, "v");
  EXPECT_EQ(result.cancel_action.id, "18");
  EXPECT_EQ(result.cancel_action.stop_id, "17");
  EXPECT_TRUE(is_valid(result.cancel_action) && is_valid(result.deployment));

  auto const requests = server.requests();
  ASSERT_EQ(requests.size(), 3u);
  EXPECT_EQ(requests[0].path, server.controllerPath());
  EXPECT_EQ(requests[1].path, server.controllerPath() + "/deploymentBase/17");
  EXPECT_EQ("?" + requests[1].query, result.deployment.url.substr(result.deployment.url.find('?')));
  EXPECT_EQ(requests[2].path, server.controllerPath() + "/cancelAction/18");
  for (auto const& request : requests) {
    EXPECT_EQ(request.method, "GET");
    EXPECT_EQ(request.header("Authorization"), "TargetToken s3cret");
  }
}

TEST_F(Conversation, UpdateFeedbackNamesEveryStatus) {
  std::pair<execution_t, char const*> const executions[] = {
      {execution_t::closed, "closed"},       {execution_t::proceeding, "proceeding"},
      {execution_t::canceled, "canceled"},   {execution_t::scheduled, "scheduled"},
      {execution_t::rejected, "rejected"},   {execution_t::resumed, "resumed"}};
  std::pair<finished_t, char const*> const results[] = {
      {finished_t::none, "none"}, {finished_t::success, "success"}, {finished_t::failure, "failure"}};
  for (auto const& [execution, executionName] : executions) {
    for (auto const& [finished, finishedName] : results) {
      server.clearRequests();
      ASSERT_TRUE(client.sendUpdateFeedback(reportable(execution, finished)));
      auto const sent = server.requests();
      ASSERT_EQ(sent.size(), 1u);
      EXPECT_EQ(sent[0].method + " " + sent[0].path,
                "POST " + server.controllerPath() + "/deploymentBase/17/feedback");
      Json const body(sent[0].body);
      EXPECT_EQ(body.str({"status", "execution"}), executionName);
      EXPECT_EQ(body.str({"status", "result", "finished"}), finishedName);
    }
  }
  Json const body(server.requests().at(0).body);
  EXPECT_EQ(keysOf(body.root), (std::vector<std::string>{"id", "time", "status"}));
  EXPECT_EQ(keysOf(body.at({"status"})),
            (std::vector<std::string>{"result", "execution", "details"}));
  EXPECT_EQ(keysOf(body.at({"status", "result"})),
            (std::vector<std::string>{"progress", "finished"}));
  EXPECT_EQ(keysOf(body.at({"status", "result", "progress"})),
            (std::vector<std::string>{"of", "cnt"}));
  EXPECT_EQ(body.str({"id"}), "17");
  EXPECT_TRUE(isFeedbackTime(body.str({"time"}))) << body.str({"time"});
  EXPECT_EQ(body.number({"status", "result", "progress", "of"}), 3);
  EXPECT_EQ(body.number({"status", "result", "progress", "cnt"}), 1);
  cJSON const* details = body.at({"status", "details"});
  ASSERT_EQ(cJSON_GetArraySize(details), 3);
  EXPECT_STREQ(cJSON_GetArrayItem(details, 0)->valuestring, "a.bin downloaded");
  EXPECT_STREQ(cJSON_GetArrayItem(details, 2)->valuestring, "nothing to do");
  EXPECT_EQ(server.requests().at(0).header("Content-Type"), "application/json;charset=UTF-8");
  EXPECT_EQ(server.requests().at(0).header("Authorization"), "TargetToken s3cret");
}

TEST_F(Conversation, ConfigDataAndCancelFeedback) {
  answerPolls("00:00:40", false, false, true);
  client.queryOnlineStatus();
  answerPolls("00:00:40", false, false, false);
  client.queryOnlineStatus();  // the link of the earlier poll stays in use
  EXPECT_TRUE(client.sendConfigData({{"hw", "rev2"}, {"serial", "42"}, {"hw", "rev3"}}));
  EXPECT_TRUE(client.sendCancelActionFeedback(base() + "/cancelAction/18", "18", "closed",
                                              "success", "stopped"));
  auto const sent = server.requests();
  ASSERT_EQ(sent.size(), 4u);
  EXPECT_EQ(sent[2].method + " " + sent[2].path, "PUT " + server.controllerPath() + "/configData");
  EXPECT_EQ(sent[3].method + " " + sent[3].path,
            "POST " + server.controllerPath() + "/cancelAction/18/feedback");

  Json const config(sent[2].body);
  EXPECT_EQ(keysOf(config.root),
            (std::vector<std::string>{"mode", "data", "id", "time", "status"}));
  EXPECT_EQ(keysOf(config.at({"data"})), (std::vector<std::string>{"hw", "serial", "hw"}));
  EXPECT_EQ(config.str({"mode"}), "merge");
  EXPECT_EQ(config.str({"id"}), "");
  EXPECT_EQ(keysOf(config.at({"status", "result"})), (std::vector<std::string>{"finished"}));
  EXPECT_EQ(config.str({"status", "result", "finished"}), "success");
  EXPECT_EQ(config.str({"status", "execution"}), "closed");

  Json const cancel(sent[3].body);
  EXPECT_EQ(keysOf(cancel.root), (std::vector<std::string>{"id", "time", "status"}));
  EXPECT_EQ(cancel.str({"id"}), "18");
  EXPECT_EQ(cancel.str({"status", "execution"}), "closed");
  cJSON const* lines = cancel.at({"status", "details"});
  ASSERT_EQ(cJSON_GetArraySize(lines), 1);
  EXPECT_STREQ(cJSON_GetArrayItem(lines, 0)->valuestring, "stopped");
  for (std::size_t i = 2; i < sent.size(); ++i) {
    EXPECT_EQ(sent[i].header("Content-Type"), "application/json;charset=UTF-8");
    EXPECT_EQ(sent[i].header("Authorization"), "TargetToken s3cret");
  }
}

// A server that moved its feedback resource still gets a POST with the body.
TEST_F(Conversation, RedirectedFeedbackStaysAPost) {
  Fault moved;
  moved.redirectTo = "/moved";
  server.setFault(server.controllerPath() + "/deploymentBase/17/feedback", moved);
  server.setFault(server.controllerPath() + "/cancelAction/18/feedback", moved);
  EXPECT_TRUE(client.sendUpdateFeedback(reportable(execution_t::closed, finished_t::success)));
  EXPECT_TRUE(client.sendCancelActionFeedback(base() + "/cancelAction/18", "18", "closed",
                                              "success", ""));
  auto const sent = server.requests();
  ASSERT_EQ(sent.size(), 4u);
  for (std::size_t i : {1u, 3u}) {
    EXPECT_EQ(sent[i].method + " " + sent[i].path, "POST /moved");
    EXPECT_EQ(sent[i].body, sent[i - 1].body);
    EXPECT_FALSE(sent[i].body.empty());
  }
}

TEST_F(Conversation, ErrorAnswersStillCountAsSentAndRefusalsSendNothing) {
  Fault gone;
  gone.status = 410;
  server.setFault(server.controllerPath() + "/deploymentBase/17/feedback", gone);
  hawkbit_query_t::deployment_t deployment = reportable(execution_t::closed, finished_t::failure);
  EXPECT_TRUE(client.sendUpdateFeedback(deployment));
  EXPECT_EQ(server.requests().size(), 1u);

  CaptureStderr capture;
  deployment.finished = finished_t::uninitialized;
  EXPECT_FALSE(client.sendUpdateFeedback(deployment));
  deployment.finished = finished_t::success;
  deployment.execution = execution_t::uninitialized;
  EXPECT_FALSE(client.sendUpdateFeedback(deployment));
  deployment.chunks.clear();
  EXPECT_FALSE(client.sendUpdateFeedback(deployment));
  EXPECT_FALSE(client.sendConfigData({}));  // no poll has named a configData link yet
  EXPECT_FALSE(client.sendCancelActionFeedback("", "1", "closed", "success", ""));
  EXPECT_EQ(capture.text(),
            "[E] libtamrelcore -> Unsupported software finishing status!\n"
            "[E] libtamrelcore -> Unsupported software execution status!\n"
            "[E] libtamrelcore -> configData not retrieved by the server\n"
            "[W] libtamrelcore -> Cannot send cancel action feedback - URL is missing\n");
  EXPECT_EQ(server.requests().size(), 1u);
}

TEST_F(Conversation, PollFailures) {
  static std::string const cutShort = deploymentDocument().substr(0, 150);
  struct Row {
    char const* name;
    std::string poll;
    std::string log;  // after "Querying <url>"
    std::function<void(hawkbit_query_t const&)> check;
  };
  Row const rows[] = {
      {"empty body", "", "[E] libtamrelcore -> Query response is empty. Unauthorized?\n", {}},
      {"nothing usable", "{}", "[E] libtamrelcore -> Failed to parse response!\n", {}},
      {"short interval only", R"({"config":{"polling":{"sleep":"00:00:10"}}})",
       "[E] libtamrelcore -> Failed to parse response!\n",
       [](hawkbit_query_t const& r) { EXPECT_EQ(r.config.sleep, 10); }},
      {"deployment fetch fails",
       R"({"_links":{"deploymentBase":{"href":"http://127.0.0.1:1/deploymentBase/9"}}})",
       "[E] libtamrelcore -> Download failed: Couldn't connect to server\n"
       "[I] libtamrelcore -> Detected update - fetching update data\n",
       [](hawkbit_query_t const& r) {
         EXPECT_EQ(r.deployment.url, "http://127.0.0.1:1/deploymentBase/9");
         EXPECT_TRUE(r.deployment.id.empty() && r.deployment.json.empty());
       }},
      {"deployment document cut short",
       tamrel::testing::controllerBaseJson(server.baseUrl(), server.controllerPath(), "00:05:00",
                                           "17", "", false),
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
    EXPECT_EQ(capture.text().substr(0, head.size() + row.log.size()), head + row.log) << row.name;
    if (row.check) row.check(result);
  }

  // A server that is not there: the transport's line, then the poll's.
  auto const lonely = tamrel::testing::serverSettings("http://127.0.0.1:1");
  client.connectProperties(lonely);
  CaptureStderr capture;
  EXPECT_FALSE(is_valid(client.queryOnlineStatus()));
  EXPECT_NE(capture.text().find("[E] libtamrelcore -> Download failed: Couldn't connect to server\n"
                                "[E] libtamrelcore -> Failed: Couldn't connect to server\n"),
            std::string::npos)
      << capture.text();
}

TEST(Binding, TokenSources) {
  struct Row {
    char const* name;
    std::vector<tamrel::testing::setting_t> entries;
    bool result;
    char const* token;
    char const* log;
  };
  Row const rows[] = {
      {"token string", {{"token", text("abc")}}, true, "abc", ""},
      {"token-file link wins",
       {{"token", text("abc")}, {"token-file", fileText("fromfile")}},
       true,
       "fromfile",
       ""},
      {"token-file as string sets nothing", {{"token-file", text("/etc/token")}}, true, "", ""},
      {"neither", {}, false, "", "[E] libtamrelcore -> No token was found in the configuration\n"},
  };
  for (Row const& row : rows) {
    CurlManager transport;
    libtamrelcore client(&transport);
    auto const table = settings(row.entries);
    CaptureStderr capture;
    EXPECT_EQ(client.connectProperties(table), row.result) << row.name;
    EXPECT_EQ(transport.targetToken, row.token) << row.name;
    EXPECT_EQ(capture.text(), row.log) << row.name;
  }
}

TEST(Binding, NullAndDroppedTables) {
  CurlManager transport;
  libtamrelcore client(&transport);
  CaptureStderr capture;
  EXPECT_FALSE(client.connectProperties(nullptr));
  EXPECT_EQ(client.buildQueryUrl(), "");  // never bound
  {
    auto const table = settings({{"token", text("t")},
                                 {"address", text("http://h")},
                                 {"tenant-id", text("T")},
                                 {"controller-id", text("C")}});
    EXPECT_TRUE(client.connectProperties(table));
    EXPECT_FALSE(client.connectProperties(nullptr));  // the earlier binding stays
    EXPECT_EQ(client.buildQueryUrl(), "http://h/T/controller/v1/C");
  }
  hawkbit_query_t::deployment_t deployment;
  deployment.chunks.resize(1);
  EXPECT_FALSE(client.sendUpdateFeedback(deployment));  // the host dropped its table
  EXPECT_FALSE(is_valid(client.queryOnlineStatus()));
  EXPECT_EQ(
      capture.text(),
      "[E] libtamrelcore -> No server config found\n"
      "[E] libtamrelcore -> Unable to find configuration. Cannot proceed with update feedback\n"
      "[I] libtamrelcore -> Querying server status\n"
      "[E] libtamrelcore -> No server config found\n");
}

TEST(Binding, SettingPairs) {
  struct Row {
    char const* name;
    std::vector<tamrel::testing::setting_t> entries;
    char const* url;
    char const* log;
  };
  Row const rows[] = {
      {"plain",
       {{"address", text("X")}, {"tenant-id", text("Y")}, {"controller-id", text("Z")}},
       "X/Y/controller/v1/Z",
       ""},
      {"trailing slash kept",
       {{"address", text("http://h/")}, {"tenant-id", text("Y")}, {"controller-id", text("Z")}},
       "http://h//Y/controller/v1/Z",
       ""},
      {"file link wins",
       {{"address", text("X")},
        {"address-file", fileText("L")},
        {"tenant-id-file", fileText("T")},
        {"controller-id", text("Z")}},
       "L/T/controller/v1/Z",
       ""},
      {"file as integer is ignored",
       {{"address", text("X")},
        {"address-file", std::make_shared<value_container>(3)},
        {"tenant-id", text("Y")},
        {"controller-id", text("Z")}},
       "X/Y/controller/v1/Z",
       ""},
      {"only a non-link file: empty value, no message",
       {{"address-file", text("/etc/address")},
        {"tenant-id", text("Y")},
        {"controller-id", text("Z")}},
       "",
       ""},
      {"missing controller",
       {{"address", text("X")}, {"tenant-id", text("Y")}},
       "",
       "[E] libtamrelcore -> No controller-id or controller-id-file specified\n"},
  };
  for (Row const& row : rows) {
    CurlManager transport;
    libtamrelcore client(&transport);
    auto const table = settings(row.entries);
    table->entries.emplace_back("token", text("t"));
    client.connectProperties(table);
    CaptureStderr capture;
    EXPECT_EQ(client.buildQueryUrl(), row.url) << row.name;
    EXPECT_EQ(capture.text(), row.log) << row.name;
  }

  // Update feedback words the same situation differently and stops there too.
  CurlManager transport;
  libtamrelcore client(&transport);
  auto const table =
      settings({{"token", text("t")}, {"address", text("X")}, {"tenant-id", text("Y")}});
  client.connectProperties(table);
  hawkbit_query_t::deployment_t deployment;
  deployment.chunks.resize(1);
  deployment.execution = execution_t::closed;
  deployment.finished = finished_t::success;
  CaptureStderr capture;
  EXPECT_FALSE(client.sendUpdateFeedback(deployment));
  EXPECT_EQ(capture.text(),
            "[E] libtamrelcore -> Cannot find controller-id or controller-id-file\n");
}

}  // namespace
