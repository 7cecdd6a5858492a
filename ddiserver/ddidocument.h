// The DDI documents the test servers and the demo serve, built with cJSON,
// and readers for the bodies devices send. One place for hawkBit's shapes.
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <utility>
#include <vector>

namespace tamrel::ddiserver {

struct ArtifactDocument {
  std::string filename;
  std::uint64_t size = 0;
  std::map<std::string, std::string> hashes;  // "sha1", "md5", "sha256" -> hex
  std::map<std::string, std::string> links;   // "download", "download-http", ... -> URL
};

struct ChunkDocument {
  std::string part = "os", version = "1.0", name;
  std::vector<ArtifactDocument> artifacts;
  // An artifact element without members first in the list, which ends the
  // list for a reader that stops at an element it cannot read.
  bool emptyArtifactFirst = false;
  std::vector<std::pair<std::string, std::string>> metadata = {};  // key, value; when any
};

struct DeploymentDocument {
  std::string id;
  std::string download = "forced", update = "forced";
  std::string maintenanceWindow;  // "available", "unavailable", "" for none
  std::vector<ChunkDocument> chunks;
};

// The messages of an action as hawkBit adds them on "?actionHistory=N":
// its status in upper case ("RUNNING", "FINISHED", ...) and the messages,
// newest first.
struct ActionHistory {
  std::string status;
  std::vector<std::string> messages;
};

// A deploymentBase document; with a history also an installedBase document,
// which has the same shape. `key` names the member holding the deployment:
// "confirmation" makes the document of an action waiting for confirmation.
std::string deploymentBaseJson(DeploymentDocument const& deployment,
                               ActionHistory const* history = nullptr,
                               char const* key = "deployment");
std::string cancelActionJson(std::string const& id, std::string const& stopId);
// hawkBit's error document (ExceptionInfo).
std::string exceptionInfoJson(std::string const& exceptionClass, std::string const& errorCode,
                              std::string const& message);

// A controller base document in hawkBit's shape: the polling sleep
// ("HH:MM:SS") and _links to confirmationBase while an action waits for
// confirmation, deploymentBase (with a "?c=" query as hawkBit sends it),
// cancelAction, installedBase and configData as asked.
std::string controllerBaseJson(std::string const& baseUrl, std::string const& controllerPath,
                               std::string const& sleep, std::string const& deploymentActionId,
                               std::string const& cancelActionId, bool configData,
                               std::string const& installedActionId = "",
                               bool confirmationBase = false);

// The device's auto-confirm state as the server keeps it.
struct AutoConfirm {
  bool active = false;
  std::string initiator, remark;  // "" when not given
  long long activatedAt = 0;      // ms since the epoch
};

// The confirmationBase document: the auto-confirm state, the link that
// switches it, and the link to the action waiting for confirmation ("" for
// none).
std::string confirmationBaseJson(std::string const& baseUrl, std::string const& controllerPath,
                                 AutoConfirm const& state, std::string const& waitingActionId);

// A feedback's "progress": `cnt` steps of `of` (0 when not given) done.
struct Progress {
  long long cnt = 0, of = 0;
};

// What a feedback body says. `valid` is false, with the reason in `error`,
// for a body hawkBit refuses: no JSON object, no status, execution or
// result.finished, a value outside hawkBit's enumerations, or progress,
// details or code of the wrong type. Unknown members are ignored.
struct Feedback {
  bool valid = false;
  std::string error;
  std::string execution, finished;
  std::vector<std::string> details;
  bool hasProgress = false;
  Progress progress;
};
Feedback readFeedback(std::string const& body);

// The attributes of a configData body; `valid` false, with the reason in
// `error`, when "data" is no object of strings or numbers, when it is empty
// or a key or value is over 128 characters, or "mode" is unknown.
struct ConfigData {
  bool valid = false;
  std::string error;
  std::map<std::string, std::string> data;
};
ConfigData readConfigData(std::string const& body);

// A confirmation feedback: "confirmation" is "confirmed" or "denied";
// "code" a number and "details" a list of strings when given.
struct ConfirmationFeedback {
  bool valid = false;
  std::string error;
  bool confirmed = false;
  bool hasCode = false;
  long long code = 0;
  std::vector<std::string> details;
};
ConfirmationFeedback readConfirmationFeedback(std::string const& body);

// An activateAutoConfirm body: "initiator" and "remark", both optional
// strings; an empty body is an empty request.
struct AutoConfirmRequest {
  bool valid = false;
  std::string error;
  std::string initiator, remark;
};
AutoConfirmRequest readAutoConfirmRequest(std::string const& body);

// An installedBase body: the "name" and "version" of a distribution set,
// both required strings.
struct AssignedVersion {
  bool valid = false;
  std::string error;
  std::string name, version;
};
AssignedVersion readAssignedVersion(std::string const& body);

}  // namespace tamrel::ddiserver
