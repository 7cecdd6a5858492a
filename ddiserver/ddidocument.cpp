#include "ddiserver/ddidocument.h"

#include <cjson/cJSON.h>

#include <initializer_list>
#include <memory>

namespace tamrel::ddiserver {
namespace {

using Json = std::unique_ptr<cJSON, void (*)(cJSON*)>;

Json object() { return Json(cJSON_CreateObject(), cJSON_Delete); }

std::string print(Json const& json) {
  std::unique_ptr<char, void (*)(void*)> const text(cJSON_PrintUnformatted(json.get()), cJSON_free);
  return text ? std::string(text.get()) : std::string();
}

void addString(cJSON* to, char const* key, std::string const& value) {
  cJSON_AddItemToObject(to, key, cJSON_CreateString(value.c_str()));
}

void addLink(cJSON* links, char const* name, std::string const& href) {
  cJSON* link = cJSON_CreateObject();
  addString(link, "href", href);
  cJSON_AddItemToObject(links, name, link);
}

bool oneOf(std::string const& value, std::initializer_list<char const*> names) {
  for (char const* name : names) {
    if (value == name) return true;
  }
  return false;
}

}  // namespace

std::string deploymentBaseJson(DeploymentDocument const& deployment, ActionHistory const* history) {
  Json root = object();
  addString(root.get(), "id", deployment.id);
  cJSON* body = cJSON_CreateObject();
  cJSON_AddItemToObject(root.get(), "deployment", body);
  addString(body, "download", deployment.download);
  addString(body, "update", deployment.update);
  if (!deployment.maintenanceWindow.empty()) {
    addString(body, "maintenanceWindow", deployment.maintenanceWindow);
  }
  cJSON* chunks = cJSON_CreateArray();
  cJSON_AddItemToObject(body, "chunks", chunks);
  for (auto const& chunk : deployment.chunks) {
    cJSON* item = cJSON_CreateObject();
    cJSON_AddItemToArray(chunks, item);
    addString(item, "part", chunk.part);
    addString(item, "version", chunk.version);
    addString(item, "name", chunk.name);
    cJSON* artifacts = cJSON_CreateArray();
    cJSON_AddItemToObject(item, "artifacts", artifacts);
    if (chunk.emptyArtifactFirst) cJSON_AddItemToArray(artifacts, cJSON_CreateObject());
    for (auto const& artifact : chunk.artifacts) {
      cJSON* entry = cJSON_CreateObject();
      cJSON_AddItemToArray(artifacts, entry);
      addString(entry, "filename", artifact.filename);
      cJSON* hashes = cJSON_CreateObject();
      cJSON_AddItemToObject(entry, "hashes", hashes);
      for (auto const& [kind, digest] : artifact.hashes) addString(hashes, kind.c_str(), digest);
      // Exact as a double up to 2^53, which is what JSON readers keep.
      cJSON_AddItemToObject(entry, "size", cJSON_CreateNumber(static_cast<double>(artifact.size)));
      cJSON* links = cJSON_CreateObject();
      cJSON_AddItemToObject(entry, "_links", links);
      for (auto const& [name, href] : artifact.links) addLink(links, name.c_str(), href);
    }
  }
  if (history != nullptr) {
    cJSON* item = cJSON_CreateObject();
    cJSON_AddItemToObject(root.get(), "actionHistory", item);
    addString(item, "status", history->status);
    cJSON* messages = cJSON_CreateArray();
    cJSON_AddItemToObject(item, "messages", messages);
    for (auto const& message : history->messages) {
      cJSON_AddItemToArray(messages, cJSON_CreateString(message.c_str()));
    }
  }
  return print(root);
}

std::string cancelActionJson(std::string const& id, std::string const& stopId) {
  Json root = object();
  addString(root.get(), "id", id);
  cJSON* cancel = cJSON_CreateObject();
  cJSON_AddItemToObject(root.get(), "cancelAction", cancel);
  addString(cancel, "stopId", stopId);
  return print(root);
}

std::string exceptionInfoJson(std::string const& exceptionClass, std::string const& errorCode,
                              std::string const& message) {
  Json root = object();
  addString(root.get(), "exceptionClass", exceptionClass);
  addString(root.get(), "errorCode", errorCode);
  addString(root.get(), "message", message);
  cJSON_AddItemToObject(root.get(), "parameters", cJSON_CreateArray());
  return print(root);
}

std::string controllerBaseJson(std::string const& baseUrl, std::string const& controllerPath,
                               std::string const& sleep, std::string const& deploymentActionId,
                               std::string const& cancelActionId, bool configData,
                               std::string const& installedActionId) {
  std::string const base = baseUrl + controllerPath;
  Json root = object();
  cJSON* config = cJSON_CreateObject();
  cJSON_AddItemToObject(root.get(), "config", config);
  cJSON* polling = cJSON_CreateObject();
  cJSON_AddItemToObject(config, "polling", polling);
  addString(polling, "sleep", sleep);
  if (!deploymentActionId.empty() || !cancelActionId.empty() || configData ||
      !installedActionId.empty()) {
    cJSON* links = cJSON_CreateObject();
    cJSON_AddItemToObject(root.get(), "_links", links);
    if (!deploymentActionId.empty()) {
      addLink(links, "deploymentBase",
              base + "/deploymentBase/" + deploymentActionId + "?c=-2122565939");
    }
    if (!cancelActionId.empty())
      addLink(links, "cancelAction", base + "/cancelAction/" + cancelActionId);
    if (!installedActionId.empty())
      addLink(links, "installedBase", base + "/installedBase/" + installedActionId);
    if (configData) addLink(links, "configData", base + "/configData");
  }
  return print(root);
}

Feedback readFeedback(std::string const& body) {
  Feedback feedback;
  Json const root(cJSON_Parse(body.c_str()), cJSON_Delete);
  auto const refuse = [&feedback](std::string reason) {
    feedback.error = std::move(reason);
    return feedback;
  };
  if (!cJSON_IsObject(root.get())) return refuse("the body is no JSON object");
  cJSON const* status = cJSON_GetObjectItemCaseSensitive(root.get(), "status");
  if (!cJSON_IsObject(status)) return refuse("\"status\" is missing");
  cJSON const* execution = cJSON_GetObjectItemCaseSensitive(status, "execution");
  cJSON const* result = cJSON_GetObjectItemCaseSensitive(status, "result");
  cJSON const* finished = cJSON_GetObjectItemCaseSensitive(result, "finished");
  if (!cJSON_IsString(execution)) return refuse("\"status.execution\" is missing");
  if (!cJSON_IsObject(result) || !cJSON_IsString(finished))
    return refuse("\"status.result.finished\" is missing");
  feedback.execution = execution->valuestring;
  feedback.finished = finished->valuestring;
  if (!oneOf(feedback.execution, {"closed", "proceeding", "canceled", "scheduled", "rejected",
                                  "resumed", "downloaded", "download"}))
    return refuse("unknown execution \"" + feedback.execution + "\"");
  if (!oneOf(feedback.finished, {"success", "failure", "none"}))
    return refuse("unknown result \"" + feedback.finished + "\"");
  cJSON const* progress = cJSON_GetObjectItemCaseSensitive(result, "progress");
  if (progress != nullptr && !cJSON_IsNull(progress)) {
    cJSON const* of = cJSON_GetObjectItemCaseSensitive(progress, "of");
    if (!cJSON_IsObject(progress) ||
        !cJSON_IsNumber(cJSON_GetObjectItemCaseSensitive(progress, "cnt")) ||
        (of != nullptr && !cJSON_IsNumber(of) && !cJSON_IsNull(of)))
      return refuse("\"progress\" needs a number \"cnt\"");
  }
  cJSON const* code = cJSON_GetObjectItemCaseSensitive(status, "code");
  if (code != nullptr && !cJSON_IsNumber(code) && !cJSON_IsNull(code))
    return refuse("\"code\" is no number");
  cJSON const* details = cJSON_GetObjectItemCaseSensitive(status, "details");
  if (details != nullptr && !cJSON_IsNull(details)) {
    if (!cJSON_IsArray(details)) return refuse("\"details\" is no list");
    cJSON const* line = nullptr;
    cJSON_ArrayForEach(line, details) {
      if (!cJSON_IsString(line)) return refuse("\"details\" holds a value that is no string");
      feedback.details.push_back(line->valuestring);
    }
  }
  feedback.valid = true;
  return feedback;
}

ConfigData readConfigData(std::string const& body) {
  ConfigData config;
  Json const root(cJSON_Parse(body.c_str()), cJSON_Delete);
  auto const refuse = [&config](std::string reason) {
    config.error = std::move(reason);
    return config;
  };
  cJSON const* data = cJSON_GetObjectItemCaseSensitive(root.get(), "data");
  if (!cJSON_IsObject(data)) return refuse("\"data\" is missing");
  cJSON const* mode = cJSON_GetObjectItemCaseSensitive(root.get(), "mode");
  if (mode != nullptr && !cJSON_IsNull(mode) &&
      !(cJSON_IsString(mode) && oneOf(mode->valuestring, {"merge", "replace", "remove"})))
    return refuse("unknown \"mode\"");
  cJSON const* entry = nullptr;
  cJSON_ArrayForEach(entry, data) {
    std::string value;
    if (cJSON_IsString(entry)) {
      value = entry->valuestring;
    } else if (cJSON_IsNumber(entry)) {
      value = std::to_string(entry->valuedouble);
    } else {
      return refuse("the value of \"" + std::string(entry->string) + "\" is no string");
    }
    if (std::string(entry->string).size() > 128 || value.size() > 128)
      return refuse("\"" + std::string(entry->string).substr(0, 32) + "\" is over 128 characters");
    config.data[entry->string] = value;
  }
  if (config.data.empty()) return refuse("no attributes");
  config.valid = true;
  return config;
}

}  // namespace tamrel::ddiserver
