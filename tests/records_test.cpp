#include <gtest/gtest.h>

#include <functional>

#include "ddi/artifact_path.h"
#include "ddi/hawkbit_query.h"

namespace {

using deployment_t = hawkbit_query_t::deployment_t;
using chunk_t = deployment_t::chunk_t;
using artifact_t = chunk_t::artifact_t;
using metadata_entry_t = chunk_t::metadata_entry_t;

TEST(Records, Validity) {
  EXPECT_FALSE(is_valid(hawkbit_query_t{}));
  for (std::int64_t sleep : {29LL, 30LL, -9000000000LL}) {
    hawkbit_query_t query;
    query.config.sleep = sleep;
    EXPECT_EQ(is_valid(query), sleep == 30) << sleep;
  }
  EXPECT_TRUE(is_valid(hawkbit_query_t::cancel_action_t{"u", "", "7"}));
  EXPECT_FALSE(is_valid(hawkbit_query_t::cancel_action_t{"u", "7", ""}));
  hawkbit_query_t query;
  query.config_data.url = "u";
  EXPECT_TRUE(is_valid(query));

  deployment_t deployment;
  deployment.url = "u";
  deployment.json = "{}";
  deployment.chunks.resize(2);
  EXPECT_FALSE(is_valid(deployment));  // chunks, but no artifact anywhere
  deployment.chunks[1].artifacts.resize(1);
  query = {};
  query.deployment = deployment;
  EXPECT_TRUE(is_valid(query));
  deployment.json.clear();
  EXPECT_FALSE(is_valid(deployment));
}

// Every compared field makes two records differ; what the host sets does not.
TEST(Records, EqualityComparesEachFieldItNames) {
  deployment_t d;
  d.id = "5";
  d.url = "u";
  chunk_t c;
  c.name = "os";
  c.part = "p";
  c.version = "1";
  c.metadata = {{"k", "v"}};
  artifact_t a;
  a.filename = "f";
  a.size = 3;
  a.destination = "/d";
  a.subdirectory = "s";
  a.hashes = {{"sha1", "a"}, {"md5", "b"}};
  a.links = {{"download-http", "h"}};
  struct Row {
    char const* field;
    std::function<void(deployment_t&, chunk_t&, artifact_t&)> change;
    bool equal;
  };
  Row const rows[] = {
      {"deployment id", [](auto& d, auto&, auto&) { d.id = "6"; }, false},
      {"deployment url", [](auto& d, auto&, auto&) { d.url = "v"; }, false},
      {"chunk name", [](auto&, auto& c, auto&) { c.name = "app"; }, false},
      {"chunk part", [](auto&, auto& c, auto&) { c.part = "q"; }, false},
      {"chunk version", [](auto&, auto& c, auto&) { c.version = "2"; }, false},
      {"metadata key", [](auto&, auto& c, auto&) { c.metadata[0].key = "K"; }, false},
      {"metadata value", [](auto&, auto& c, auto&) { c.metadata[0].value = "V"; }, false},
      {"artifact filename", [](auto&, auto&, auto& a) { a.filename = "g"; }, false},
      {"artifact size", [](auto&, auto&, auto& a) { a.size = 4; }, false},
      {"artifact destination", [](auto&, auto&, auto& a) { a.destination = "/e"; }, false},
      {"artifact subdirectory", [](auto&, auto&, auto& a) { a.subdirectory = "t"; }, false},
      {"artifact hash", [](auto&, auto&, auto& a) { a.hashes["md5"] = "c"; }, false},
      {"artifact link", [](auto&, auto&, auto& a) { a.links["download-http"] = "i"; }, false},
      {"host-set deployment fields",
       [](auto& d, auto&, auto&) {
         d.json = "{}";
         d.chunks.resize(3);
         d.execution = execution_t::closed;
         d.finished = finished_t::success;
       },
       true},
      {"host-set chunk fields",
       [](auto&, auto& c, auto&) {
         c.artifacts.resize(1);
         c.details = {"done"};
         c.completed = true;
       },
       true},
  };
  for (Row const& row : rows) {
    deployment_t d2 = d;
    chunk_t c2 = c;
    artifact_t a2 = a;
    row.change(d2, c2, a2);
    bool const equal = d == d2 && c == c2 && a == a2;
    EXPECT_EQ(equal, row.equal) << row.field;
    EXPECT_EQ(d != d2, !(d == d2)) << row.field;
  }
  hawkbit_query_t::config_t x, y;
  y.sleep = 1;
  EXPECT_TRUE(x != y);
  EXPECT_FALSE(x == y);
}

// Each left element needs an equal one somewhere on the right (sizes equal),
// so the rule is order-free but not symmetric.
TEST(Records, VectorRuleIsAsymmetric) {
  metadata_entry_t const A{"a", "1"}, B{"b", "2"};
  std::vector<metadata_entry_t> const aa{A, A}, ab{A, B}, ba{B, A}, a{A};
  EXPECT_TRUE(aa == ab);
  EXPECT_FALSE(ab == aa);
  EXPECT_TRUE(ab == ba);
  EXPECT_FALSE(a == ab);

  artifact_t p, q;
  p.filename = "p";
  q.filename = "q";
  EXPECT_TRUE((std::vector<artifact_t>{p, p} == std::vector<artifact_t>{p, q}));
  EXPECT_FALSE((std::vector<artifact_t>{p, q} == std::vector<artifact_t>{p, p}));
  chunk_t m, n;
  m.name = "m";
  n.name = "n";
  EXPECT_TRUE((std::vector<chunk_t>{m, m} == std::vector<chunk_t>{m, n}));
  EXPECT_FALSE((std::vector<chunk_t>{m, n} == std::vector<chunk_t>{m, m}));
}

TEST(Records, ArtifactPaths) {
  struct {
    char const* destination;
    char const* subdirectory;
    char const* directory;
  } const rows[] = {
      {"/data//", "", "/data/"},
      {"/data", "os/", "/data/os/"},
      {"/", "", "/"},
      {"///", "x//", "/x/"},
  };
  for (auto const& row : rows) {
    artifact_t artifact;
    artifact.destination = row.destination;
    artifact.subdirectory = row.subdirectory;
    artifact.filename = "a.bin";
    EXPECT_EQ(get_full_artifact_path(artifact), row.directory);
    EXPECT_EQ(get_full_artifact_file_path(artifact), std::string(row.directory) + "a.bin");
  }
}

}  // namespace
