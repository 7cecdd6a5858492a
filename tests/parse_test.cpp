// The three server documents: poll answer, deploymentBase and cancelAction,
// on real hawkBit documents and on hand-made edge cases.
#include <gtest/gtest.h>

#include <fstream>
#include <functional>
#include <iterator>
#include <string>

#include "plugin/libtamrelcore.h"
#include "tests/support/capture_stderr.h"

namespace {

using tamrel::testing::CaptureStderr;
using deployment_t = hawkbit_query_t::deployment_t;

std::string fixture(std::string const& name) {
  std::ifstream in(std::string(TAMREL_TEST_DATA) + "/" + name, std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(in), {});
}

std::string const kHost = "https://management-api.host.com/TENANT_ID/controller/v1/CONTROLLER_ID";

TEST(ParseStatus, Table) {
  struct Row {
    std::string input;
    std::int64_t sleep;
    std::string deployment, config, cancel, log;
  };
  Row const rows[] = {
      {fixture("controller-base.json"), 43200, kHost + "/deploymentBase/5?c=-2127183556",
       kHost + "/configData", "", ""},
      {fixture("controller-base-cancel.json"), 43200, "", kHost + "/configData",
       kHost + "/cancelAction/2", ""},
      {fixture("legacy-2016-controller-base.json"), 300,
       "http://localhost:8080/default/controller/v1/example/deploymentBase/1?c=644088541",
       "http://localhost:8080/default/controller/v1/example/configData", "", ""},
      // Order of members does not matter; names match by their beginning.
      {R"({"_links":{"cancelActionX":{"href":"c"}},"configuration":{"pollingX":{"sleepy":"1:2:3"}}})",
       3723, "", "", "c", ""},
      {R"({"config":{"polling":{"sleep":"1:2:3:"}}})", 3723, "", "", "", ""},
      {R"({"config":{"polling":{"sleep":"00:90:00"}}})", 5400, "", "", "", ""},
      {R"({"config":{"polling":{"sleep":"596524:0:0"}}})", 2147486400, "", "", "", ""},  // 64-bit
      {R"({"config":{"polling":{"sleep":"01:00:00~10%"}}})", 3600, "", "", "", ""},  // newer servers
      {R"({"config":{"polling":{"sleep":"00:05"}}})", 0, "", "", "", ""},
      {R"({"config":{"polling":{"sleep":""}}})", 0, "", "", "", ""},
      {R"({"config":{"polling":{"sleep":300}}})", 0, "", "", "", ""},
      {R"({"config":{"polling":"00:05:00"}})", 0, "", "", "", ""},
      {R"({"config":{"polling":{"sleep":"00:01:00","sleep2":"00:02:00"}}})", 120, "", "", "", ""},
      // Only the first member of a link object is looked at.
      {R"({"_links":{"deploymentBase":{"name":"x","href":"d"},"configData":{"href":"c"}}})", 0, "",
       "c", "", ""},
      {R"({"_links":{"configData":{"href":7}}})", 0, "", "", "", ""},  // not a string: skipped
      {R"({"_links":{"configData":{"href":"a"}},"_links":{"deploymentBase":{"href":"b"}}})", 0, "b",
       "", "", ""},  // a later _links replaces all three
      {"[1,2]", 0, "", "", "", ""},
      {"{}", 0, "", "", "", ""},
      {"", 0, "", "", "", "[E] libtamrelcore -> Unable to parse empty JSON string\n"},
      {"{\"config\":", 0, "", "", "", "[E] libtamrelcore -> Unable to parse JSON: {\"config\":\n"},
      {"{} trailing", 0, "", "", "", "[E] libtamrelcore -> Unable to parse JSON: {} trailing\n"},
  };
  libtamrelcore client(nullptr);
  for (Row const& row : rows) {
    CaptureStderr capture;
    hawkbit_query_t const result = client.parseStatusResponse(row.input);
    EXPECT_EQ(result.config.sleep, row.sleep) << row.input;
    EXPECT_EQ(result.deployment.url, row.deployment) << row.input;
    EXPECT_EQ(result.config_data.url, row.config) << row.input;
    EXPECT_EQ(result.cancel_action.url, row.cancel) << row.input;
    EXPECT_EQ(capture.text(), row.log) << row.input;
  }
}

TEST(ParseStatus, MalformedIntervalRaisesTheConversionError) {
  libtamrelcore client(nullptr);
  EXPECT_THROW(client.parseStatusResponse(R"({"config":{"polling":{"sleep":"a:b:c"}}})"),
               std::invalid_argument);
  EXPECT_THROW(client.parseStatusResponse(R"({"config":{"polling":{"sleep":"1::2"}}})"),
               std::invalid_argument);
  EXPECT_THROW(client.parseStatusResponse(R"({"config":{"polling":{"sleep":"99999999999:0:0"}}})"),
               std::out_of_range);
}

TEST(ParseDeployment, RealDocuments) {
  libtamrelcore client(nullptr);
  deployment_t d;
  ASSERT_TRUE(client.parseDeploymentBase(fixture("deployment-base.json"), d));
  EXPECT_EQ(d.id, "8");
  ASSERT_EQ(d.chunks.size(), 3u);
  EXPECT_EQ(d.chunks[0].part, "jvm");
  EXPECT_EQ(d.chunks[0].name, "oneapp runtime");
  EXPECT_EQ(d.chunks[0].version, "1.0.87");
  auto const& a = d.chunks[0].artifacts.at(0);
  EXPECT_EQ(a.filename, "binary.tgz");
  EXPECT_EQ(a.size, 11u);
  EXPECT_EQ(a.hashes.size(), 3u);  // sha256 is kept, though only sha1 and md5 are used
  EXPECT_EQ(a.hashes.at("sha1"), "74b381df14238bf2f5870bfd86b7d67c5bd87a6e");
  EXPECT_EQ(a.links.size(), 4u);  // download, download-http, md5sum, md5sum-http
  EXPECT_EQ(a.links.at("download-http").rfind("http://link-to-cdn.com/", 0), 0u);
  EXPECT_EQ(d.chunks[2].metadata.size(), 1u);
  EXPECT_EQ(d.chunks[1].artifacts.size(), 2u);

  struct Row {
    char const* file;
    char const* id;
    std::size_t chunks, artifactsOfFirst;
  } const rows[] = {
      {"legacy-2016-deployment-base.json", "1", 1, 1},  // "id" is the last member there
      {"legacy-2019-deployment-base-no-sha256.json", "82", 3, 2},
      {"openapi-example-deployment-base.json", "8", 3, 2},
      {"deployment-base-maintenance-window.json", "12", 3, 0},
      {"confirmation-base-action.json", "6", 0, 0},  // "confirmation" is not "deployment"
  };
  for (Row const& row : rows) {
    deployment_t doc;
    EXPECT_TRUE(client.parseDeploymentBase(fixture(row.file), doc)) << row.file;
    EXPECT_EQ(doc.id, row.id) << row.file;
    ASSERT_EQ(doc.chunks.size(), row.chunks) << row.file;
    if (row.chunks) {
      EXPECT_EQ(doc.chunks[0].artifacts.size(), row.artifactsOfFirst) << row.file;
    }
  }
  deployment_t legacy;
  client.parseDeploymentBase(fixture("legacy-2016-deployment-base.json"), legacy);
  EXPECT_EQ(legacy.chunks[0].artifacts[0].links.count("download-http"), 0u);  // not downloadable
}

TEST(ParseDeployment, Table) {
  struct Row {
    std::string input;
    bool result;
    std::function<void(deployment_t const&)> check;
    std::string log;
  };
  auto const artifacts = [](std::string const& list) {
    return R"({"id":"1","deployment":{"chunks":[{"artifacts":)" + list + "}]}}";
  };
  Row const rows[] = {
      {artifacts(R"([{"filename":"a"},{},{"filename":"c"}])"), true,
       [](deployment_t const& d) { EXPECT_EQ(d.chunks[0].artifacts.size(), 1u); }, ""},
      {artifacts(R"(["x",{"filename":"b"}])"), true,
       [](deployment_t const& d) { EXPECT_TRUE(d.chunks[0].artifacts.empty()); }, ""},
      {artifacts(R"([{"size":3000000000},{"size":-1},{"sizeX":7.9},{"size":"12"}])"), true,
       [](deployment_t const& d) {
         auto const& a = d.chunks[0].artifacts;
         ASSERT_EQ(a.size(), 4u);
         EXPECT_EQ(a[0].size, 2147483647u);
         EXPECT_EQ(a[1].size, 18446744073709551615u);
         EXPECT_EQ(a[2].size, 7u);
         EXPECT_EQ(a[3].size, 0u);  // a string has no integer view
       },
       ""},
      {artifacts(R"([{"hashes":{"sha1":"a","sha1":"b","md5":5},"filename":7,
                      "_links":{"download-http":{"name":"n","href":"x"},"download":{"href":"y"}}}])"),
       true,
       [](deployment_t const& d) {
         auto const& a = d.chunks[0].artifacts.at(0);
         EXPECT_EQ(a.hashes.size(), 1u);
         EXPECT_EQ(a.hashes.at("sha1"), "b");
         EXPECT_EQ(a.filename, "");
         EXPECT_EQ(a.links.size(), 1u);
         EXPECT_EQ(a.links.at("download"), "y");
       },
       ""},
      {artifacts(R"([{"hashes":["a"],"_links":[{"href":"x"}]}])"), true,
       [](deployment_t const& d) {
         EXPECT_TRUE(d.chunks[0].artifacts.at(0).hashes.empty());
         EXPECT_TRUE(d.chunks[0].artifacts.at(0).links.empty());
       },
       ""},
      {R"({"id":"2","deployment":{"chunks":[{},"s",{"name":"n","metadata":[{"key":"k"},{}]}]}})",
       true,
       [](deployment_t const& d) {
         ASSERT_EQ(d.chunks.size(), 3u);
         EXPECT_EQ(d.chunks[2].name, "n");
         ASSERT_EQ(d.chunks[2].metadata.size(), 1u);
         EXPECT_EQ(d.chunks[2].metadata[0].value, "");
       },
       ""},
      {R"({"deployment":{"chunks":[]}})", true,
       [](deployment_t const& d) {
         EXPECT_TRUE(d.chunks.empty());
         EXPECT_EQ(d.id, "old");  // no "id": the old one stays
       },
       ""},
      {R"({"id":"3","deployment":{}})", true,
       [](deployment_t const& d) { EXPECT_EQ(d.chunks.size(), 1u); }, ""},  // kept
      {"[]", false, nullptr, "[E] libtamrelcore -> JSON tree broken or incomplete\n"},
      {R"({"id":"1"} {"id":"2"})", false, nullptr,
       "[E] libtamrelcore -> Unable to parse JSON: {\"id\":\"2\"}\n"},
      {"", false, [](deployment_t const& d) { EXPECT_EQ(d.json, "previous"); },
       "[E] libtamrelcore -> Unable to parse empty JSON string\n"},
  };
  libtamrelcore client(nullptr);
  for (Row const& row : rows) {
    deployment_t d;
    d.id = "old";
    d.json = "previous";
    d.chunks.resize(1);
    CaptureStderr capture;
    EXPECT_EQ(client.parseDeploymentBase(row.input, d), row.result) << row.input;
    if (!row.input.empty()) {
      EXPECT_EQ(d.json, row.input);
    }
    if (row.check) row.check(d);
    EXPECT_EQ(capture.text(), row.log) << row.input;
  }
}

TEST(ParseCancel, Table) {
  struct Row {
    std::string input;
    bool result;
    char const* id;
    char const* stopId;
    std::string log;
  } const rows[] = {
      {fixture("cancel-action.json"), true, "11", "11", ""},
      {fixture("legacy-2019-cancel-action.json"), true, "84", "84", ""},
      {R"({"id":"5"})", true, "5", "old", ""},  // the stop id already held stays
      {R"({"idx":"6","cancelAction":{"stopId":"1","stopIdLater":"2"}})", true, "6", "2", ""},
      {R"({"id":7,"cancelAction":{"stopId":8}})", true, "old", "old", ""},
      {R"(["id","7"])", false, "old", "old",
       "[E] libtamrelcore -> JSON tree broken or incomplete\n"},
      {"{}", false, "old", "old", "[E] libtamrelcore -> JSON tree broken or incomplete\n"},
      {"{\"id\":\"1\"", false, "old", "old", "[E] libtamrelcore -> Unable to parse JSON: \n"},
  };
  libtamrelcore client(nullptr);
  for (Row const& row : rows) {
    hawkbit_query_t::cancel_action_t cancel{"url", "old", "old"};
    CaptureStderr capture;
    EXPECT_EQ(client.parseCancelAction(row.input, cancel), row.result) << row.input;
    EXPECT_EQ(cancel.id, row.id) << row.input;
    EXPECT_EQ(cancel.stop_id, row.stopId) << row.input;
    EXPECT_EQ(capture.text(), row.log) << row.input;
  }
  hawkbit_query_t::cancel_action_t fresh;
  EXPECT_FALSE(client.parseCancelAction(R"({"id":"5"})", fresh));
  EXPECT_EQ(fresh.id, "5");
}

}  // namespace
