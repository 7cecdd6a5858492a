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

// The entries named in `first` in that order (hawkBit's), then the others.
std::vector<std::pair<std::string, std::string>> inHawkbitOrder(
    std::map<std::string, std::string> const& entries, std::initializer_list<char const*> first) {
  std::vector<std::pair<std::string, std::string>> ordered;
  for (char const* name : first) {
    if (auto const it = entries.find(name); it != entries.end()) ordered.emplace_back(*it);
  }
  for (auto const& entry : entries) {
    if (!oneOf(entry.first, first)) ordered.emplace_back(entry);
  }
  return ordered;
}

}  // namespace

std::string deploymentBaseJson(DeploymentDocument const& deployment, ActionHistory const* history,
                               char const* key) {
  Json root = object();
  addString(root.get(), "id", deployment.id);
  cJSON* body = cJSON_CreateObject();
  cJSON_AddItemToObject(root.get(), key, body);
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
      for (auto const& [kind, digest] : inHawkbitOrder(artifact.hashes, {"sha1", "md5", "sha256"}))
        addString(hashes, kind.c_str(), digest);
      // Exact as a double up to 2^53, which is what JSON readers keep.
      cJSON_AddItemToObject(entry, "size", cJSON_CreateNumber(static_cast<double>(artifact.size)));
      cJSON* links = cJSON_CreateObject();
      cJSON_AddItemToObject(entry, "_links", links);
      for (auto const& [name, href] :
           inHawkbitOrder(artifact.links, {"download", "download-http", "md5sum-http", "md5sum"}))
        addLink(links, name.c_str(), href);
    }
    if (!chunk.metadata.empty()) {
      cJSON* metadata = cJSON_CreateArray();
      cJSON_AddItemToObject(item, "metadata", metadata);
      for (auto const& [name, value] : chunk.metadata) {
        cJSON* entry = cJSON_CreateObject();
        cJSON_AddItemToArray(metadata, entry);
        addString(entry, "key", name);
        addString(entry, "value", value);
      }
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
                               std::string const& installedActionId, bool confirmationBase) {
  std::string const base = baseUrl + controllerPath;
  Json root = object();
  cJSON* config = cJSON_CreateObject();
  cJSON_AddItemToObject(root.get(), "config", config);
  cJSON* polling = cJSON_CreateObject();
  cJSON_AddItemToObject(config, "polling", polling);
  addString(polling, "sleep", sleep);
  if (!deploymentActionId.empty() || !cancelActionId.empty() || configData ||
      !installedActionId.empty() || confirmationBase) {
    cJSON* links = cJSON_CreateObject();
    cJSON_AddItemToObject(root.get(), "_links", links);
    if (confirmationBase) addLink(links, "confirmationBase", base + "/confirmationBase");
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

std::string confirmationBaseJson(std::string const& baseUrl, std::string const& controllerPath,
                                 AutoConfirm const& state, std::string const& waitingActionId) {
  std::string const base = baseUrl + controllerPath + "/confirmationBase";
  Json root = object();
  cJSON* autoConfirm = cJSON_CreateObject();
  cJSON_AddItemToObject(root.get(), "autoConfirm", autoConfirm);
  cJSON_AddItemToObject(autoConfirm, "active", cJSON_CreateBool(state.active));
  if (state.active) {
    if (!state.initiator.empty()) addString(autoConfirm, "initiator", state.initiator);
    if (!state.remark.empty()) addString(autoConfirm, "remark", state.remark);
    cJSON_AddItemToObject(autoConfirm, "activatedAt",
                          cJSON_CreateNumber(static_cast<double>(state.activatedAt)));
  }
  cJSON* links = cJSON_CreateObject();
  cJSON_AddItemToObject(root.get(), "_links", links);
  if (state.active) {
    addLink(links, "deactivateAutoConfirm", base + "/deactivateAutoConfirm");
  } else {
    addLink(links, "activateAutoConfirm", base + "/activateAutoConfirm");
  }
  if (!waitingActionId.empty()) {
    addLink(links, "confirmationBase", base + "/" + waitingActionId + "?c=-2122565939");
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
    cJSON const* cnt = cJSON_GetObjectItemCaseSensitive(progress, "cnt");
    // hawkBit reads both as Java ints.
    auto const integer = [](cJSON const* item) {
      return cJSON_IsNumber(item) && item->valuedouble >= -2147483648.0 &&
             item->valuedouble <= 2147483647.0;
    };
    if (!cJSON_IsObject(progress) || !integer(cnt) ||
        (of != nullptr && !integer(of) && !cJSON_IsNull(of)))
      return refuse("\"progress\" needs a number \"cnt\"");
    feedback.hasProgress = true;
    feedback.progress.cnt = static_cast<long long>(cnt->valuedouble);
    if (cJSON_IsNumber(of)) feedback.progress.of = static_cast<long long>(of->valuedouble);
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

namespace {

// A list of strings, or absent or null; false for anything else.
bool readDetails(cJSON const* details, std::vector<std::string>& out) {
  if (details == nullptr || cJSON_IsNull(details)) return true;
  if (!cJSON_IsArray(details)) return false;
  cJSON const* line = nullptr;
  cJSON_ArrayForEach(line, details) {
    if (!cJSON_IsString(line)) return false;
    out.push_back(line->valuestring);
  }
  return true;
}

// A string member, or absent or null (left ""); false for anything else.
bool readOptionalString(cJSON const* root, char const* name, std::string& out) {
  cJSON const* item = cJSON_GetObjectItemCaseSensitive(root, name);
  if (item == nullptr || cJSON_IsNull(item)) return true;
  if (!cJSON_IsString(item)) return false;
  out = item->valuestring;
  return true;
}

}  // namespace

ConfirmationFeedback readConfirmationFeedback(std::string const& body) {
  ConfirmationFeedback feedback;
  Json const root(cJSON_Parse(body.c_str()), cJSON_Delete);
  auto const refuse = [&feedback](std::string reason) {
    feedback.error = std::move(reason);
    return feedback;
  };
  if (!cJSON_IsObject(root.get())) return refuse("the body is no JSON object");
  cJSON const* confirmation = cJSON_GetObjectItemCaseSensitive(root.get(), "confirmation");
  if (!cJSON_IsString(confirmation)) return refuse("\"confirmation\" is missing");
  std::string const value = confirmation->valuestring;
  if (!oneOf(value, {"confirmed", "denied"}))
    return refuse("unknown confirmation \"" + value + "\"");
  feedback.confirmed = value == "confirmed";
  cJSON const* code = cJSON_GetObjectItemCaseSensitive(root.get(), "code");
  if (cJSON_IsNumber(code)) {
    feedback.hasCode = true;
    feedback.code = static_cast<long long>(code->valuedouble);
  } else if (code != nullptr && !cJSON_IsNull(code)) {
    return refuse("\"code\" is no number");
  }
  if (!readDetails(cJSON_GetObjectItemCaseSensitive(root.get(), "details"), feedback.details))
    return refuse("\"details\" is no list of strings");
  feedback.valid = true;
  return feedback;
}

AutoConfirmRequest readAutoConfirmRequest(std::string const& body) {
  AutoConfirmRequest request;
  if (body.find_first_not_of(" \t\r\n") == std::string::npos) {
    request.valid = true;
    return request;
  }
  Json const root(cJSON_Parse(body.c_str()), cJSON_Delete);
  if (!cJSON_IsObject(root.get())) {
    request.error = "the body is no JSON object";
  } else if (!readOptionalString(root.get(), "initiator", request.initiator) ||
             !readOptionalString(root.get(), "remark", request.remark)) {
    request.error = "\"initiator\" and \"remark\" must be strings";
  } else {
    request.valid = true;
  }
  return request;
}

AssignedVersion readAssignedVersion(std::string const& body) {
  AssignedVersion version;
  Json const root(cJSON_Parse(body.c_str()), cJSON_Delete);
  cJSON const* name = cJSON_GetObjectItemCaseSensitive(root.get(), "name");
  cJSON const* number = cJSON_GetObjectItemCaseSensitive(root.get(), "version");
  if (!cJSON_IsObject(root.get())) {
    version.error = "the body is no JSON object";
  } else if (!cJSON_IsString(name) || !cJSON_IsString(number)) {
    version.error = "\"name\" and \"version\" are required strings";
  } else {
    version.name = name->valuestring;
    version.version = number->valuestring;
    version.valid = true;
  }
  return version;
}

}  // namespace tamrel::ddiserver
