// The DDI conversation end to end against the in-process test server.
#include <cjson/cJSON.h>
#include <gtest/gtest.h>

#include <memory>
#include <regex>
#include <string>
#include <vector>

#include "plugin/libtamrelcore.h"
#include "tests/support/capture_stderr.h"
#include "testserver/dditestserver.h"
#include "transport/curlmanager.h"

namespace {

using tamrel::testing::CaptureStderr;
using tamrel::testing::DdiTestServer;
using tamrel::testing::Fault;

std::shared_ptr<value_container> text(char const* value) {
  return std::make_shared<value_container>(value);
}

// Keys of a JSON object in document order, and the object itself.
std::vector<std::string> keysOf(cJSON const* object) {
  std::vector<std::string> keys;
  for (cJSON const* m = object ? object->child : nullptr; m; m = m->next) keys.push_back(m->string);
  return keys;
}

struct Json {
  explicit Json(std::string const& text) : root(cJSON_Parse(text.c_str())) {}
  ~Json() { cJSON_Delete(root); }
  cJSON const* at(std::initializer_list<char const*> path) const {
    cJSON const* node = root;
    for (char const* key : path) node = cJSON_GetObjectItemCaseSensitive(node, key);
    return node;
  }
  std::string str(std::initializer_list<char const*> path) const {
    cJSON const* node = at(path);
    return cJSON_IsString(node) ? node->valuestring : "<missing>";
  }
  cJSON* root;
};

bool isFeedbackTime(std::string const& value) {
  return std::regex_match(
      value, std::regex("20[0-9]{2}[01][0-9][0-3][0-9]T[0-2][0-9][0-5][0-9][0-6][0-9]"));
}

class Conversation : public ::testing::Test {
 protected:
  void SetUp() override {
    table = std::make_shared<lookup>(lookup{{"address", text(server.baseUrl().c_str())},
                                            {"tenant-id", text("DEFAULT")},
                                            {"controller-id", text("dev01")},
                                            {"token", text("s3cret")}});
    ASSERT_TRUE(client.connectProperties(table));
  }

  std::string base() const { return server.baseUrl() + server.controllerPath(); }

  // A poll answer linking what is asked for.
  std::string pollAnswer(std::string const& sleep, bool deployment, bool cancel, bool config) {
    std::string links;
    auto add = [&](char const* name, std::string const& href) {
      links +=
          (links.empty() ? "" : ",") + std::string("\"") + name + "\":{\"href\":\"" + href + "\"}";
    };
    if (deployment) add("deploymentBase", base() + "/deploymentBase/17?c=-2127183556");
    if (cancel) add("cancelAction", base() + "/cancelAction/18");
    if (config) add("configData", base() + "/configData");
    return "{\"config\":{\"polling\":{\"sleep\":\"" + sleep + "\"}},\"_links\":{" + links + "}}";
  }

  static std::string deploymentDocument() {
    return R"({"id":"17","deployment":{"download":"forced","update":"forced","chunks":[)"
           R"({"part":"os","version":"1.0","name":"rootfs","artifacts":[{"filename":"a.bin",)"
           R"("hashes":{"sha1":"aa","md5":"bb"},"size":10,"_links":{"download-http":{"href":"http://x/a"}}}]},)"
           R"({"part":"bApp","version":"2.0","name":"app","artifacts":[],"metadata":[{"key":"k","value":"v"}]}]}})";
  }

  DdiTestServer server;
  CurlManager transport;
  libtamrelcore client{&transport};
  std::shared_ptr<lookup> table;
};

TEST_F(Conversation, FullPollFollowsLinksInOrder) {
  server.setControllerBase(pollAnswer("00:05:00", true, true, true));
  server.serve(server.controllerPath() + "/deploymentBase/17", deploymentDocument());
  server.setCancelAction("18", R"({"id":"18","cancelAction":{"stopId":"17"}})");

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
  EXPECT_EQ(result.deployment.url, base() + "/deploymentBase/17?c=-2127183556");
  EXPECT_EQ(result.deployment.id, "17");
  EXPECT_EQ(result.deployment.json, deploymentDocument());
  ASSERT_EQ(result.deployment.chunks.size(), 2u);
  EXPECT_EQ(result.deployment.chunks[0].artifacts.at(0).size, 10u);
  EXPECT_EQ(result.deployment.chunks[1].metadata.at(0).value, "v");
  EXPECT_EQ(result.cancel_action.id, "18");
  EXPECT_EQ(result.cancel_action.stop_id, "17");
  EXPECT_TRUE(is_valid(result.cancel_action));
  EXPECT_TRUE(is_valid(result.deployment));

  auto const requests = server.requests();
  ASSERT_EQ(requests.size(), 3u);
  EXPECT_EQ(requests[0].path, server.controllerPath());
  EXPECT_EQ(requests[1].path, server.controllerPath() + "/deploymentBase/17");
  EXPECT_EQ(requests[1].query, "c=-2127183556");
  EXPECT_EQ(requests[2].path, server.controllerPath() + "/cancelAction/18");
  for (auto const& request : requests) {
    EXPECT_EQ(request.method, "GET");
    EXPECT_EQ(request.header("Authorization"), "TargetToken s3cret");
  }
}

TEST_F(Conversation, WholeCycleIsWhatAServerExpects) {
  server.setControllerBase(pollAnswer("00:00:40", true, false, true));
  server.serve(server.controllerPath() + "/deploymentBase/17", deploymentDocument());
  hawkbit_query_t result = client.queryOnlineStatus();
  auto& deployment = result.deployment;

  deployment.execution = execution_t::proceeding;
  deployment.finished = finished_t::none;
  EXPECT_TRUE(client.sendUpdateFeedback(deployment));

  deployment.execution = execution_t::closed;
  deployment.finished = finished_t::success;
  deployment.chunks[0].completed = true;
  deployment.chunks[0].details = {"a.bin downloaded", "a.bin verified"};
  deployment.chunks[1].details = {"nothing to do"};
  EXPECT_TRUE(client.sendUpdateFeedback(deployment));
  EXPECT_TRUE(client.sendConfigData({{"hw", "rev2"}, {"serial", "42"}, {"hw", "rev3"}}));
  EXPECT_TRUE(
      client.sendCancelActionFeedback(base() + "/cancelAction/18", "18", "closed", "success", ""));

  auto const sent = server.requests();
  ASSERT_EQ(sent.size(), 6u);
  std::string const feedback = server.controllerPath() + "/deploymentBase/17/feedback";
  EXPECT_EQ(sent[2].method + " " + sent[2].path, "POST " + feedback);
  EXPECT_EQ(sent[3].method + " " + sent[3].path, "POST " + feedback);
  EXPECT_EQ(sent[4].method + " " + sent[4].path, "PUT " + server.controllerPath() + "/configData");
  EXPECT_EQ(sent[5].method + " " + sent[5].path,
            "POST " + server.controllerPath() + "/cancelAction/18/feedback");

  Json const proceeding(sent[2].body);
  EXPECT_EQ(keysOf(proceeding.root), (std::vector<std::string>{"id", "time", "status"}));
  EXPECT_EQ(keysOf(proceeding.at({"status"})),
            (std::vector<std::string>{"result", "execution", "details"}));
  EXPECT_EQ(keysOf(proceeding.at({"status", "result"})),
            (std::vector<std::string>{"progress", "finished"}));
  EXPECT_EQ(keysOf(proceeding.at({"status", "result", "progress"})),
            (std::vector<std::string>{"of", "cnt"}));
  EXPECT_EQ(proceeding.str({"id"}), "17");
  EXPECT_TRUE(isFeedbackTime(proceeding.str({"time"}))) << proceeding.str({"time"});
  EXPECT_EQ(proceeding.str({"status", "execution"}), "proceeding");
  EXPECT_EQ(proceeding.str({"status", "result", "finished"}), "none");
  EXPECT_EQ(cJSON_GetArraySize(proceeding.at({"status", "details"})), 0);

  Json const closed(sent[3].body);
  EXPECT_EQ(closed.str({"status", "execution"}), "closed");
  EXPECT_EQ(closed.str({"status", "result", "finished"}), "success");
  EXPECT_EQ(closed.at({"status", "result", "progress", "of"})->valueint, 2);
  EXPECT_EQ(closed.at({"status", "result", "progress", "cnt"})->valueint, 1);
  cJSON const* details = closed.at({"status", "details"});
  ASSERT_EQ(cJSON_GetArraySize(details), 3);
  EXPECT_STREQ(cJSON_GetArrayItem(details, 2)->valuestring, "nothing to do");

  Json const config(sent[4].body);
  EXPECT_EQ(keysOf(config.root),
            (std::vector<std::string>{"mode", "data", "id", "time", "status"}));
  EXPECT_EQ(keysOf(config.at({"data"})), (std::vector<std::string>{"hw", "serial", "hw"}));
  EXPECT_EQ(config.str({"mode"}), "merge");
  EXPECT_EQ(config.str({"id"}), "");
  EXPECT_EQ(keysOf(config.at({"status", "result"})), (std::vector<std::string>{"finished"}));
  EXPECT_EQ(config.str({"status", "execution"}), "closed");

  Json const cancel(sent[5].body);
  EXPECT_EQ(keysOf(cancel.root), (std::vector<std::string>{"id", "time", "status"}));
  EXPECT_EQ(cancel.str({"id"}), "18");
  cJSON const* lines = cancel.at({"status", "details"});
  ASSERT_EQ(cJSON_GetArraySize(lines), 1);
  EXPECT_STREQ(cJSON_GetArrayItem(lines, 0)->valuestring, "");
  for (std::size_t i = 2; i < sent.size(); ++i) {
    EXPECT_EQ(sent[i].header("Content-Type"), "application/json;charset=UTF-8");
    EXPECT_EQ(sent[i].header("Authorization"), "TargetToken s3cret");
  }
}

TEST_F(Conversation, ErrorAnswersStillCountAsSentAndRefusalsSendNothing) {
  Fault gone;
  gone.status = 410;
  server.setFault(server.controllerPath() + "/deploymentBase/3/feedback", gone);
  hawkbit_query_t::deployment_t deployment;
  deployment.id = "3";
  deployment.chunks.resize(1);
  deployment.execution = execution_t::closed;
  deployment.finished = finished_t::failure;
  EXPECT_TRUE(client.sendUpdateFeedback(deployment));
  EXPECT_EQ(server.requests().size(), 1u);

  CaptureStderr capture;
  deployment.finished = finished_t::uninitialized;
  deployment.execution = execution_t::uninitialized;
  EXPECT_FALSE(client.sendUpdateFeedback(deployment));
  deployment.finished = finished_t::success;
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

TEST_F(Conversation, ConfigDataLinkOutlivesLaterPolls) {
  server.setControllerBase(pollAnswer("00:00:40", false, false, true));
  client.queryOnlineStatus();
  server.setControllerBase(pollAnswer("00:00:40", false, false, false));
  client.queryOnlineStatus();
  EXPECT_TRUE(client.sendConfigData({}));
  auto const puts = server.requests("PUT");
  ASSERT_EQ(puts.size(), 1u);
  EXPECT_EQ(Json(puts[0].body).at({"data"})->child, nullptr);  // an empty object
}

TEST_F(Conversation, PollFailures) {
  struct Row {
    char const* name;
    std::function<void(DdiTestServer&)> arrange;
    std::string log;  // after "Querying <url>"
  };
  Row const rows[] = {
      {"empty body", [&](DdiTestServer& s) { s.setControllerBase(""); },
       "[E] libtamrelcore -> Query response is empty. Unauthorized?\n"},
      {"nothing usable", [&](DdiTestServer& s) { s.setControllerBase("{}"); },
       "[E] libtamrelcore -> Failed to parse response!\n"},
      {"short interval only",
       [&](DdiTestServer& s) {
         s.setControllerBase(R"({"config":{"polling":{"sleep":"00:00:10"}}})");
       },
       "[E] libtamrelcore -> Failed to parse response!\n"},
      {"deployment fetch fails",
       [&](DdiTestServer& s) {
         s.setControllerBase(
             R"({"_links":{"deploymentBase":{"href":"http://127.0.0.1:1/deploymentBase/9"}}})");
       },
       "[E] libtamrelcore -> Download failed: "},
  };
  for (Row const& row : rows) {
    row.arrange(server);
    CaptureStderr capture;
    hawkbit_query_t const result = client.queryOnlineStatus();
    std::string const log = capture.text();
    std::string const head =
        "[I] libtamrelcore -> Querying server status\n"
        "[I] libtamrelcore -> Querying " +
        base() + "\n";
    ASSERT_EQ(log.substr(0, head.size()), head) << row.name;
    EXPECT_EQ(log.substr(head.size(), row.log.size()), row.log) << row.name;
    if (std::string(row.name) == "short interval only") {
      EXPECT_EQ(result.config.sleep, 10);
    }
    if (std::string(row.name) == "deployment fetch fails") {
      EXPECT_NE(log.find("Detected update - fetching update data\n"), std::string::npos);
      EXPECT_EQ(result.deployment.url, "http://127.0.0.1:1/deploymentBase/9");
      EXPECT_TRUE(result.deployment.id.empty() && result.deployment.json.empty());
    }
  }

  // A server that is not there: the transport's line, then the poll's.
  auto lonely = std::make_shared<lookup>(lookup{{"address", text("http://127.0.0.1:1")},
                                                {"tenant-id", text("t")},
                                                {"controller-id", text("c")},
                                                {"token", text("x")}});
  client.connectProperties(lonely);
  CaptureStderr capture;
  hawkbit_query_t const none = client.queryOnlineStatus();
  EXPECT_NE(capture.text().find("[E] libtamrelcore -> Download failed: Couldn't connect to server\n"
                                "[E] libtamrelcore -> Failed: Couldn't connect to server\n"),
            std::string::npos)
      << capture.text();
  EXPECT_FALSE(is_valid(none));
}

TEST(Binding, TokenSources) {
  struct Row {
    char const* name;
    std::vector<std::pair<char const*, std::shared_ptr<value_container>>> entries;
    bool result;
    char const* token;
    char const* log;
  };
  Row const rows[] = {
      {"token string", {{"token", text("abc")}}, true, "abc", ""},
      {"token-file link wins",
       {{"token", text("abc")},
        {"token-file", std::make_shared<value_container>(link_t{"/etc/token", "fromfile"})}},
       true,
       "fromfile",
       ""},
      {"token-file as string sets nothing", {{"token-file", text("/etc/token")}}, true, "", ""},
      {"neither", {}, false, "", "[E] libtamrelcore -> No token was found in the configuration\n"},
  };
  for (Row const& row : rows) {
    CurlManager transport;
    libtamrelcore client(&transport);
    auto table = std::make_shared<lookup>();
    for (auto const& entry : row.entries) table->entries.emplace_back(entry.first, entry.second);
    CaptureStderr capture;
    EXPECT_EQ(client.connectProperties(table), row.result) << row.name;
    EXPECT_EQ(transport.targetToken, row.token) << row.name;
    EXPECT_EQ(capture.text(), row.log) << row.name;
    if (row.entries.empty()) {
      std::vector<std::string> names;
      for (auto const& entry : *table) names.push_back(entry.first);
      EXPECT_EQ(names, (std::vector<std::string>{"token", "token-file", "download-retries",
                                                 "download-timeout-s"}));
    }
  }
}

TEST(Binding, NullAndDroppedTables) {
  CurlManager transport;
  libtamrelcore client(&transport);
  CaptureStderr capture;
  EXPECT_FALSE(client.connectProperties(nullptr));
  EXPECT_EQ(client.buildQueryUrl(), "");  // never bound
  {
    auto table = std::make_shared<lookup>(lookup{{"token", text("t")},
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
    std::vector<std::pair<char const*, std::shared_ptr<value_container>>> entries;
    char const* url;
    char const* log;
  };
  auto link = [](char const* value) {
    return std::make_shared<value_container>(link_t{"/f", value});
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
        {"address-file", link("L")},
        {"tenant-id-file", link("T")},
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
    auto table = std::make_shared<lookup>(lookup{{"token", text("t")}});
    for (auto const& entry : row.entries) table->entries.emplace_back(entry.first, entry.second);
    client.connectProperties(table);
    CaptureStderr capture;
    EXPECT_EQ(client.buildQueryUrl(), row.url) << row.name;
    EXPECT_EQ(capture.text(), row.log) << row.name;
  }

  // Update feedback words the same situation differently and stops there too.
  CurlManager transport;
  libtamrelcore client(&transport);
  auto table = std::make_shared<lookup>(
      lookup{{"token", text("t")}, {"address", text("X")}, {"tenant-id", text("Y")}});
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
