// The DDI server's device model through the confirmation flow and an
// installed base reported from the device: each row of a table is a
// request, its answer and the lines the server reports.
#include "ddiserver/hawkbittarget.h"

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

namespace {

using namespace tamrel::ddiserver;

struct Step {
  char const* request;  // "METHOD path-under-the-controller[?query]"
  char const* body;
  int status;
  char const* holds;  // texts the answer holds, split by " && "; "-": no body
  char const* lacks;  // a text it does not hold, "" for none
  char const* event;  // the lines reported, joined by " | "
};

class HawkbitTargetTest : public ::testing::Test {
 protected:
  void start(bool confirmRequired) {
    HawkbitTarget::Options options;
    options.baseUrl = "http://h";
    options.controllerPath = "/DEFAULT/controller/v1/dev01";
    options.confirmRequired = confirmRequired;
    options.onEvent = [this](std::string const& line) {
      events_ += (events_.empty() ? "" : " | ") + line;
    };
    target_ = std::make_unique<HawkbitTarget>(options);
  }
  void assign(std::string const& id) {
    DeploymentDocument deployment;
    deployment.id = id;
    deployment.chunks.push_back({"os", "1.0", "firmware", {}});
    target_->assign(deployment);
  }
  void run(std::vector<Step> const& steps) {
    for (Step const& step : steps) {
      SCOPED_TRACE(step.request);
      events_.clear();
      std::string const line = step.request;
      std::size_t const space = line.find(' '), question = line.find('?');
      RecordedRequest request;
      request.method = line.substr(0, space);
      request.path = "/DEFAULT/controller/v1/dev01" + line.substr(space + 1, question - space - 1);
      if (question != std::string::npos) request.query = line.substr(question + 1);
      request.body = step.body;
      DdiServer::Answer answer;
      ASSERT_TRUE(target_->answer(request, answer));
      EXPECT_EQ(answer.status, step.status);
      std::string const holds = step.holds;
      for (std::size_t at = 0; at < holds.size();) {
        std::size_t const end = std::min(holds.find(" && ", at), holds.size());
        std::string const text = holds.substr(at, end - at);
        if (text == "-") {
          EXPECT_EQ(answer.body, "");
        } else {
          EXPECT_NE(answer.body.find(text), std::string::npos) << text << " in " << answer.body;
        }
        at = end + 4;
      }
      if (*step.lacks) {
        EXPECT_EQ(answer.body.find(step.lacks), std::string::npos) << answer.body;
      }
      EXPECT_EQ(events_, step.event);
    }
  }

  std::unique_ptr<HawkbitTarget> target_;
  std::string events_;
};

// clang-format off
TEST_F(HawkbitTargetTest, ActionWaitsUntilConfirmedAndDenialKeepsItWaiting) {
  start(true);
  assign("1");
  run({
      {"GET ", "", 200, "\"confirmationBase\":{\"href\":\"http://h/DEFAULT/controller/v1/dev01/confirmationBase\"}",
       "deploymentBase", ""},
      {"GET /deploymentBase/1", "", 404, "-", "", ""},
      {"GET /confirmationBase", "", 200,
       "{\"autoConfirm\":{\"active\":false} && /confirmationBase/activateAutoConfirm\" && /confirmationBase/1?c=", "", ""},
      {"GET /confirmationBase/1?actionHistory=5", "", 200,
       "\"confirmation\":{ && WAIT_FOR_CONFIRMATION && Waiting for the confirmation", "", ""},
      {"POST /confirmationBase/7/feedback", R"({"confirmation":"confirmed"})", 404, "entitiyNotFound", "", ""},
      {"POST /confirmationBase/1/feedback", R"({"confirmation":"maybe"})", 400, "notReadable", "", ""},
      {"POST /confirmationBase/1/feedback", R"({"confirmation":"denied","code":7,"details":["not now"]})", 200, "-",
       "", "action 1 denied (code 7): not now"},
      {"GET ", "", 200, "/confirmationBase\"", "deploymentBase", ""},
      {"POST /confirmationBase/1/feedback", R"({"confirmation":"confirmed","details":["by the driver"]})", 200, "-",
       "", "action 1 confirmed: by the driver"},
      {"GET ", "", 200, "/deploymentBase/1?c=", "confirmationBase", ""},
      {"GET /confirmationBase/1", "", 404, "-", "", ""},
      {"GET /deploymentBase/1?actionHistory=-1", "", 200,
       "\"RUNNING\" && Device denied (code 7): not now && Device confirmed: by the driver", "", ""},
      {"POST /deploymentBase/1/feedback", R"({"status":{"execution":"closed","result":{"finished":"success"}}})",
       200, "", "", "action 1 closed: success"},
      {"POST /confirmationBase/1/feedback", R"({"confirmation":"confirmed"})", 410, "-", "", ""},
  });
}

TEST_F(HawkbitTargetTest, AutoConfirmOnAndOff) {
  start(true);
  assign("1");
  run({
      {"GET /confirmationBase/activateAutoConfirm", "", 405, "", "", ""},
      {"POST /confirmationBase/activateAutoConfirm", R"({"initiator":"dev01","remark":"fleet"})", 200, "-", "",
       "auto-confirm activated: initiator 'dev01', remark 'fleet' | "
       "action 1 confirmed: Assignment automatically confirmed by initiator 'dev01'"},
      {"GET /confirmationBase", "", 200,
       "\"active\":true,\"initiator\":\"dev01\",\"remark\":\"fleet\",\"activatedAt\": && "
       "/confirmationBase/deactivateAutoConfirm\"", "/confirmationBase/1", ""},
      {"GET /deploymentBase/1?actionHistory=1", "", 200, "Assignment automatically confirmed by initiator 'dev01'",
       "", ""},
      {"POST /confirmationBase/activateAutoConfirm", "", 409, "autoConfirmationAlreadyActive", "", ""},
      {"POST /confirmationBase/deactivateAutoConfirm", "", 200, "-", "", "auto-confirm deactivated"},
      {"GET /confirmationBase", "", 200, "{\"autoConfirm\":{\"active\":false},\"_links\":{\"activateAutoConfirm\"",
       "initiator", ""},
  });
  assign("2");
  run({{"GET ", "", 200, "/confirmationBase\"", "deploymentBase", ""}});
  run({{"POST /confirmationBase/activateAutoConfirm", "", 200, "-", "",
        "auto-confirm activated: initiator '', remark '' | "
        "action 2 confirmed: Assignment automatically confirmed by initiator ''"}});
  assign("3");  // does not wait while auto-confirm is on
  run({{"GET ", "", 200, "/deploymentBase/3?c=", "confirmationBase", ""}});
}

TEST_F(HawkbitTargetTest, InstalledBaseReportedByTheDevice) {
  start(false);
  assign("4");
  run({
      {"PUT /installedBase", R"({"name":"firmware","version":"9.9"})", 404, "entitiyNotFound && firmware:9.9", "", ""},
      {"PUT /installedBase", R"({"name":"firmware"})", 400, "notReadable", "", ""},
      {"GET /installedBase", "", 405, "", "", ""},
      {"PUT /installedBase", R"({"name":"firmware","version":"1.0"})", 200, "-", "",
       "installed base: firmware 1.0 (action 5)"},
      {"GET ", "", 200, "/installedBase/5\"", "", ""},
      {"GET /installedBase/5?actionHistory=1", "", 200,
       "\"FINISHED\" && Installed offline: firmware 1.0 && \"name\":\"firmware\"", "", ""},
  });
}

// hawkBit shows a "proceeding" feedback's progress in the action's history;
// the server reports it and keeps it per action.
TEST_F(HawkbitTargetTest, ProceedingProgressReportedAndKept) {
  start(false);
  assign("1");
  run({
      {"POST /deploymentBase/1/feedback",
       R"({"status":{"execution":"proceeding","result":{"finished":"none","progress":{"cnt":1,"of":3}}}})",
       200, "", "", "action 1: feedback proceeding 1 of 3"},
      {"POST /deploymentBase/1/feedback", R"({"status":{"execution":"proceeding","result":{"finished":"none"}}})",
       200, "", "", ""},
      {"POST /deploymentBase/1/feedback",
       R"({"status":{"execution":"proceeding","result":{"finished":"none","progress":{"cnt":2}}}})",
       200, "", "", "action 1: feedback proceeding 2"},
      {"POST /deploymentBase/1/feedback",
       R"({"status":{"execution":"proceeding","result":{"finished":"none","progress":{"cnt":4294967296}}}})",
       400, "notReadable", "", ""},
  });
  std::vector<Progress> const kept = target_->progress("1");
  ASSERT_EQ(kept.size(), 2u);
  EXPECT_EQ(kept[0].cnt * 10 + kept[0].of, 13);
  EXPECT_EQ(kept[1].cnt * 10 + kept[1].of, 20);
  EXPECT_TRUE(target_->progress("2").empty());
}
// clang-format on

}  // namespace
