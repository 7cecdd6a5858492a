#include "agent/control/controlprotocol.h"

#include <cjson/cJSON.h>

#include <cmath>
#include <memory>

#include "agent/base/jsontext.h"

namespace {

using Kind = ControlRequest::Kind;

struct Named {
  char const* name;
  Kind kind;
};
constexpr Named kChanges[] = {
    {"poll", Kind::kPoll},       {"hold", Kind::kHold},     {"release", Kind::kRelease},
    {"consent", Kind::kConsent}, {"permit", Kind::kPermit},
};

// A string member that must be there and be one of `words` ("a|b"), or any
// non-empty text when `words` is null; "" when it is fine, else why not.
std::string need(cJSON const* object, char const* key, char const* words, std::string& value) {
  cJSON const* member = cJSON_GetObjectItemCaseSensitive(object, key);
  if (!cJSON_IsString(member) || *member->valuestring == '\0')
    return std::string("missing \"") + key + "\"" +
           (words ? std::string(" (") + words + ")" : std::string(" (a string)"));
  value = member->valuestring;
  if (words != nullptr &&
      ("|" + std::string(words) + "|").find("|" + value + "|") == std::string::npos)
    return std::string("\"") + key + "\" must be one of " + words;
  return "";
}

}  // namespace

ControlProtocol::Parsed ControlProtocol::parse(std::string const& line) {
  Parsed parsed;
  if (line.size() > kMaxLine) {
    parsed.error = "request line over " + std::to_string(kMaxLine) + " bytes";
    return parsed;
  }
  JsonText::Document document(cJSON_ParseWithLength(line.data(), line.size()), cJSON_Delete);
  if (!document || !cJSON_IsObject(document.get())) {
    parsed.error = "not a JSON object";
    return parsed;
  }
  cJSON const* const object = document.get();
  std::string const verb = JsonText::member(object, "request");
  if (verb == "status") {
    parsed.verb = Verb::kStatus;
    return parsed;
  }
  if (verb == "watch") {
    parsed.verb = Verb::kWatch;
    return parsed;
  }
  Named const* change = nullptr;
  for (Named const& named : kChanges) {
    if (verb == named.name) change = &named;
  }
  if (change == nullptr) {
    parsed.error = verb.empty() ? "missing \"request\"" : "unknown request \"" + verb + "\"";
    return parsed;
  }
  ControlRequest& request = parsed.request;
  request.kind = change->kind;
  std::string problem;
  if (request.kind == Kind::kConsent) {
    std::string answer;
    problem = need(object, "action", nullptr, request.action);
    if (problem.empty()) problem = need(object, "answer", "confirm|deny", answer);
    request.confirm = answer == "confirm";
    cJSON const* reason = cJSON_GetObjectItemCaseSensitive(object, "reason");
    if (problem.empty() && reason != nullptr && !cJSON_IsString(reason))
      problem = "\"reason\" must be a string";
    if (cJSON_IsString(reason)) request.reason = reason->valuestring;
  } else if (request.kind == Kind::kPermit) {
    problem = need(object, "action", nullptr, request.action);
    if (problem.empty()) problem = need(object, "what", "download|install", request.permit);
  }
  cJSON const* interval = cJSON_GetObjectItemCaseSensitive(object, "interval");
  if (problem.empty() && interval != nullptr) {
    // The longest interval the agent takes from its configuration.
    double const number = cJSON_IsNumber(interval) ? interval->valuedouble : 0;
    if (number < 1 || number > 86400 || std::floor(number) != number)
      problem = "\"interval\" must be a whole number of seconds from 1 to 86400";
    request.interval = static_cast<std::int64_t>(number);
  }
  if (problem.empty()) {
    parsed.verb = Verb::kChange;
  } else {
    parsed.error = problem;
    parsed.request = ControlRequest();
  }
  return parsed;
}

std::string ControlProtocol::ok(std::string const& members) {
  return members.empty() ? "{\"ok\":true}" : "{\"ok\":true," + members + "}";
}

std::string ControlProtocol::error(std::string const& message) {
  return "{\"ok\":false,\"error\":" + JsonText::quoted(message) + "}";
}

std::string ControlProtocol::dropped(std::uint64_t count) {
  return "{\"event\":\"dropped\",\"count\":" + std::to_string(count) + "}";
}

char const* ControlProtocol::name(ControlRequest::Kind kind) {
  for (Named const& named : kChanges) {
    if (named.kind == kind) return named.name;
  }
  return "?";
}
