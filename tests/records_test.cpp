#include <gtest/gtest.h>

#include <array>
#include <functional>

#include "ddi/artifact_path.h"
#include "ddi/hawkbit_query.h"

namespace {

using deployment_t = hawkbit_query_t::deployment_t;
using chunk_t = deployment_t::chunk_t;
using artifact_t = chunk_t::artifact_t;
using metadata_entry_t = chunk_t::metadata_entry_t;

TEST(Records, Validity) {
  hawkbit_query_t query;
  EXPECT_FALSE(is_valid(query));
  for (std::int64_t sleep : {29LL, 30LL, -9000000000LL}) {
    query.config.sleep = sleep;
    EXPECT_EQ(is_valid(query), sleep == 30) << sleep;
  }
  EXPECT_TRUE(is_valid(hawkbit_query_t::cancel_action_t{"u", "", "7"}));
  EXPECT_FALSE(is_valid(hawkbit_query_t::cancel_action_t{"u", "7", ""}));
  EXPECT_TRUE(is_valid(hawkbit_query_t::config_data_t{"u"}));
  query.deployment.url = "u";
  query.deployment.json = "{}";
  query.deployment.chunks.resize(2);
  EXPECT_FALSE(is_valid(query));  // chunks, but no artifact anywhere
  query.deployment.chunks[1].artifacts.resize(1);
  EXPECT_TRUE(is_valid(query));
  query.deployment.json.clear();
  EXPECT_FALSE(is_valid(query.deployment));
}

// Every compared field makes two records differ; what the host sets does not.
TEST(Records, EqualityComparesEachFieldItNames) {
  struct Set {
    deployment_t d;
    chunk_t c;
    artifact_t a;
  } base;
  base.d.id = "5";
  base.d.url = "u";
  base.c = {"p", "1", "os", {}, false, {}, {{"k", "v"}}};
  base.a = {"f", 3, "/d", "s", {{"sha1", "a"}, {"md5", "b"}}, {{"download-http", "h"}}};
  std::pair<std::function<void(Set&)>, bool> const rows[] = {
      // clang-format off
      {[](Set& s) { s.d.id = "6"; }, false},
      {[](Set& s) { s.d.url = "v"; }, false},
      {[](Set& s) { s.c.name = "app"; }, false},
      {[](Set& s) { s.c.part = "q"; }, false},
      {[](Set& s) { s.c.version = "2"; }, false},
      {[](Set& s) { s.c.metadata[0].key = "K"; }, false},
      {[](Set& s) { s.c.metadata[0].value = "V"; }, false},
      {[](Set& s) { s.a.filename = "g"; }, false},
      {[](Set& s) { s.a.size = 4; }, false},
      {[](Set& s) { s.a.destination = "/e"; }, false},
      {[](Set& s) { s.a.subdirectory = "t"; }, false},
      {[](Set& s) { s.a.hashes["md5"] = "c"; }, false},
      {[](Set& s) { s.a.links["download-http"] = "i"; }, false},
      {[](Set& s) { s.d.json = "{}", s.d.chunks.resize(3), s.d.execution = execution_t::closed,
                    s.d.finished = finished_t::success; }, true},
      {[](Set& s) { s.c.artifacts.resize(1), s.c.details = {"done"}, s.c.completed = true; }, true},
      // clang-format on
  };
  for (std::size_t i = 0; i < std::size(rows); ++i) {
    Set changed = base;
    rows[i].first(changed);
    bool const equal = base.d == changed.d && base.c == changed.c && base.a == changed.a;
    EXPECT_EQ(equal, rows[i].second) << "row " << i;
    EXPECT_EQ(base.d != changed.d, !(base.d == changed.d)) << "row " << i;
  }
  hawkbit_query_t::config_t x, y;
  y.sleep = 1;
  EXPECT_TRUE(x != y && !(x == y));
  // Vectors: each left element needs an equal one anywhere on the right.
  metadata_entry_t const A{"a", "1"}, B{"b", "2"};
  std::vector<metadata_entry_t> const a{A}, aa{A, A}, ab{A, B}, ba{B, A};
  EXPECT_TRUE(ab == ba && aa == ab);
  EXPECT_FALSE(ab == aa);
  EXPECT_FALSE(a == ab);  // sizes must match
}

TEST(Records, ArtifactPaths) {
  artifact_t artifact;
  artifact.filename = "a.bin";
  // destination, subdirectory, directory
  for (auto const& row : {std::array<char const*, 3>{"/data//", "", "/data/"},
                          {"/data", "os/", "/data/os/"},
                          {"/", "", "/"},
                          {"///", "x//", "/x/"}}) {
    artifact.destination = row[0];
    artifact.subdirectory = row[1];
    EXPECT_EQ(get_full_artifact_path(artifact), row[2]);
    EXPECT_EQ(get_full_artifact_file_path(artifact), std::string(row[2]) + "a.bin");
  }
}

}  // namespace
