#include "ddi/feedback_messages.h"

#include "ddi/cjson_owner.h"
#include "ddi/controller_url.h"
#include "ddi/feedback_time.h"
#include "io/logline.h"
#include "io/memoryio.h"
#include "io/nullhash.h"
#include "transport/curlmanager.h"

namespace {

// The name a status is sent as, from the one table of names; null for a
// value that has none or must not be sent ("uninitialized").
template <typename Status>
char const* statusWord(std::map<std::string, Status> const& names, Status status) {
  for (auto const& entry : names) {
    if (entry.second == status && entry.first != "uninitialized") return entry.first.c_str();
  }
  return nullptr;
}

// Adds "status": {"result": {...}, "execution": ..., "details": [...]} to
// `root`; `result` already holds what goes into "result" except "finished".
cJSON* addStatus(cJSON* root, cJSON* result, char const* finished, char const* execution) {
  cJSON* status = cJSON_CreateObject();
  cJSON_AddItemToObject(root, "status", status);
  cJSON_AddItemToObject(result, "finished", cJSON_CreateString(finished));
  cJSON_AddItemToObject(status, "result", result);
  cJSON_AddItemToObject(status, "execution", cJSON_CreateString(execution));
  cJSON* details = cJSON_CreateArray();
  cJSON_AddItemToObject(status, "details", details);
  return details;
}

std::shared_ptr<curlbuffer> bodyBuffer(std::string const& text) {
  return std::make_shared<curlbuffer>(std::make_unique<memoryio>(text),
                                      std::make_unique<nullhash>());
}

}  // namespace

bool update_feedback_body(hawkbit_query_t::deployment_t const& deployment, std::string const& time,
                          std::string& body) {
  char const* const finished = statusWord(finished_names, deployment.finished);
  if (finished == nullptr) {
    logLine("[E] libtamrelcore -> Unsupported software finishing status!\n");
    return false;
  }
  char const* const execution = statusWord(execution_names, deployment.execution);
  if (execution == nullptr) {
    logLine("[E] libtamrelcore -> Unsupported software execution status!\n");
    return false;
  }

  int completed = 0;
  for (auto const& chunk : deployment.chunks) completed += chunk.completed ? 1 : 0;

  cjson_tree root(cJSON_CreateObject());
  cJSON_AddItemToObject(root.get(), "id", cJSON_CreateString(deployment.id.c_str()));
  cJSON_AddItemToObject(root.get(), "time", cJSON_CreateString(time.c_str()));
  cJSON* result = cJSON_CreateObject();
  cJSON* progress = cJSON_CreateObject();
  cJSON_AddItemToObject(result, "progress", progress);
  cJSON_AddItemToObject(progress, "of", cJSON_CreateNumber(deployment.chunks.size()));
  cJSON_AddItemToObject(progress, "cnt", cJSON_CreateNumber(completed));
  cJSON* details = addStatus(root.get(), result, finished, execution);
  for (auto const& chunk : deployment.chunks) {
    for (auto const& line : chunk.details) {
      cJSON_AddItemToArray(details, cJSON_CreateString(line.c_str()));
    }
  }
  body = printUnformatted(root);
  return true;
}

std::string config_data_body(std::vector<tamrel::value_pair_t> const& attributes,
                             std::string const& time) {
  cjson_tree root(cJSON_CreateObject());
  cJSON_AddItemToObject(root.get(), "mode", cJSON_CreateString("merge"));
  cJSON* data = cJSON_CreateObject();
  cJSON_AddItemToObject(root.get(), "data", data);
  for (auto const& pair : attributes) {
    cJSON_AddItemToObject(data, pair.key.c_str(), cJSON_CreateString(pair.value.c_str()));
  }
  cJSON_AddItemToObject(root.get(), "id", cJSON_CreateString(""));
  cJSON_AddItemToObject(root.get(), "time", cJSON_CreateString(time.c_str()));
  addStatus(root.get(), cJSON_CreateObject(), "success", "closed");
  return printUnformatted(root);
}

std::string cancel_feedback_body(std::string const& actionId, std::string const& execution,
                                 std::string const& finished, std::string const& details,
                                 std::string const& time) {
  cjson_tree root(cJSON_CreateObject());
  cJSON_AddItemToObject(root.get(), "id", cJSON_CreateString(actionId.c_str()));
  cJSON_AddItemToObject(root.get(), "time", cJSON_CreateString(time.c_str()));
  cJSON* lines = addStatus(root.get(), cJSON_CreateObject(), finished.c_str(), execution.c_str());
  cJSON_AddItemToArray(lines, cJSON_CreateString(details.c_str()));
  return printUnformatted(root);
}

bool send_update_feedback(CurlManager& transport, std::weak_ptr<lookup> const& properties,
                          hawkbit_query_t::deployment_t const& deployment) {
  if (deployment.chunks.empty()) return false;
  std::string const url = build_feedback_url(properties, deployment.id);
  if (url.empty()) return false;
  std::string text;
  if (!update_feedback_body(deployment, feedbackTime(), text)) return false;
  return transport.post(url, bodyBuffer(text));
}

bool send_config_data(CurlManager& transport,
                      std::unordered_map<std::string, std::string> const& links,
                      std::vector<tamrel::value_pair_t> const& attributes) {
  auto const link = links.find("configData");
  if (link == links.end()) {
    logLine("[E] libtamrelcore -> %s not retrieved by the server\n", "configData");
    return false;
  }
  std::string const& url = link->second;
  if (url.empty()) {
    logLine("[E] libtamrelcore -> Cannot send config data - URL is missing\n");
    return false;
  }
  return transport.put(url, bodyBuffer(config_data_body(attributes, feedbackTime())));
}

bool send_cancel_action_feedback(CurlManager& transport, std::string const& url,
                                 std::string const& actionId, std::string const& execution,
                                 std::string const& finished, std::string const& details) {
  if (url.empty()) {
    logLine("[W] libtamrelcore -> Cannot send cancel action feedback - URL is missing\n");
    return false;
  }
  return transport.post(
      url + "/feedback",
      bodyBuffer(cancel_feedback_body(actionId, execution, finished, details, feedbackTime())));
}
