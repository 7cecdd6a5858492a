#include <gtest/gtest.h>

#include "ddi/artifact_path.h"
#include "ddi/hawkbit_query.h"

namespace {

using deployment_t = hawkbit_query_t::deployment_t;
using chunk_t = deployment_t::chunk_t;
using artifact_t = chunk_t::artifact_t;
using metadata_entry_t = chunk_t::metadata_entry_t;

TEST(Records, Validity) {
  EXPECT_FALSE(is_valid(hawkbit_query_t{}));
  struct {
    std::int64_t sleep;
    bool valid;
  } const sleeps[] = {{30, true}, {29, false}, {0, false}, {-9000000000LL, false}, {86400, true}};
  for (auto const& row : sleeps) {
    hawkbit_query_t::config_t config;
    config.sleep = row.sleep;
    EXPECT_EQ(is_valid(config), row.valid) << row.sleep;
    hawkbit_query_t query;
    query.config = config;
    EXPECT_EQ(is_valid(query), row.valid) << row.sleep;
  }

  hawkbit_query_t::cancel_action_t cancel{"http://x/cancelAction/1", "", "7"};
  EXPECT_TRUE(is_valid(cancel));
  cancel.stop_id.clear();
  EXPECT_FALSE(is_valid(cancel));
  EXPECT_TRUE(is_valid(hawkbit_query_t::config_data_t{"u"}));
  EXPECT_FALSE(is_valid(hawkbit_query_t::config_data_t{}));

  deployment_t deployment;
  deployment.url = "u";
  deployment.json = "{}";
  deployment.chunks.resize(2);
  EXPECT_FALSE(is_valid(deployment));  // chunks, but no artifact anywhere
  deployment.chunks[1].artifacts.resize(1);
  EXPECT_TRUE(is_valid(deployment));
  hawkbit_query_t query;
  query.deployment = deployment;
  EXPECT_TRUE(is_valid(query));
  deployment.json.clear();
  EXPECT_FALSE(is_valid(deployment));
}

TEST(Records, EqualityIgnoresWhatTheHostSets) {
  deployment_t a, b;
  a.id = b.id = "5";
  a.url = b.url = "u";
  b.json = "{}";
  b.chunks.resize(3);
  b.execution = execution_t::closed;
  EXPECT_TRUE(a == b);
  EXPECT_FALSE(a != b);
  b.id = "6";
  EXPECT_TRUE(a != b);

  chunk_t c1, c2;
  c1.name = c2.name = "os";
  c2.artifacts.resize(1);
  c2.details = {"done"};
  c2.completed = true;
  EXPECT_TRUE(c1 == c2);
  c2.metadata.push_back({"k", "v"});
  EXPECT_FALSE(c1 == c2);

  artifact_t x, y;
  x.hashes = {{"sha1", "a"}, {"md5", "b"}};
  y.hashes = {{"md5", "b"}, {"sha1", "a"}};
  EXPECT_TRUE(x == y);
  y.subdirectory = "s";
  EXPECT_FALSE(x == y);
}

TEST(Records, VectorRuleIsAsymmetric) {
  metadata_entry_t const A{"a", "1"}, B{"b", "2"};
  std::vector<metadata_entry_t> const aa{A, A}, ab{A, B}, ba{B, A}, a{A};
  EXPECT_TRUE(aa == ab);
  EXPECT_FALSE(ab == aa);
  EXPECT_TRUE(ab == ba);
  EXPECT_TRUE(ba == ab);
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
    char const* file;
  } const rows[] = {
      {"/data//", "", "/data/", "/data/a.bin"},
      {"/data", "os/", "/data/os/", "/data/os/a.bin"},
      {"/", "", "/", "/a.bin"},
      {"///", "x//", "/x/", "/x/a.bin"},
  };
  for (auto const& row : rows) {
    artifact_t artifact;
    artifact.destination = row.destination;
    artifact.subdirectory = row.subdirectory;
    artifact.filename = "a.bin";
    EXPECT_EQ(get_full_artifact_path(artifact), row.directory);
    EXPECT_EQ(get_full_artifact_file_path(artifact), row.file);
  }
}

}  // namespace
