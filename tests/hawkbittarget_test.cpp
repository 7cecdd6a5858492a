// The DDI server's device model through the confirmation flow and an
// installed base reported from the device: each step of a table is a
// request, its answer and what the server reports.
#include "ddiserver/hawkbittarget.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace {

using namespace tamrel::ddiserver;

std::string const kController = "/DEFAULT/controller/v1/dev01";

struct Step {
  char const* what;
  char const* method;
  char const* path;  // under the controller
  char const* body;
  int status;
  // Text the answer holds; "-": the answer has no body.
  std::vector<char const*> holds;
  std::vector<char const*> lacks;
  char const* event;  // the lines the server reports, joined by " | "
};

class HawkbitTargetTest : public ::testing::Test {
 protected:
  void start(bool confirmRequired) {
    HawkbitTarget::Options options;
    options.baseUrl = "http://h";
    options.controllerPath = kController;
    options.confirmRequired = confirmRequired;
    options.onEvent = [this](std::string const& line) { events_.push_back(line); };
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
      SCOPED_TRACE(step.what);
      events_.clear();
      RecordedRequest request;
      request.method = step.method;
      std::string const path = step.path;
      std::size_t const question = path.find('?');
      request.path = kController + path.substr(0, question);
      if (question != std::string::npos) request.query = path.substr(question + 1);
      request.body = step.body;
      DdiServer::Answer answer;
      ASSERT_TRUE(target_->answer(request, answer));
      EXPECT_EQ(answer.status, step.status);
      for (char const* text : step.holds) {
        if (std::string(text) == "-") {
          EXPECT_EQ(answer.body, "");
        } else {
          EXPECT_NE(answer.body.find(text), std::string::npos) << text << " in " << answer.body;
        }
      }
      for (char const* text : step.lacks) {
        EXPECT_EQ(answer.body.find(text), std::string::npos) << text << " in " << answer.body;
      }
      std::string reported;
      for (std::string const& line : events_) reported += (reported.empty() ? "" : " | ") + line;
      EXPECT_EQ(reported, step.event);
    }
  }

  std::unique_ptr<HawkbitTarget> target_;
  std::vector<std::string> events_;
};

std::string const kWaitingLink =
    "\"confirmationBase\":{\"href\":\"http://h" + kController + "/confirmationBase\"}";

TEST_F(HawkbitTargetTest, ActionWaitsUntilConfirmedAndDenialKeepsItWaiting) {
  start(true);
  assign("1");
  run({
      {"poll links confirmationBase only",
       "GET",
       "",
       "",
       200,
       {kWaitingLink.c_str()},
       {"deploymentBase"},
       ""},
      {"deploymentBase of a waiting action", "GET", "/deploymentBase/1", "", 404, {"-"}, {}, ""},
      {"confirmationBase links the action",
       "GET",
       "/confirmationBase",
       "",
       200,
       {"{\"autoConfirm\":{\"active\":false}", "/confirmationBase/activateAutoConfirm\"",
        "/confirmationBase/1?c="},
       {},
       ""},
      {"the action under \"confirmation\"",
       "GET",
       "/confirmationBase/1?actionHistory=5",
       "",
       200,
       {"\"confirmation\":{", "WAIT_FOR_CONFIRMATION", "Waiting for the confirmation"},
       {},
       ""},
      {"confirmation feedback it cannot read",
       "POST",
       "/confirmationBase/1/feedback",
       R"({"confirmation":"yes"})",
       400,
       {"hawkbit.server.error.rest.body.notReadable"},
       {},
       ""},
      {"confirmation for an unknown action",
       "POST",
       "/confirmationBase/7/feedback",
       R"({"confirmation":"confirmed"})",
       404,
       {"entitiyNotFound"},
       {},
       ""},
      {"denied",
       "POST",
       "/confirmationBase/1/feedback",
       R"({"confirmation":"denied","code":7,"details":["not now"]})",
       200,
       {"-"},
       {},
       "action 1 denied (code 7): not now"},
      {"a denied action is offered again",
       "GET",
       "",
       "",
       200,
       {kWaitingLink.c_str()},
       {"deploymentBase"},
       ""},
      {"confirmed",
       "POST",
       "/confirmationBase/1/feedback",
       R"({"confirmation":"confirmed","details":["by the driver"]})",
       200,
       {"-"},
       {},
       "action 1 confirmed: by the driver"},
      {"poll links the deployment",
       "GET",
       "",
       "",
       200,
       {"/deploymentBase/1?c="},
       {"confirmationBase"},
       ""},
      {"confirmationBase of an action no longer waiting",
       "GET",
       "/confirmationBase/1",
       "",
       404,
       {"-"},
       {},
       ""},
      {"history keeps the denial and the confirmation",
       "GET",
       "/deploymentBase/1?actionHistory=-1",
       "",
       200,
       {"\"RUNNING\"", "Device denied (code 7): not now", "Device confirmed: by the driver"},
       {},
       ""},
      {"closed",
       "POST",
       "/deploymentBase/1/feedback",
       R"({"status":{"execution":"closed","result":{"finished":"success"}}})",
       200,
       {},
       {},
       "action 1 closed: success"},
      {"confirmation feedback to a closed action",
       "POST",
       "/confirmationBase/1/feedback",
       R"({"confirmation":"confirmed"})",
       410,
       {"-"},
       {},
       ""},
  });
}

TEST_F(HawkbitTargetTest, AutoConfirmOnAndOff) {
  start(true);
  assign("1");
  run({
      {"a GET on a switch", "GET", "/confirmationBase/activateAutoConfirm", "", 405, {}, {}, ""},
      {"activated: the waiting action is confirmed",
       "POST",
       "/confirmationBase/activateAutoConfirm",
       R"({"initiator":"dev01","remark":"fleet"})",
       200,
       {"-"},
       {},
       "auto-confirm activated: initiator 'dev01', remark 'fleet' | action 1 confirmed: "
       "Assignment automatically confirmed by initiator 'dev01'"},
      {"the state in the answer",
       "GET",
       "/confirmationBase",
       "",
       200,
       {"\"active\":true,\"initiator\":\"dev01\",\"remark\":\"fleet\",\"activatedAt\":",
        "/confirmationBase/deactivateAutoConfirm\""},
       {"\"activateAutoConfirm\"", "/confirmationBase/1"},
       ""},
      {"the action runs",
       "GET",
       "/deploymentBase/1?actionHistory=1",
       "",
       200,
       {"Assignment automatically confirmed by initiator 'dev01'"},
       {},
       ""},
      {"activated twice",
       "POST",
       "/confirmationBase/activateAutoConfirm",
       "",
       409,
       {"autoConfirmationAlreadyActive"},
       {},
       ""},
      {"deactivated",
       "POST",
       "/confirmationBase/deactivateAutoConfirm",
       "",
       200,
       {"-"},
       {},
       "auto-confirm deactivated"},
      {"the state in the answer again",
       "GET",
       "/confirmationBase",
       "",
       200,
       {"{\"autoConfirm\":{\"active\":false},\"_links\":{\"activateAutoConfirm\""},
       {"initiator", "/confirmationBase/1"},
       ""},
  });
  assign("2");  // waits again
  run({{"a new action waits", "GET", "", "", 200, {kWaitingLink.c_str()}, {}, ""}});
}

TEST_F(HawkbitTargetTest, ActionsOfAnAutoConfirmingDeviceDoNotWait) {
  start(true);
  run({{"activated before",
        "POST",
        "/confirmationBase/activateAutoConfirm",
        "",
        200,
        {"-"},
        {},
        "auto-confirm activated: initiator '', remark ''"}});
  assign("1");
  run({{"poll links the deployment",
        "GET",
        "",
        "",
        200,
        {"/deploymentBase/1?c="},
        {"confirmationBase"},
        ""}});
}

TEST_F(HawkbitTargetTest, InstalledBaseReportedByTheDevice) {
  start(false);
  assign("4");
  run({
      {"an unknown version",
       "PUT",
       "/installedBase",
       R"({"name":"firmware","version":"9.9"})",
       404,
       {"entitiyNotFound", "firmware:9.9"},
       {},
       ""},
      {"no version",
       "PUT",
       "/installedBase",
       R"({"name":"firmware"})",
       400,
       {"notReadable"},
       {},
       ""},
      {"a GET without action", "GET", "/installedBase", "", 405, {}, {}, ""},
      {"the version it serves",
       "PUT",
       "/installedBase",
       R"({"name":"firmware","version":"1.0"})",
       200,
       {"-"},
       {},
       "installed base: firmware 1.0 (action 5)"},
      {"the poll links it", "GET", "", "", 200, {"/installedBase/5\""}, {}, ""},
      {"as an action finished",
       "GET",
       "/installedBase/5?actionHistory=1",
       "",
       200,
       {"\"FINISHED\"", "Installed offline: firmware 1.0", "\"name\":\"firmware\""},
       {},
       ""},
  });
}

}  // namespace
