// The agent's reading of a deploymentBase: handling types and the
// maintenance window, the cross-checks against the library's record, and
// what it completes (64-bit sizes, the HTTPS link, lower-case digests).
#include "agent/base/deploymentplan.h"

#include <gtest/gtest.h>

#include "ddi/document_parsers.h"
#include "tests/support/temp_dir.h"

namespace {

using Handling = DeploymentPlan::Handling;

std::string const kFixture =
    tamrel::testing::readFile(std::string(TAMREL_TEST_DATA) + "/deployment-base.json");

// The fixture with the first occurrence of `from` replaced by `to`.
std::string edited(std::string const& from, std::string const& to) {
  std::string text = kFixture;
  std::size_t const at = text.find(from);
  if (at != std::string::npos) text.replace(at, from.size(), to);
  return text;
}

DeploymentPlan planOf(std::string const& json, DeploymentPlan::deployment_t& deployment) {
  parse_deployment_base(json, deployment);
  return DeploymentPlan::read(deployment);
}

std::string joined(std::vector<std::string> const& lines) {
  std::string text;
  for (auto const& line : lines) text += line + "\n";
  return text;
}

TEST(DeploymentPlan, CompletesTheRecord) {
  ASSERT_FALSE(kFixture.empty());
  DeploymentPlan::deployment_t deployment;
  std::string const json = edited("\"size\" : 11", "\"size\" : 5368709120")  // 5 GiB: past 32 bits
                               .replace(kFixture.find("74b381df14238bf2f5870bfd86b7d67c5bd87a6e"),
                                        40, "74B381DF14238BF2F5870BFD86B7D67C5BD87A6E");
  DeploymentPlan const plan = planOf(json, deployment);
  EXPECT_EQ(joined(plan.problems()), "");
  auto const& artifact = deployment.chunks[0].artifacts[0];
  EXPECT_EQ(artifact.size, 5368709120u);
  EXPECT_EQ(artifact.hashes.at("sha1"), "74b381df14238bf2f5870bfd86b7d67c5bd87a6e");
  EXPECT_EQ(artifact.links.at("download-http").rfind("https://", 0), 0u);  // "download" wins
  EXPECT_EQ(plan.sha256("one Firmware", "binary.tgz"),
            "031c25335e912ecb47b567e7b1b36ebe2c94a7dc15a493243a31b8a4dca03a4a");
  EXPECT_EQ(plan.sha256("one Firmware", "missing"), "");
}

TEST(DeploymentPlan, HandlingAndWindow) {
  struct Case {
    char const *download, *update, *window;  // nullptr: member absent
    Handling wantDownload, wantUpdate;
    bool downloadOnly, mayInstall;
  } const cases[] = {
      {"forced", "forced", "available", Handling::kForced, Handling::kForced, false, true},
      {"attempt", "attempt", nullptr, Handling::kAttempt, Handling::kAttempt, false, true},
      {"skip", "forced", nullptr, Handling::kSkip, Handling::kForced, false, true},
      {"forced", "skip", "unavailable", Handling::kForced, Handling::kSkip, false, false},
      {"forced", "skip", nullptr, Handling::kForced, Handling::kSkip, true, false},
      {"forced", "forced", "unavailable", Handling::kForced, Handling::kForced, false, false},
      {nullptr, nullptr, nullptr, Handling::kForced, Handling::kForced, false, true},
  };
  for (Case const& c : cases) {
    std::string head = "\"deployment\" : {\n";
    if (c.download) head += std::string("\"download\" : \"") + c.download + "\",\n";
    if (c.update) head += std::string("\"update\" : \"") + c.update + "\",\n";
    if (c.window) head += std::string("\"maintenanceWindow\" : \"") + c.window + "\",\n";
    std::string json = kFixture;
    std::size_t const from = json.find("\"deployment\" : {");
    json.replace(from, json.find("\"chunks\"") - from, head);
    DeploymentPlan::deployment_t deployment;
    DeploymentPlan const plan = planOf(json, deployment);
    std::string const what = std::string(c.download ? c.download : "-") + "/" +
                             (c.update ? c.update : "-") + "/" + (c.window ? c.window : "-");
    EXPECT_EQ(joined(plan.problems()), "") << what;
    EXPECT_EQ(plan.download(), c.wantDownload) << what;
    EXPECT_EQ(plan.update(), c.wantUpdate) << what;
    EXPECT_EQ(plan.downloadOnly(), c.downloadOnly) << what;
    EXPECT_EQ(plan.mayInstall(), c.mayInstall) << what;
  }
}

TEST(DeploymentPlan, ProblemsNameChunkAndArtifact) {
  struct Case {
    std::string json, problem;
  } const cases[] = {
      {edited("\"update\" : \"forced\"", "\"update\" : \"later\""),
       "unknown download or update handling \"forced\"/\"later\""},
      {edited("\"available\"", "\"soon\""), "unknown maintenance window state \"soon\""},
      {edited("\"file.signature\"", "\"binary.tgz\""),
       "chunk \"oneapp runtime\", artifact \"binary.tgz\": file name listed twice"},
      {edited("\"binary.tgz\"", "\"bin\\tary\""),
       "artifact \"bin\\x09ary\": control character in the name"},
      {edited("\"size\" : 11", "\"size\" : -1"), "artifact \"binary.tgz\": no valid size"},
      {edited("\"size\" : 11", "\"size\" : 1.5"), "artifact \"binary.tgz\": no valid size"},
      {edited("https://link-to-cdn.com", "ftp://link-to-cdn.com"),
       "artifact \"binary.tgz\": download link is not http or https"},
      {edited("\"chunks\" : [ {", "\"chunks\" : [ {\"name\":\"empty\",\"artifacts\":[]}, {"),
       "chunk \"empty\": no artifacts"},
      {edited("\"deployment\"", "\"deploy\""), "the deployment document could not be read"},
      {edited("\"binary.tgz\"", "\"binary.tgz\\u0000.sh\""), "holds a NUL character"},
  };
  for (Case const& c : cases) {
    DeploymentPlan::deployment_t deployment;
    std::string const problems = joined(planOf(c.json, deployment).problems());
    EXPECT_NE(problems.find(c.problem), std::string::npos) << "want: " << c.problem << "\ngot:\n"
                                                           << problems;
  }
  // A record that lost an artifact the document lists.
  DeploymentPlan::deployment_t deployment;
  parse_deployment_base(kFixture, deployment);
  deployment.chunks[1].artifacts.pop_back();
  EXPECT_EQ(joined(DeploymentPlan::read(deployment).problems()),
            "chunk \"one Firmware\": the document lists 2 artifact(s), 1 could be read\n");
}

TEST(DeploymentPlan, DecimalIds) {
  for (char const* id : {"1", "8", "123456789012345678"})
    EXPECT_TRUE(DeploymentPlan::decimalId(id));
  for (char const* id : {"", "1x", "-1", " 1", "1234567890123456789", "１"})
    EXPECT_FALSE(DeploymentPlan::decimalId(id)) << id;
}

}  // namespace
