#include "testserver/ddidocument.h"

#include <cjson/cJSON.h>

#include <memory>

namespace tamrel::testing {
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

std::string text(cJSON const* object, char const* key) {
  cJSON const* item = cJSON_GetObjectItemCaseSensitive(object, key);
  return cJSON_IsString(item) ? item->valuestring : std::string();
}

}  // namespace

std::string deploymentBaseJson(DeploymentDocument const& deployment) {
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
                               std::string const& cancelActionId, bool configData) {
  std::string const base = baseUrl + controllerPath;
  Json root = object();
  cJSON* config = cJSON_CreateObject();
  cJSON_AddItemToObject(root.get(), "config", config);
  cJSON* polling = cJSON_CreateObject();
  cJSON_AddItemToObject(config, "polling", polling);
  addString(polling, "sleep", sleep);
  if (!deploymentActionId.empty() || !cancelActionId.empty() || configData) {
    cJSON* links = cJSON_CreateObject();
    cJSON_AddItemToObject(root.get(), "_links", links);
    if (!deploymentActionId.empty()) {
      addLink(links, "deploymentBase",
              base + "/deploymentBase/" + deploymentActionId + "?c=-2122565939");
    }
    if (!cancelActionId.empty())
      addLink(links, "cancelAction", base + "/cancelAction/" + cancelActionId);
    if (configData) addLink(links, "configData", base + "/configData");
  }
  return print(root);
}

Feedback readFeedback(std::string const& body) {
  Feedback feedback;
  Json const root(cJSON_Parse(body.c_str()), cJSON_Delete);
  cJSON const* status = cJSON_GetObjectItemCaseSensitive(root.get(), "status");
  cJSON const* result = cJSON_GetObjectItemCaseSensitive(status, "result");
  if (!cJSON_IsObject(status) || !cJSON_IsObject(result)) return feedback;
  feedback.valid = true;
  feedback.execution = text(status, "execution");
  feedback.finished = text(result, "finished");
  cJSON const* line = nullptr;
  cJSON_ArrayForEach(line, cJSON_GetObjectItemCaseSensitive(status, "details")) {
    if (cJSON_IsString(line)) feedback.details.push_back(line->valuestring);
  }
  return feedback;
}

ConfigData readConfigData(std::string const& body) {
  ConfigData config;
  Json const root(cJSON_Parse(body.c_str()), cJSON_Delete);
  cJSON const* data = cJSON_GetObjectItemCaseSensitive(root.get(), "data");
  if (!cJSON_IsObject(data)) return config;
  config.valid = true;
  cJSON const* entry = nullptr;
  cJSON_ArrayForEach(entry, data) {
    config.data[entry->string] = cJSON_IsString(entry) ? entry->valuestring : std::string();
  }
  return config;
}

std::string hex(unsigned char const* bytes, std::size_t n) {
  static char const digits[] = "0123456789abcdef";
  std::string text;
  for (std::size_t i = 0; i < n; ++i) {
    text += digits[bytes[i] >> 4];
    text += digits[bytes[i] & 15];
  }
  return text;
}

}  // namespace tamrel::testing
