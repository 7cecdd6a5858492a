// What needs no server: the three documents (poll answer, deploymentBase,
// cancelAction) on real hawkBit documents and on hand-made edge cases, and
// the progress percentages.
#include <gtest/gtest.h>

#include <climits>
#include <fstream>
#include <iterator>
#include <string>
#include <tuple>

#include "ddi/artifact_download.h"
#include "ddi/artifact_verification.h"
#include "ddi/document_parsers.h"
#include "tests/support/capture_stderr.h"

namespace {

using tamrel::testing::CaptureStderr;
using deployment_t = hawkbit_query_t::deployment_t;

std::string fixture(std::string const& name) {
  std::ifstream in(std::string(TAMREL_TEST_DATA) + "/" + name, std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(in), {});
}

std::string const kHost = "https://management-api.host.com/TENANT_ID/controller/v1/CONTROLLER_ID";

// A poll answer whose polling interval is `sleep` (JSON text).
std::string interval(std::string const& sleep) {
  return R"({"config":{"polling":{"sleep":)" + sleep + "}}}";
}

TEST(ParseStatus, Table) {
  std::string const base = "http://localhost:8080/default/controller/v1/example/";
  // Echoed in a log line of exactly 512 bytes, the log writer's inline limit.
  std::string const long512 = "{\"config\":" + std::string(458, ' ');
  // Document, polling interval, "deploymentBase|configData|cancelAction" links, log.
  std::tuple<std::string, std::int64_t, std::string, std::string> const rows[] = {
      {fixture("controller-base.json"), 43200,
       kHost + "/deploymentBase/5?c=-2127183556|" + kHost + "/configData|", ""},
      {fixture("controller-base-cancel.json"), 43200,
       "|" + kHost + "/configData|" + kHost + "/cancelAction/2", ""},
      {fixture("legacy-2016-controller-base.json"), 300,
       base + "deploymentBase/1?c=644088541|" + base + "configData|", ""},
      // Order of members does not matter; names match by their beginning.
      {R"({"_links":{"cancelActionX":{"href":"c"}},"configuration":{"pollingX":{"sleepy":"1:2:3"}}})",
       3723, "||c", ""},
      {interval(R"("1:2:3:")"), 3723, "||", ""},
      {interval(R"("596524:0:0")"), 2147486400, "||", ""},  // beyond 32 bits
      {interval(R"("01:00:00~10%")"), 3600, "||", ""},      // newer servers
      {interval(R"("00:05")"), 0, "||", ""},
      {interval(R"("01:02:03:04")"), 0, "||", ""},  // exactly three pieces
      {interval(R"("00:01:00","sleep2":"00:02:00")"), 120, "||", ""},
      // Only the first member of a link object is looked at.
      {R"({"_links":{"deploymentBase":{"name":"x","href":"d"},"configData":{"href":"c"}}})", 0,
       "|c|", ""},
      {R"({"_links":{"configData":{"href":"a"}},"_links":{"deploymentBase":{"href":"b"}}})", 0,
       "b||", ""},  // a later _links replaces all three
      {"", 0, "||", "[E] libtamrelcore -> Unable to parse empty JSON string\n"},
      {"{\"config\":", 0, "||", "[E] libtamrelcore -> Unable to parse JSON: {\"config\":\n"},
      {"{} trailing", 0, "||", "[E] libtamrelcore -> Unable to parse JSON: {} trailing\n"},
      {long512, 0, "||", "[E] libtamrelcore -> Unable to parse JSON: " + long512 + "\n"},
  };
  for (auto const& [input, sleep, links, log] : rows) {
    CaptureStderr capture;
    hawkbit_query_t const result = parse_status_response(input);
    EXPECT_EQ(result.config.sleep, sleep) << input;
    EXPECT_EQ(result.deployment.url + "|" + result.config_data.url + "|" + result.cancel_action.url,
              links)
        << input;
    EXPECT_EQ(capture.text(), log) << input;
  }
  EXPECT_THROW(parse_status_response(interval(R"("a:b:c")")), std::invalid_argument);
  EXPECT_THROW(parse_status_response(interval(R"("1::2")")), std::invalid_argument);
  EXPECT_THROW(parse_status_response(interval(R"("99999999999:0:0")")), std::out_of_range);
}

TEST(ParseDeployment, RealDocuments) {
  // File, action id, chunks, artifacts of the first chunk, and whether the
  // first of them has a "download-http" link.
  std::tuple<char const*, char const*, std::size_t, std::size_t, bool> const rows[] = {
      {"deployment-base.json", "8", 3, 2, true},
      {"legacy-2016-deployment-base.json", "1", 1, 1, false},  // "id" is the last member there
      {"legacy-2019-deployment-base-no-sha256.json", "82", 3, 2, true},
      {"deployment-base-maintenance-window.json", "12", 3, 0, false},
      {"confirmation-base-action.json", "6", 0, 0, false},  // "confirmation" is not "deployment"
  };
  for (auto const& [file, id, chunks, artifacts, downloadable] : rows) {
    deployment_t doc;
    EXPECT_TRUE(parse_deployment_base(fixture(file), doc)) << file;
    std::size_t const first = doc.chunks.empty() ? 0 : doc.chunks[0].artifacts.size();
    bool const link = first != 0 && doc.chunks[0].artifacts[0].links.count("download-http") != 0;
    EXPECT_EQ(std::make_tuple(doc.id, doc.chunks.size(), first, link),
              std::make_tuple(std::string(id), chunks, artifacts, downloadable))
        << file;
  }
  deployment_t d;
  parse_deployment_base(fixture("deployment-base.json"), d);
  auto const& a = d.chunks[0].artifacts.at(0);
  EXPECT_EQ(d.chunks[0].name + "|" + a.filename + "|" + std::to_string(a.size) + "|" +
                a.hashes.at("sha1"),
            "oneapp runtime|binary.tgz|11|74b381df14238bf2f5870bfd86b7d67c5bd87a6e");
}

// A parsed deployment in one line: the id, then per chunk its name and
// metadata and per artifact its filename, size, hashes and links (rows keep
// to one hash and one link, so map order does not matter).
std::string summary(deployment_t const& d) {
  std::string text = d.id;
  for (auto const& chunk : d.chunks) {
    text += " [" + chunk.name;
    for (auto const& entry : chunk.metadata) text += " " + entry.key + "=" + entry.value;
    for (auto const& a : chunk.artifacts) {
      text += " (" + a.filename + " " + std::to_string(a.size);
      for (auto const& [name, value] : a.hashes) text += " " + name + ":" + value;
      for (auto const& [name, url] : a.links) text += " " + name + ">" + url;
      text += ")";
    }
    text += "]";
  }
  return text;
}

TEST(ParseDeployment, Table) {
  auto const artifacts = [](std::string const& list) {
    return R"({"id":"1","deployment":{"chunks":[{"artifacts":)" + list + "}]}}";
  };
  // Document, result, summary of the record afterwards, log.
  std::tuple<std::string, bool, std::string, std::string> const rows[] = {
      // An element without members ends the list; one not an object, all of it.
      {artifacts(R"([{"filename":"a"},{},{"filename":"c"}])"), true, "1 [ (a 0)]", ""},
      {artifacts(R"(["x",{"filename":"b"}])"), true, "1 []", ""},
      // The int view saturates, a negative size widens with its sign, a string has none.
      {artifacts(R"([{"size":3000000000},{"size":-1},{"sizeX":7.9},{"size":"12"}])"), true,
       "1 [ ( 2147483647) ( 18446744073709551615) ( 7) ( 0)]", ""},
      {artifacts(R"([{"hashes":{"sha1":"a","sha1":"b","md5":5},"filename":7,
                     "_links":{"download-http":{"name":"n","href":"x"},"download":{"href":"y"}}}])"),
       true, "1 [ ( 0 sha1:b download>y)]", ""},
      {artifacts(R"([{"hashes":["a"],"_links":[{"href":"x"}]}])"), true, "1 [ ( 0)]", ""},
      {R"({"id":"2","deployment":{"chunks":[{},"s",{"name":"n","metadata":[{"key":"k"},{}]}]}})",
       true, "2 [] [] [n k=]", ""},
      {R"({"deployment":{"chunks":[]}})", true, "old", ""},  // no "id": the old one stays
      {R"({"id":"3","deployment":{}})", true, "3 []", ""},   // no chunks member: kept
      {R"({"id":"4","deployment":{"chunks":{"c":{"name":"n"}}}})", true, "4", ""},  // no array
      {"[]", false, "old []", "[E] libtamrelcore -> JSON tree broken or incomplete\n"},
      {R"({"id":"1"} {"id":"2"})", false, "old []",
       "[E] libtamrelcore -> Unable to parse JSON: {\"id\":\"2\"}\n"},
      {"", false, "old []", "[E] libtamrelcore -> Unable to parse empty JSON string\n"},
  };
  for (auto const& [input, result, parsed, log] : rows) {
    deployment_t d;
    d.id = "old";
    d.json = "previous";
    d.chunks.resize(1);
    CaptureStderr capture;
    EXPECT_EQ(parse_deployment_base(input, d), result) << input;
    EXPECT_EQ(d.json, input.empty() ? "previous" : input);  // kept before parsing
    EXPECT_EQ(summary(d), parsed) << input;
    EXPECT_EQ(capture.text(), log) << input;
  }
}

TEST(ParseCancel, Table) {
  // Document, result, id and stop id afterwards, log.
  std::tuple<std::string, bool, char const*, char const*, std::string> const rows[] = {
      {fixture("cancel-action.json"), true, "11", "11", ""},
      {R"({"id":"5"})", true, "5", "old", ""},  // the stop id already held stays
      {R"({"idx":"6","cancelAction":{"stopId":"1","stopIdLater":"2"}})", true, "6", "2", ""},
      {R"({"id":7,"cancelAction":{"stopId":8}})", true, "old", "old", ""},
      {R"(["id","7"])", false, "old", "old",
       "[E] libtamrelcore -> JSON tree broken or incomplete\n"},
      {"{}", false, "old", "old", "[E] libtamrelcore -> JSON tree broken or incomplete\n"},
      {"{\"id\":\"1\"", false, "old", "old", "[E] libtamrelcore -> Unable to parse JSON: \n"},
  };
  for (auto const& [input, result, id, stopId, log] : rows) {
    hawkbit_query_t::cancel_action_t cancel{"url", "old", "old"};
    CaptureStderr capture;
    EXPECT_EQ(parse_cancel_action(input, cancel), result) << input;
    EXPECT_EQ(cancel.id + "|" + cancel.stop_id, std::string(id) + "|" + stopId) << input;
    EXPECT_EQ(capture.text(), log) << input;
  }
  hawkbit_query_t::cancel_action_t fresh;
  EXPECT_FALSE(parse_cancel_action(R"({"id":"5"})", fresh));
  EXPECT_EQ(fresh.id, "5");
}

// Whole percents in single precision; a body far past the announced size
// stays at the top of the result's range instead of wrapping.
TEST(Percent, HeldToTheResultRange) {
  EXPECT_EQ(download_percent(5, 0), 0);
  EXPECT_EQ(download_percent(1, 3), 33);
  EXPECT_EQ(download_percent(UINT64_MAX, 1), INT_MAX);
  EXPECT_EQ(verify_percent(UINT64_MAX, 1), UINT_MAX);
}

}  // namespace
