// The DDI server's documents against hawkBit's own: the same data gives
// the same bytes as hawkBit's answers (pretty-printing aside), and hawkBit's
// request bodies read as they mean.
#include "ddiserver/ddidocument.h"

#include <cjson/cJSON.h>
#include <gtest/gtest.h>

#include <memory>

#include "tests/support/temp_dir.h"

namespace {

using namespace tamrel::ddiserver;
using Json = std::unique_ptr<cJSON, void (*)(cJSON*)>;

Json fixture(char const* name) {
  std::string const text = tamrel::testing::readFile(std::string(TAMREL_TEST_DATA) + "/" + name);
  return Json(cJSON_Parse(text.c_str()), cJSON_Delete);
}

// The fixture as hawkBit sends it on the wire: compact, members in order.
std::string compact(char const* name) {
  Json const json = fixture(name);
  std::unique_ptr<char, void (*)(void*)> text(cJSON_PrintUnformatted(json.get()), cJSON_free);
  return text ? text.get() : "";
}

std::string text(cJSON const* object, char const* key) {
  cJSON const* item = cJSON_GetObjectItemCaseSensitive(object, key);
  return cJSON_IsString(item) ? item->valuestring : "";
}

// The deployment and history a fixture shows, to build the same document.
DeploymentDocument deploymentOf(cJSON const* root, char const* key, ActionHistory& history) {
  DeploymentDocument deployment;
  deployment.id = text(root, "id");
  cJSON const* body = cJSON_GetObjectItemCaseSensitive(root, key);
  deployment.download = text(body, "download");
  deployment.update = text(body, "update");
  deployment.maintenanceWindow = text(body, "maintenanceWindow");
  cJSON const* chunk = nullptr;
  cJSON_ArrayForEach(chunk, cJSON_GetObjectItemCaseSensitive(body, "chunks")) {
    ChunkDocument entry{text(chunk, "part"), text(chunk, "version"), text(chunk, "name"), {}};
    cJSON const* artifact = nullptr;
    cJSON_ArrayForEach(artifact, cJSON_GetObjectItemCaseSensitive(chunk, "artifacts")) {
      ArtifactDocument file;
      file.filename = text(artifact, "filename");
      file.size = static_cast<std::uint64_t>(
          cJSON_GetObjectItemCaseSensitive(artifact, "size")->valuedouble);
      cJSON const* item = nullptr;
      cJSON_ArrayForEach(item, cJSON_GetObjectItemCaseSensitive(artifact, "hashes")) {
        file.hashes[item->string] = item->valuestring;
      }
      cJSON_ArrayForEach(item, cJSON_GetObjectItemCaseSensitive(artifact, "_links")) {
        file.links[item->string] = text(item, "href");
      }
      entry.artifacts.push_back(file);
    }
    cJSON const* pair = nullptr;
    cJSON_ArrayForEach(pair, cJSON_GetObjectItemCaseSensitive(chunk, "metadata")) {
      entry.metadata.emplace_back(text(pair, "key"), text(pair, "value"));
    }
    deployment.chunks.push_back(entry);
  }
  cJSON const* past = cJSON_GetObjectItemCaseSensitive(root, "actionHistory");
  history.status = text(past, "status");
  cJSON const* message = nullptr;
  cJSON_ArrayForEach(message, cJSON_GetObjectItemCaseSensitive(past, "messages")) {
    history.messages.push_back(message->valuestring);
  }
  return deployment;
}

std::string const kBase = "https://management-api.host.com";
std::string const kController = "/TENANT_ID/controller/v1/CONTROLLER_ID";

TEST(DdiDocument, ConfirmationBaseIsHawkbitsToTheByte) {
  struct Case {
    char const* fixture;
    AutoConfirm state;
    char const* waiting;
  } const cases[] = {
      {"confirmation-base.json", {}, "10"},
      {"confirmation-base-auto-confirm-active.json",
       {true, "exampleUserId", "exampleRemark", 1694686108110LL},
       ""},
  };
  for (Case const& c : cases) {
    EXPECT_EQ(confirmationBaseJson(kBase, kController, c.state, c.waiting), compact(c.fixture))
        << c.fixture;
  }
}

TEST(DdiDocument, ActionDocumentsAreHawkbitsToTheByte) {
  struct Case {
    char const* fixture;
    char const* key;
  } const cases[] = {{"confirmation-base-action.json", "confirmation"},
                     {"installed-base.json", "deployment"},
                     {"deployment-base.json", "deployment"}};
  for (Case const& c : cases) {
    Json const root = fixture(c.fixture);
    ActionHistory history;
    DeploymentDocument const deployment = deploymentOf(root.get(), c.key, history);
    EXPECT_EQ(deploymentBaseJson(deployment, &history, c.key), compact(c.fixture)) << c.fixture;
  }
}

TEST(DdiDocument, ConfirmationBodies) {
  std::string const feedback =
      tamrel::testing::readFile(std::string(TAMREL_TEST_DATA) + "/feedback-confirmation.json");
  ConfirmationFeedback const sent = readConfirmationFeedback(feedback);
  EXPECT_TRUE(sent.valid && sent.confirmed && sent.hasCode && sent.code == 33);
  EXPECT_EQ(sent.details, std::vector<std::string>{"Feedback message"});
  AutoConfirmRequest const request = readAutoConfirmRequest(
      tamrel::testing::readFile(std::string(TAMREL_TEST_DATA) + "/activate-auto-confirm.json"));
  EXPECT_TRUE(request.valid && request.initiator == "exampleUser" &&
              request.remark == "exampleRemark");

  struct Case {
    char const* body;
    bool valid;
  } const confirmations[] = {
      {R"({"confirmation":"denied"})", true},
      {R"({"confirmation":"denied","code":null,"details":null})", true},
      {R"({"confirmation":"Confirmed"})", false},
      {R"({"code":1})", false},
      {R"({"confirmation":"denied","code":"1"})", false},
      {R"({"confirmation":"denied","details":[1]})", false},
      {"denied", false},
  };
  for (Case const& c : confirmations) {
    EXPECT_EQ(readConfirmationFeedback(c.body).valid, c.valid) << c.body;
  }
  Case const activations[] = {{"", true}, {"{}", true}, {R"({"remark":2})", false}, {"[]", false}};
  for (Case const& c : activations) {
    EXPECT_EQ(readAutoConfirmRequest(c.body).valid, c.valid) << c.body;
  }
  Case const versions[] = {{R"({"name":"linux","version":"1.2.3"})", true},
                           {R"({"name":"linux"})", false},
                           {R"({"name":"linux","version":1})", false}};
  for (Case const& c : versions) {
    EXPECT_EQ(readAssignedVersion(c.body).valid, c.valid) << c.body;
  }
}

}  // namespace
